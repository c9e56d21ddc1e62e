// SPDX-License-Identifier: Apache-2.0
// NetworkWatch reports that the push connection's path is gone from the kernel's own address and
// link events; setPushSocketOptions makes the kernel fail a connection whose path died in
// silence. Both on real sockets, in a network namespace of the test's own.

#include "core/constants.h"
#include "linkfaults.h"
#include "logcapture.h"
#include "push/client_netwatch.h"

#include <QElapsedTimer>
#include <QNetworkInterface>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

class tst_NetWatch : public QObject
{
    Q_OBJECT

private:
    // A connection from a client socket to a server on `address`.
    bool connectTo(const QString& address)
    {
        if (!m_server.listen(QHostAddress(address)))
            return false;
        m_client.connectToHost(m_server.serverAddress(), m_server.serverPort());
        if (!m_client.waitForConnected(30000) || !m_server.waitForNewConnection(30000))
            return false;
        m_peer = m_server.nextPendingConnection();
        return true;
    }
    // "del-addr DEV CIDR", "down DEV", "del-link DEV": one change of the namespace's network.
    int act(const QString& action)
    {
        const QStringList words = action.split(' ');
        if (words.value(0) == "del-addr")
            return m_faults.removeAddress(words.value(1), words.value(2));
        if (words.value(0) == "down")
            return m_faults.setLink(words.value(1), false);
        if (words.value(0) == "del-link")
            return m_faults.removeDummy(words.value(1));
        return -1;
    }

    LinkFaults m_faults;
    LogCapture m_log;
    QTcpServer m_server;
    QTcpSocket m_client;
    QTcpSocket* m_peer = nullptr;

private slots:
    void initTestCase()
    {
        m_log.start(kLogProgress);
        if (!LinkFaults::inPrivateNamespace())
            QSKIP("needs a network namespace of its own (tests/support/netns.sh)");
        if (m_faults.addDummy("d627probe") != 0)
            QSKIP(qPrintable("cannot make interfaces here: " + m_faults.lastError()));
        QCOMPARE(m_faults.removeDummy("d627probe"), 0);
    }
    void init()
    {
        // Two dummy interfaces with loopback-range addresses; the connection runs over the first.
        QCOMPARE(m_faults.addDummy("d627t0"), 0);
        QCOMPARE(m_faults.addDummy("d627t1"), 0);
        QCOMPARE(m_faults.addAddress("d627t0", "127.0.0.2/32"), 0);
        QCOMPARE(m_faults.addAddress("d627t0", "127.0.0.4/32"), 0);
        QCOMPARE(m_faults.addAddress("d627t1", "127.0.0.3/32"), 0);
    }
    void cleanup()
    {
        m_client.abort();
        m_server.close();
        m_faults.removeDummy("d627t0");
        m_faults.removeDummy("d627t1");
    }

    void pathLost_data()
    {
        QTest::addColumn<QString>("decoy"); // a change that concerns another address or link
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("reason");
        QTest::newRow("address removed") << ""
                                         << "del-addr d627t0 127.0.0.2/32"
                                         << "removed";
        QTest::newRow("link down") << ""
                                   << "down d627t0"
                                   << "d627t0 is down";
        // A link that is removed while up goes down first.
        QTest::newRow("link removed") << ""
                                      << "del-link d627t0"
                                      << "d627t0";
        QTest::newRow("other address on its link removed") << "del-addr d627t0 127.0.0.4/32"
                                                           << "down d627t0"
                                                           << "d627t0 is down";
        QTest::newRow("address on another link removed") << "del-addr d627t1 127.0.0.3/32"
                                                         << "del-addr d627t0 127.0.0.2/32"
                                                         << "removed";
        QTest::newRow("another link down") << "down d627t1"
                                           << "del-addr d627t0 127.0.0.2/32"
                                           << "removed";
        QTest::newRow("another link removed") << "del-link d627t1"
                                              << "down d627t0"
                                              << "d627t0 is down";
    }
    void pathLost()
    {
        QFETCH(QString, decoy);
        QFETCH(QString, fault);
        QFETCH(QString, reason);
        // Toward an address on the dummy link, the kernel picks that address as the local one.
        QVERIFY(connectTo("127.0.0.2"));
        QCOMPARE(m_client.localAddress(), QHostAddress("127.0.0.2"));

        NetworkWatch watch;
        QSignalSpy lost(&watch, &NetworkWatch::pathLost);
        QCOMPARE(watch.watch(m_client.localAddress()), 0);
        QVERIFY(watch.isWatching());
        QCOMPARE(watch.interfaceIndex(), QNetworkInterface::interfaceIndexFromName("d627t0"));
        // Events come in order: had the decoy been taken for a loss, the one report would be
        // the decoy's and the watch would be closed before the fault.
        if (!decoy.isEmpty())
            QVERIFY2(act(decoy) == 0, qPrintable(m_faults.lastError()));
        QVERIFY2(act(fault) == 0, qPrintable(m_faults.lastError()));
        QTRY_COMPARE_WITH_TIMEOUT(lost.count(), 1, 30000);
        QVERIFY2(lost.at(0).at(0).toString().contains(reason),
                 qPrintable(lost.at(0).at(0).toString()));
        QVERIFY(!watch.isWatching());
        // Once per watch: later events report nothing more.
        m_faults.removeDummy("d627t1");
        QTest::qWait(0);
        QCOMPARE(lost.count(), 1);
    }

    void lostEventsAreLookedUpAfresh()
    {
        // A burst larger than the smallest receive buffer: the kernel drops events, the removal
        // of the watched address among them, and the watch looks the address up instead.
        NetworkWatch watch(nullptr, 1);
        QSignalSpy lost(&watch, &NetworkWatch::pathLost);
        QCOMPARE(watch.watch(QHostAddress("127.0.0.2")), 0);
        QByteArray burst;
        for (int i = 1; i <= 200; ++i)
            burst += QByteArray("addr add 127.0.1.") + QByteArray::number(i) + "/32 dev d627t1\n";
        QCOMPARE(m_faults.run("ip", {"-batch", "-"}, burst), 0);
        QCOMPARE(act("del-addr d627t0 127.0.0.2/32"), 0);
        QTRY_COMPARE_WITH_TIMEOUT(lost.count(), 1, 30000);
        QVERIFY(m_log.contains("network watch: events lost"));
    }

    void watchNeedsAnAddressOfThisHost()
    {
        NetworkWatch watch;
        QCOMPARE(watch.watch(QHostAddress("127.0.0.9")), -1);
        QVERIFY(!watch.isWatching());
        // An address on a link that is down is lost at once.
        QCOMPARE(m_faults.setLink("d627t1", false), 0);
        QSignalSpy lost(&watch, &NetworkWatch::pathLost);
        QCOMPARE(watch.watch(QHostAddress("127.0.0.3")), 0);
        QCOMPARE(lost.count(), 1);
    }

    void deadPathFails_data()
    {
        QTest::addColumn<int>("userTimeoutMs");
        QTest::addColumn<int>("keepIdle"); // seconds, also keepalive's interval and count below
        QTest::addColumn<int>("keepInterval");
        QTest::addColumn<int>("keepCount");
        QTest::addColumn<int>("bytesInFlight");
        QTest::addColumn<int>("notBeforeMs"); // from the black hole (in flight) or the connect
        QTest::newRow("data in flight: user timeout") << 2000 << 3600 << 10 << 4 << 1000 << 2000;
        QTest::newRow("idle: keepalive by count") << 0 << 2 << 1 << 2 << 0 << 4000;
        QTest::newRow("idle: keepalive under user timeout") << 3000 << 1 << 1 << 9 << 0 << 3000;
    }
    void deadPathFails()
    {
        QFETCH(int, userTimeoutMs);
        QFETCH(int, keepIdle);
        QFETCH(int, keepInterval);
        QFETCH(int, keepCount);
        QFETCH(int, bytesInFlight);
        QFETCH(int, notBeforeMs);
        QElapsedTimer since;
        since.start();
        QVERIFY(connectTo("127.0.0.1"));
        QCOMPARE(setPushSocketOptions(m_client.socketDescriptor(),
                                      {userTimeoutMs, keepIdle, keepInterval, keepCount}),
                 0);
        QSignalSpy failed(&m_client, &QAbstractSocket::errorOccurred);
        const quint16 port = m_client.localPort();
        QCOMPARE(LinkFaults::clientPorts(m_server.serverPort()), QList<quint16>{port});
        QVERIFY2(m_faults.blackHole(port) == 0, qPrintable(m_faults.lastError()));
        if (bytesInFlight > 0) {
            since.start();
            m_client.write(QByteArray(bytesInFlight, 'h'));
        }
        // Without the options the kernel would take about 15 minutes.
        QTRY_VERIFY_WITH_TIMEOUT(failed.count() > 0, 60000);
        QVERIFY2(since.elapsed() >= notBeforeMs - 50, qPrintable(QString::number(since.elapsed())));
        QCOMPARE(m_client.error(), QAbstractSocket::SocketTimeoutError);
        QCOMPARE(m_faults.clearBlackHole(port), 0);
    }

    void refusedOptionIsReported() { QCOMPARE(setPushSocketOptions(-1), -1); }
};

QTEST_GUILESS_MAIN(tst_NetWatch)
#include "tst_netwatch.moc"
