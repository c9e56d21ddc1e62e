// Soak: one MsgClient against real push and HTTP servers on 127.0.0.1, intervals scaled down.
// Each cycle drops the connection (status check, back-off, lookup, reconnection to the running
// step) and sends a notice (query, status check). Afterwards fds, QObjects and RSS have not grown.

#include "core/data.h"
#include "core/datacenter.h"
#include "httpstub.h"
#include "push/client.h"
#include "pushstub.h"

#include <QtTest>
#include <atomic>
#include <malloc.h>
#include <unistd.h>

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

qint64 residentKb() // once the allocator has handed its free pages back
{
    malloc_trim(0);
    QFile statm("/proc/self/statm");
    statm.open(QIODevice::ReadOnly);
    return statm.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE) / 1024;
}
} // namespace

class tst_Soak : public QObject
{
    Q_OBJECT
private slots:
    void soak();
};

void tst_Soak::soak()
{
    QCOMPARE(qtHookData[2], quintptr(QT_VERSION));
    qtHookData[3] = reinterpret_cast<quintptr>(+[](QObject*) { ++g_objects; });
    qtHookData[4] = reinterpret_cast<quintptr>(+[](QObject*) { --g_objects; });
    MsgClient::setBackoffClock([] { return g_now += 100; }); // quiet: one (scaled) second
    CLoginInfor login;
    login.cookies.insert("cookie", "USERSESSIONID=u;");
    login.userId = "4242";
    DataCenter::getInstance()->SetLoginInfor(login);
    PushStub push;
    HttpStub http;
    QVERIFY(push.listen(0) && http.listen(0));
    std::atomic<int> checks{0}; // changed by the handlers below
    std::atomic<int> queries{0};
    http.route("/address", [&](const HttpStubRequest&) {
        return HttpStubResponse::json(R"({"state":1,"data":{"server":[")" + push.address() +
                                      "\"]}}");
    });
    http.route("/sso", [&](const HttpStubRequest&) {
        ++checks;
        return HttpStubResponse::json(R"({"state":0,"message":""})");
    });
    connect(&push, &PushStub::frameReceived, [&](const PushFrame& f) { queries += f.isQuery(); });

    MsgClientTimes times;
    times.stepMs = times.backoffSecondMs = 1;
    times.netErrorMs = 100;
    times.socketWaitMs = 5000;
    MsgClient client(nullptr, times);
    client.setServiceUrls(http.baseUrl() + "/address", http.baseUrl() + "/sso");
    auto cycle = [&] {
        const int accepted = push.acceptedCount();
        const int checksBefore = checks;
        push.dropConnections();
        const bool back = runUntil([&] {
            return push.acceptedCount() == accepted + 1 && client.process() == 4 &&
                   checks == checksBefore + 1 && queries > 0;
        });
        // The notice's query is answered; the answer is not parsed and prompts a status check.
        const int queriesBefore = queries;
        push.sendNotice(42);
        const bool noticed =
            runUntil([&] { return queries == queriesBefore + 1 && checks == checksBefore + 2; });
        push.clearFrames(); // so that only the client could grow
        http.clearRequests();
        return back && noticed;
    };
    QVERIFY(runUntil([&] { return client.process() == 4; }));
    for (int i = 0; i < 100; ++i) // warm-up
        QVERIFY2(cycle(), qPrintable(QString("warm-up cycle %1").arg(i)));
    // The baseline is read once the last cycle's HTTP thread and sockets have wound down.
    runUntil([] { return false; }, 300);
    const int fds = openFds();
    const int objects = g_objects;
    const qint64 rss = residentKb();
    const int checksBefore = checks;
    const int cycles = 1000;
    for (int i = 0; i < cycles; ++i)
        QVERIFY2(cycle(), qPrintable(QString("cycle %1").arg(i)));
    QTRY_COMPARE_WITH_TIMEOUT(openFds(), fds, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(g_objects.load(), objects, 10000);
    const qint64 growth = residentKb() - rss;
    qInfo("soak: %d drop-and-reconnect cycles, %d notices, %d status checks; fds %d, QObjects %d, "
          "RSS growth %lld kB",
          cycles, cycles, checks.load() - checksBefore, fds, objects, growth);
    QCOMPARE(checks.load() - checksBefore, 2 * cycles);
#ifndef D627_SANITIZED // the sanitizers hold freed memory back, so RSS tells nothing there
    QVERIFY2(growth < 64, qPrintable(QString("RSS grew by %1 kB").arg(growth)));
#endif
}

QTEST_GUILESS_MAIN(tst_Soak)
#include "tst_soak.moc"
