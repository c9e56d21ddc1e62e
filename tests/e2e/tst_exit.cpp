// Exits of the real d627 binary in every state of its client thread and by every way it ends.
// The daemon's compiled-in services point at 127.0.0.1:18627, where this test serves the address
// lookup and the status check; the user agent of each daemon tells the handlers its case. The
// daemons of one row run side by side, each with its own TMPDIR and HOME, and each one is ended
// at a random moment after its state was seen. Every exit must give code 0 and leave neither
// the lock file nor the socket file behind.

#include "httpstub.h"
#include "link/communication.h"
#include "pushstub.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QLocalSocket>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {
const QString kBin = QStringLiteral(D627_BIN_DIR "/d627");
const QString kLib = QStringLiteral(D627_LIB_DIR);
constexpr int kPerRow = 14;

struct Run
{
    QTemporaryDir dir;
    QProcess process;
    QLocalSocket link;
    QByteArray received;
    int uid = 0;
    int stage = 0; // 0 started, 1 linked, 2 state seen, 3 ended by the test
    QDeadlineTimer actAt;
    QString socketPath() const { return dir.path() + "/" + kInstanceId; }
    QString lockPath() const { return dir.path() + "/d627_" + kInstanceId + "-lockfile"; }
};
} // namespace

class tst_Exit : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void exits_data();
    void exits();

private:
    int seen(const QByteArray& path, int uid) const;
    bool stateSeen(const QString& state, const Run& run) const;

    HttpStub m_http;
    PushStub m_push;
    quint16 m_refused = 0;
    int m_exits = 0;
    int m_crashes = 0;
};

void tst_Exit::initTestCase()
{
    QVERIFY(m_push.listen(0));
    QVERIFY(m_http.listen(18627));
    QTcpServer probe;
    QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
    m_refused = probe.serverPort();
    probe.close();
    // User agent: "exit/<state>/<way>/<uid>".
    m_http.route("/get_tcp_server", [this](const HttpStubRequest& request) {
        const QList<QByteArray> ua = request.header("user-agent").split('/');
        const QByteArray port =
            QByteArray::number(ua.value(1) == "backoff" ? m_refused : m_push.port());
        HttpStubResponse answer =
            HttpStubResponse::json(R"({"state":1,"data":{"server":["127.0.0.1:)" + port + "\"]}}");
        // The connection follows the answer at once: an exit aimed at this moment meets the
        // client thread inside connectToHost. For "http" the daemon stays blocked here.
        answer.delayMs = ua.value(1) == "http" ? 600000 : 200;
        return answer;
    });
    m_http.route("/app/1.0/linux/5.0.1/check/sso", [](const HttpStubRequest& request) {
        const bool kicked = request.header("user-agent").split('/').value(2) == "logout";
        return HttpStubResponse::json(kicked ? R"({"state":1,"message":"kicked"})"
                                             : R"({"state":0,"message":""})");
    });
}

void tst_Exit::cleanupTestCase()
{
    qInfo("exits: %d, crashes: %d", m_exits, m_crashes);
}

int tst_Exit::seen(const QByteArray& path, int uid) const
{
    int count = 0;
    for (const HttpStubRequest& request : m_http.requests())
        count += request.path == path &&
                 request.header("user-agent").endsWith("/" + QByteArray::number(uid));
    return count;
}

bool tst_Exit::stateSeen(const QString& state, const Run& run) const
{
    if (state == "idle")
        return true;
    if (state == "http" || state == "connecting")
        return seen("/get_tcp_server", run.uid) > 0;
    if (state == "backoff")
        return seen("/app/1.0/linux/5.0.1/check/sso", run.uid) > 0;
    if (state != "running") // reconnecting: the lookup of the second connection
        return seen("/get_tcp_server", run.uid) > 1;
    // Running: the query of the latest messages went out on the connection of its login.
    int connection = -1;
    for (const PushFrame& frame : m_push.frames()) {
        if (frame.isLogin() && frame.userId == quint32(run.uid))
            connection = frame.connection;
        if (frame.isQuery() && frame.connection == connection)
            return true;
    }
    return false;
}

void tst_Exit::exits_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("way");
    // States: before login; in step 0; blocked in the address request; in the back-off after a
    // refused connection; reconnecting with the cipher library missing, failing in every entry
    // point, or failing its init; running. Ways: "exit" message; logout report; main
    // application gone (link down, its lock file free); local server cannot listen.
    const QMap<QString, QStringList> ways{
        {"exit",
         {"idle", "connecting", "http", "backoff", "nolib", "libfail", "libinit", "running"}},
        {"logout", {"backoff", "nolib", "libfail", "libinit"}},
        {"gone", {"connecting", "http", "backoff", "nolib", "running"}},
        {"listen", {"idle"}}};
    for (auto it = ways.cbegin(); it != ways.cend(); ++it) {
        for (const QString& state : it.value())
            QTest::addRow("%s/%s", qPrintable(state), qPrintable(it.key())) << state << it.key();
    }
}

void tst_Exit::exits()
{
    QFETCH(QString, state);
    QFETCH(QString, way);
    static int nextUid = 7000;
    std::vector<std::unique_ptr<Run>> runs;
    for (int i = 0; i < kPerRow; ++i) {
        runs.emplace_back(new Run);
        Run& run = *runs.back();
        QVERIFY(run.dir.isValid());
        run.uid = ++nextUid;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TMPDIR", run.dir.path());
        env.insert("HOME", run.dir.path());
        env.insert("LD_LIBRARY_PATH", state == "nolib"          ? run.dir.path()
                                      : state.startsWith("lib") ? kLib + "/fake-ec627"
                                                                : kLib);
        env.insert("FAKE_EC627_MODE", state == "libfail" ? "fail" : "initfail");
        run.process.setProcessEnvironment(env);
        run.process.setStandardOutputFile(QProcess::nullDevice());
        run.process.setStandardErrorFile(QProcess::nullDevice());
        // A non-empty folder where the socket belongs: removeServer cannot clear it, listen fails.
        if (way == "listen")
            QVERIFY(QDir().mkpath(run.socketPath() + "/taken"));
        connect(&run.link, &QLocalSocket::readyRead,
                [&run] { run.received += run.link.readAll(); });
        run.process.start(kBin, QStringList());
        QVERIFY(run.process.waitForStarted());
    }

    const QDeadlineTimer deadline(60000);
    auto pending = [&] {
        return std::any_of(runs.cbegin(), runs.cend(), [](const std::unique_ptr<Run>& run) {
            return run->process.state() != QProcess::NotRunning;
        });
    };
    while (pending() && !deadline.hasExpired()) {
        QTest::qWait(20);
        for (const std::unique_ptr<Run>& r : runs) {
            Run& run = *r;
            if (run.stage == 0 && way != "listen" && QFile::exists(run.socketPath())) {
                run.link.connectToServer(run.socketPath());
                if (!run.link.waitForConnected(5000))
                    continue;
                if (state != "idle") {
                    const QString login = QString(R"({"user_id":"%1","cookie":"USERSESSIONID=x;",)"
                                                  R"("user_agent":"exit/%2/%3/%1","pid":%4,)"
                                                  R"("lockfile":"%5/mainapp.lock","loglevel":0})")
                                              .arg(run.uid)
                                              .arg(state, way)
                                              .arg(QCoreApplication::applicationPid())
                                              .arg(run.dir.path());
                    run.link.write(login.toUtf8());
                    run.link.flush();
                }
                run.stage = 1;
            } else if (run.stage == 1 && stateSeen(state, run)) {
                // The exit lands anywhere in the next stretch of the client thread's work, or,
                // when aimed, around the connection that follows the delayed address answer.
                const bool aimed = state == "connecting" || state.contains("lib");
                run.actAt.setRemainingTime(
                    QRandomGenerator::global()->bounded(aimed ? 180 : 0, aimed ? 260 : 800));
                run.stage = 2;
            } else if (run.stage == 2 && run.actAt.hasExpired()) {
                if (way == "exit")
                    run.link.write(R"({"exit":true})");
                else if (way == "gone")
                    run.link.disconnectFromServer();
                run.stage = 3;
            }
        }
    }

    QStringList failures;
    for (const std::unique_ptr<Run>& r : runs) {
        Run& run = *r;
        if (run.process.state() != QProcess::NotRunning) {
            run.process.kill();
            run.process.waitForFinished();
            failures << QString("uid %1: did not end").arg(run.uid);
            continue;
        }
        ++m_exits;
        const bool crashed = run.process.exitStatus() == QProcess::CrashExit;
        m_crashes += crashed ? 1 : 0;
        const QStringList faults =
            QStringList{crashed ? "crashed" : "",
                        run.process.exitCode() != 0 ? "exit code" : "",
                        QFile::exists(run.lockPath()) ? "lock file left" : "",
                        way != "listen" && QFile::exists(run.socketPath()) ? "socket file left"
                                                                           : "",
                        way == "logout" && !run.received.contains("\"logout\"") ? "no logout" : "",
                        (way == "exit" || way == "gone") && run.stage != 3 ? "ended early" : ""}
                .filter(QRegularExpression("."));
        if (!faults.isEmpty())
            failures << QString("uid %1 stage %2: %3")
                            .arg(run.uid)
                            .arg(run.stage)
                            .arg(faults.join(", "));
    }
    QVERIFY2(failures.isEmpty(), qPrintable(failures.join("; ")));
}

QTEST_GUILESS_MAIN(tst_Exit)
#include "tst_exit.moc"
