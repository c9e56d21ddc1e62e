// SPDX-License-Identifier: Apache-2.0
// Soak: one MsgClient against real push and HTTP servers on 127.0.0.1, intervals scaled down.
// Each cycle drops the connection (status check, back-off, lookup, reconnection to the running
// step) and sends a notice (query, status check). Afterwards fds and QObjects have not grown.
// (Memory is measured by the growth benchmark under bench/, not asserted here.)

#include "core/data.h"
#include "core/datacenter.h"
#include "pushservices.h"

#include <QtTest>
#include <atomic>

// QtCore's hook table (private qhooks_p.h): 2 Qt version, 3/4 every QObject made/destroyed.
extern Q_CORE_EXPORT quintptr qtHookData[];

namespace {
std::atomic<int> g_objects{0};
qint64 g_now = 0;

// Runs an event loop, as the client thread does, until done() holds or timeoutMs passed.
bool runUntil(const std::function<bool()>& done, int timeoutMs = 20000)
{
    QEventLoop loop;
    QTimer poll;
    const QDeadlineTimer deadline(timeoutMs);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (done() || deadline.hasExpired())
            loop.quit();
    });
    poll.start(1);
    loop.exec();
    return done();
}

int openFds()
{
    return QDir("/proc/self/fd")
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}
} // namespace

class tst_Soak : public QObject
{
    Q_OBJECT
private slots:
    void reconnectsAndNoticesLeaveDescriptorsAndObjectsFlat()
    {
        QCOMPARE(qtHookData[2], quintptr(QT_VERSION));
        qtHookData[3] = reinterpret_cast<quintptr>(+[](QObject*) { ++g_objects; });
        qtHookData[4] = reinterpret_cast<quintptr>(+[](QObject*) { --g_objects; });
        MsgClient::setBackoffClock([] { return g_now += 100; }); // quiet: one (scaled) second
        CLoginInfor login;
        login.cookies.insert("cookie", "USERSESSIONID=u;");
        login.userId = "4242";
        DataCenter::getInstance()->SetLoginInfor(login);
        PushServices services;
        QVERIFY(services.start());
        PushStub& push = services.push;
        std::atomic<int> queries{0};
        connect(&push, &PushStub::frameReceived,
                [&](const PushFrame& f) { queries += f.isQuery(); });
        auto checks = [&services] { return services.statusChecks(); };

        MsgClientTimes times = fastTimes(1);
        times.backoffSecondMs = 1;
        const std::unique_ptr<MsgClient> client = services.client(times);
        auto cycle = [&] {
            const int accepted = push.acceptedCount();
            const int checksBefore = checks();
            push.dropConnections();
            const bool back = runUntil([&] {
                return push.acceptedCount() == accepted + 1 && client->process() == 4 &&
                       checks() == checksBefore + 1 && queries > 0;
            });
            // The notice's query is answered; the answer is not parsed and prompts a status check.
            const int queriesBefore = queries;
            push.sendNotice(42);
            const bool noticed = runUntil(
                [&] { return queries == queriesBefore + 1 && checks() == checksBefore + 2; });
            push.clearFrames(); // so that only the client could grow
            services.http.clearRequests();
            return back && noticed;
        };
        QVERIFY(runUntil([&] { return client->process() == 4; }));
        for (int i = 0; i < 100; ++i) // warm-up
            QVERIFY2(cycle(), qPrintable(QString("warm-up cycle %1").arg(i)));
        // The baseline may still hold the last cycle's HTTP thread and sockets, which wind down on
        // their own: afterwards the counts must not exceed it. A leak in a cycle would add 1000.
        const int fds = openFds();
        const int objects = g_objects;
        const int checksBefore = checks();
        const int cycles = 1000;
        for (int i = 0; i < cycles; ++i)
            QVERIFY2(cycle(), qPrintable(QString("cycle %1").arg(i)));
        QTRY_VERIFY2_WITH_TIMEOUT(openFds() <= fds, qPrintable(QString::number(openFds())), 10000);
        QTRY_VERIFY2_WITH_TIMEOUT(g_objects <= objects, qPrintable(QString::number(g_objects)),
                                  10000);
        qInfo(
            "soak: %d drop-and-reconnect cycles, %d notices, %d status checks; fds %d, QObjects %d",
            cycles, cycles, checks() - checksBefore, fds, objects);
        QCOMPARE(checks() - checksBefore, 2 * cycles);
    }
};

QTEST_GUILESS_MAIN(tst_Soak)
#include "tst_soak.moc"
