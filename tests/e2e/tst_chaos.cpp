// SPDX-License-Identifier: Apache-2.0
// The chaos suite: the real d627 against the real d627-sandbox, its push connection through a
// fault-injecting proxy, while seeded schedules of overlapping faults play: packet loss, black
// holes and resets from nftables, a bandwidth cap from tc tbf, and delay, jitter, stalls and
// sliced writes from the proxy. Meanwhile the push stand-in keeps sending notices and queueing
// avatar and membership changes. Checked all the time: at most one push connection, every
// connection with one login and then its query, no crash. Checked after each fault phase: the
// main application holds the latest avatar and membership soon; at the end, the daemon's fds and
// threads are back at their baseline and "exit" ends it with code 0. Only loopback inside this
// test's own network namespace is touched.
//
// D627_CHAOS_SECONDS, D627_CHAOS_SEED and D627_CHAOS_RESULTS turn a row into a long run that
// writes one line per phase (bench/chaos.sh).

#include "defaultservices.h"
#include "e2eharness.h"
#include "faultproxy.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QtTest>

using namespace e2e;

namespace {
// How long the daemon may take to hold the latest change once the faults stop: the back-off cap
// (10 s), the three paced steps (3 s) and a status check (a few seconds after a loss), plus a
// margin for a loaded or sanitized machine.
constexpr int kRecoveryLimitMs = (10 + 3 + 5) * 1000 + 60000;
constexpr int kSampleMs = 250;   // invariants checked this often
constexpr int kTrafficMs = 1500; // a notice or a queued change this often
constexpr int kLossPercent = 25; // random loss
constexpr quint16 kPushPort = 18628;

enum Fault
{
    Loss,
    BlackHole,
    Reset,
    Cap,
    Delay,
    Stall,
    Slice,
    HttpLoss,
    FaultCount
};
const char* const kFaultNames[FaultCount] = {"loss",  "black-hole", "reset", "cap",
                                             "delay", "stall",      "slice", "http-loss"};

// The /proc/net/tcp lines of the sockets of process `pid` that are connected or connecting to
// `port`.
QList<QByteArray> connectionsTo(qint64 pid, quint16 port)
{
    QSet<QByteArray> inodes;
    const QString fdDir = QString("/proc/%1/fd").arg(pid);
    for (const QString& fd : QDir(fdDir).entryList(QDir::Files | QDir::System)) {
        const QString target = QFile::symLinkTarget(fdDir + '/' + fd);
        if (target.contains("socket:["))
            inodes.insert(target.section('[', 1).chopped(1).toLatin1());
    }
    const QByteArray remote = ':' + QByteArray::number(port, 16).toUpper().rightJustified(4, '0');
    QList<QByteArray> found;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        for (const QByteArray& line : linesOf(readFile(table))) {
            const QList<QByteArray> f = line.simplified().split(' ');
            // remote address:port, state 01 established or 02 connecting, inode
            if (f.size() > 9 && f.at(2).endsWith(remote) && (f.at(3) == "01" || f.at(3) == "02") &&
                inodes.contains(f.at(9)))
                found.append(line.simplified());
        }
    }
    return found;
}

int entries(qint64 pid, const char* what)
{
    return QDir(QString("/proc/%1/%2").arg(pid).arg(what))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}
} // namespace

class tst_Chaos : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanup();
    void chaos_data();
    void chaos();

private:
    bool apply(const QList<Fault>& faults);
    bool sample(QString& why);
    bool received(int from, const QString& face, int level);

    E2eHarness h;
    FaultProxy m_proxy;
    int m_serial = 0;
};

void tst_Chaos::initTestCase()
{
    // Only where the loopback device is the only one, as in the network namespace of its own
    // that ctest gives it: the rules below change how that device forwards.
    if (!onlyLoopback())
        QSKIP("runs only in a network namespace of its own (tests/support/netns.sh, as root)");
    if (run("nft", {"list", "tables"}) != 0 || run("tc", {"qdisc", "show", "dev", "lo"}) != 0)
        QSKIP("nftables and tc are not usable here");
    QVERIFY(run("nft", {"-f", "-"},
                "table inet chaos {\n chain out { type filter hook output "
                "priority 0; }\n}\n") == 0);
    QVERIFY(m_proxy.listen(kPushPort));
    QVERIFY(h.prepare() && h.startSandbox());
}

void tst_Chaos::cleanup()
{
    apply({});
    h.cleanup();
}

// The faults in place from now on: nftables rules on the proxy's and the HTTP port, the tbf cap
// on the loopback device, the proxy's own faults. An empty list lifts them all.
bool tst_Chaos::apply(const QList<Fault>& faults)
{
    const QString proxy = QString::number(m_proxy.port());
    QString rules = "flush chain inet chaos out\n";
    const auto rule = [&](const QString& match, const QString& verdict) {
        rules += "add rule inet chaos out " + match + ' ' + verdict + '\n';
    };
    const QString loss = QString("numgen random mod 100 < %1 drop").arg(kLossPercent);
    for (const QString side : {"dport", "sport"}) {
        if (faults.contains(Loss))
            rule("tcp " + side + ' ' + proxy, loss);
        if (faults.contains(BlackHole))
            rule("tcp " + side + ' ' + proxy, "drop");
        if (faults.contains(HttpLoss))
            rule("tcp " + side + ' ' + QString::number(kDefaultServicesPort), loss);
    }
    if (faults.contains(Reset))
        rule("tcp dport " + proxy, "reject with tcp reset");
    FaultProxy::Faults proxyFaults;
    if (faults.contains(Delay)) {
        proxyFaults.delayMs = 300;
        proxyFaults.jitterMs = 400;
    }
    proxyFaults.stalled = faults.contains(Stall);
    proxyFaults.sliceBytes = faults.contains(Slice) ? 3 : 0;
    m_proxy.setFaults(proxyFaults);
    run("tc", {"qdisc", "del", "dev", "lo", "root"}); // fails when there is none
    return run("nft", {"-f", "-"}, rules.toUtf8()) == 0 &&
           (!faults.contains(Cap) ||
            run("tc", {"qdisc", "add", "dev", "lo", "root", "tbf", "rate", "64kbit", "burst", "4kb",
                       "latency", "300ms"}) == 0);
}

// What must hold at every moment.
bool tst_Chaos::sample(QString& why)
{
    if (h.daemon().state() != QProcess::Running)
        why = "the daemon is gone";
    else if (connectionsTo(h.daemon().processId(), m_proxy.port()).size() > 1)
        why = "more than one push connection: " +
              connectionsTo(h.daemon().processId(), m_proxy.port()).join(" | ");
    else
        why = h.stepFault(0, 0); // delays reorder nothing but shift the steps' arrival times
    return why.isEmpty();
}

// Both changes reached the main application in messages from index `from` on.
bool tst_Chaos::received(int from, const QString& face, int level)
{
    bool hasFace = false, hasLevel = false;
    for (const QJsonObject& message : h.received().mid(from)) {
        hasFace = hasFace || message.value("user_face").toString() == face;
        hasLevel = hasLevel || message.value("vip_level").toInt() == level;
    }
    return hasFace && hasLevel;
}

void tst_Chaos::chaos_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::addColumn<int>("seconds"); // of faults, recoveries not counted
    const int seconds = qEnvironmentVariableIntValue("D627_CHAOS_SECONDS");
    if (seconds > 0) {
        QTest::newRow("long") << quint32(qEnvironmentVariableIntValue("D627_CHAOS_SEED"))
                              << seconds;
        return;
    }
    QTest::newRow("seed 627") << 627u << 60;
}

void tst_Chaos::chaos()
{
    QFETCH(quint32, seed);
    QFETCH(int, seconds);
    QRandomGenerator random(seed);
    QFile results(qEnvironmentVariable("D627_CHAOS_RESULTS"));
    if (!results.fileName().isEmpty()) {
        QVERIFY(results.open(QIODevice::WriteOnly | QIODevice::Truncate));
        results.write("# phase\tstart_s\tfaults\tfault_ms\trecovery_ms\tconnections\tchecks\n");
    }

    const QString address =
        QString(R"({"state":1,"data":{"server":["127.0.0.1:%1"]}})").arg(m_proxy.port());
    QVERIFY(h.ctl("http path=/get_tcp_server body=" + address));
    QVERIFY(h.startDaemonAndLogin());
    QVERIFY2(h.waitLog(kRunning, 1, 60000), "not running before the faults");
    const qint64 pid = h.daemon().processId();
    // The baseline, once the first connection is running.
    const int fds = entries(pid, "fd");
    const int threads = entries(pid, "task");

    QElapsedTimer clock;
    clock.start();
    QString why;
    for (int phase = 1; clock.elapsed() < seconds * 1000; ++phase) {
        QList<Fault> faults{Fault(random.bounded(int(FaultCount)))};
        if (random.bounded(2) == 1) // overlapping: a second fault of another kind
            faults.append(
                Fault((faults.first() + 1 + random.bounded(FaultCount - 1)) % FaultCount));
        QStringList names;
        for (Fault fault : faults)
            names << kFaultNames[fault];
        const int faultMs = 3000 + random.bounded(seconds > 600 ? 17000 : 5000);
        const qint64 start = clock.elapsed();
        QVERIFY(apply(faults));
        // The push stand-in goes on: notices, and changes queued for the next login.
        for (qint64 next = 0; clock.elapsed() - start < faultMs; next += kTrafficMs) {
            QVERIFY2(waitFor([&] { return !sample(why) || clock.elapsed() - start >= next; },
                             kTrafficMs + kSampleMs),
                     qPrintable(QString("phase %1 (%2): %3").arg(phase).arg(names.join('+'), why)));
            QVERIFY2(why.isEmpty(), qPrintable(why));
            ++m_serial;
            const QString command =
                m_serial % 3 == 0 ? QString("notice id=%1").arg(m_serial)
                : m_serial % 3 == 1
                    ? QString("avatar drop=0 url=http://127.0.0.1/a/%1.png").arg(m_serial)
                    : QString("vip drop=0 level=%1").arg(m_serial % 9 + 1);
            QVERIFY(h.ctl(command));
        }
        QVERIFY(apply({}));
        // The latest change, then a drop so that the next login brings everything queued.
        ++m_serial;
        const QString face = QString("http://127.0.0.1/a/%1.png").arg(m_serial);
        const int level = m_serial % 9 + 1;
        const int from = h.received().size();
        QVERIFY(h.ctl("avatar drop=0 url=" + face) && h.ctl(QString("vip level=%1").arg(level)));
        QElapsedTimer recovery;
        recovery.start();
        const bool held =
            waitFor([&] { return !sample(why) || received(from, face, level); }, kRecoveryLimitMs);
        QVERIFY2(
            why.isEmpty(),
            qPrintable(
                QString("phase %1 (%2), recovering: %3").arg(phase).arg(names.join('+'), why)));
        QVERIFY2(held, qPrintable(QString("phase %1 (%2): the latest change did not arrive")
                                      .arg(phase)
                                      .arg(names.join('+'))));
        if (results.isOpen()) {
            results.write(QString("%1\t%2\t%3\t%4\t%5\t%6\t%7\n")
                              .arg(phase)
                              .arg(start / 1000.0, 0, 'f', 1)
                              .arg(names.join('+'))
                              .arg(faultMs)
                              .arg(recovery.elapsed())
                              .arg(h.sandboxCount("client connected"))
                              .arg(h.sandboxCount(kStatusCheck))
                              .toUtf8());
            results.flush();
        }
    }
    QTRY_COMPARE_WITH_TIMEOUT(entries(pid, "fd"), fds, 60000);
    QTRY_COMPARE_WITH_TIMEOUT(entries(pid, "task"), threads, 60000);
    QVERIFY2(h.exitDaemon(), "no clean exit");
}

QTEST_GUILESS_MAIN(tst_Chaos)
#include "tst_chaos.moc"
