// Soak: one MsgClient against a real push server (PushStub) and real HTTP services (HttpStub),
// all on 127.0.0.1 and on the test thread, with the intervals scaled down. Each cycle drops the
// connection (status check, back-off, address lookup, reconnection up to the running step) and
// sends a notice (query, status check). Afterwards the process holds the same file descriptors
// and live QObjects as before, and its resident memory has not grown.

#include "core/data.h"
#include "core/datacenter.h"
#include "httpstub.h"
#include "push/client.h"
#include "pushstub.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QtTest>
#include <atomic>
#include <functional>
#include <malloc.h>
#include <memory>
#include <unistd.h>

// QtCore's hook table (declared in its private qhooks_p.h): entries 3 and 4 are called for
// every QObject made and destroyed, on any thread; entry 2 holds the Qt version.
extern Q_CORE_EXPORT quintptr qtHookData[];

namespace {
enum
{
    kHookQtVersion = 2,
    kHookAddQObject = 3,
    kHookRemoveQObject = 4
};
std::atomic<int> g_liveObjects{0};
void objectAdded(QObject*)
{
    ++g_liveObjects;
}
void objectRemoved(QObject*)
{
    --g_liveObjects;
}

qint64 g_now = 1700000000;
qint64 fakeNow()
{
    return g_now += 100; // always a quiet spell: the back-off stays at one (scaled) second
}

// Runs an event loop (as the client thread does) until done() holds; false after timeoutMs.
bool runUntil(const std::function<bool()>& done, int timeoutMs)
{
    QEventLoop loop;
    QTimer poll;
    QDeadlineTimer deadline(timeoutMs);
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
    return QDir("/proc/self/fd").entryList(QDir::NoDotAndDotDot | QDir::AllEntries).size();
}

// Resident memory once the allocator has handed its free pages back.
qint64 residentKb()
{
    malloc_trim(0);
    QFile statm("/proc/self/statm");
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    return statm.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE) / 1024;
}
} // namespace

class tst_Soak : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void soak_data();
    void soak();

private:
    // Drops the connection and sends a notice; false when the client did not come back.
    bool cycle(MsgClient& client);

    HttpStub m_http;
    PushStub m_push;
    int m_statusChecks = 0;
    int m_queries = 0;
};

void tst_Soak::initTestCase()
{
    QCOMPARE(qtHookData[kHookQtVersion], quintptr(QT_VERSION));
    qtHookData[kHookAddQObject] = reinterpret_cast<quintptr>(&objectAdded);
    qtHookData[kHookRemoveQObject] = reinterpret_cast<quintptr>(&objectRemoved);
    MsgClient::setBackoffClock(fakeNow);
    CLoginInfor login;
    login.cookies.insert("cookie", "USERSESSIONID=u;");
    login.userId = "4242";
    DataCenter::getInstance()->SetLoginInfor(login);
    QVERIFY(m_push.listen(0));
    QVERIFY(m_http.listen(0));
    m_http.route("/get_tcp_server", [this](const HttpStubRequest&) {
        return HttpStubResponse::json(R"({"state":1,"data":{"server":[")" + m_push.address() +
                                      "\"]}}");
    });
    m_http.route("/sso", [this](const HttpStubRequest&) {
        ++m_statusChecks;
        return HttpStubResponse::json(R"({"state":0,"message":""})");
    });
    connect(&m_push, &PushStub::frameReceived, this,
            [this](const PushFrame& frame) { m_queries += frame.isQuery() ? 1 : 0; });
}

bool tst_Soak::cycle(MsgClient& client)
{
    const int accepted = m_push.acceptedCount();
    const int checks = m_statusChecks;
    m_push.dropConnections();
    if (!runUntil(
            [&] {
                return m_push.acceptedCount() == accepted + 1 && client.process() == 4 &&
                       m_statusChecks == checks + 1 && m_queries > 0;
            },
            20000))
        return false;
    // The notice asks for a query; its answer is not parsed and prompts a status check.
    const int queries = m_queries;
    m_push.sendNotice(42);
    const bool done =
        runUntil([&] { return m_queries == queries + 1 && m_statusChecks == checks + 2; }, 20000);
    // The stand-ins keep what they saw; forget it so that only the client could grow.
    m_push.clearFrames();
    m_http.clearRequests();
    return done;
}

void tst_Soak::soak_data()
{
    QTest::addColumn<int>("warmUp");
    QTest::addColumn<int>("cycles");
    QTest::newRow("1000 reconnections, notices and status checks") << 100 << 1000;
}

void tst_Soak::soak()
{
    QFETCH(int, warmUp);
    QFETCH(int, cycles);
    MsgClientTimes times;
    times.stepMs = 1;
    times.netErrorMs = 100;
    times.socketWaitMs = 5000;
    times.backoffSecondMs = 1;
    MsgClient client(nullptr, times);
    client.setServiceUrls(m_http.baseUrl() + "/get_tcp_server", m_http.baseUrl() + "/sso");
    QTRY_COMPARE_WITH_TIMEOUT(client.process(), 4, 20000);

    for (int i = 0; i < warmUp; ++i)
        QVERIFY2(cycle(client), qPrintable(QString("warm-up cycle %1").arg(i)));
    // Each count is read when the client is running on one connection, with the objects that
    // were handed to deleteLater gone.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const int fds = openFds();
    const int objects = g_liveObjects;
    const qint64 rss = residentKb();
    const int checksBefore = m_statusChecks;

    for (int i = 0; i < cycles; ++i)
        QVERIFY2(cycle(client), qPrintable(QString("cycle %1").arg(i)));
    const int statusChecks = m_statusChecks - checksBefore;
    QTRY_COMPARE_WITH_TIMEOUT(openFds(), fds, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(g_liveObjects.load(), objects, 10000);
    const qint64 growth = residentKb() - rss;
    qInfo("soak: %d drop-and-reconnect cycles, %d notices, %d status checks; fds %d -> %d, "
          "QObjects %d -> %d, RSS %lld kB -> %lld kB (growth %lld kB)",
          cycles, cycles, statusChecks, fds, openFds(), objects, g_liveObjects.load(), rss,
          rss + growth, growth);
    QVERIFY(statusChecks >= 2 * cycles);
    QVERIFY2(growth < 64, qPrintable(QString("RSS grew by %1 kB").arg(growth)));
}

QTEST_GUILESS_MAIN(tst_Soak)
#include "tst_soak.moc"
