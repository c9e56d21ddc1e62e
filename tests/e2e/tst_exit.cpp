// SPDX-License-Identifier: Apache-2.0
// The real d627 ended in every state of its client thread and every way, 14 side by side per
// row with own TMPDIR and HOME, at a random moment after the state was seen. Its services at
// 127.0.0.1:18627 are served here; the user agent "exit/<state>/<way>/<uid>" tells the case.

#include "core/serviceurls.h"
#include "defaultservices.h"
#include "httpstub.h"
#include "link/communication.h"
#include "mainappside.h"
#include "pushstub.h"

#include <QTcpServer>
#include <QUrl>
#include <QtTest>
#include <memory>

namespace {
// The paths of the services compiled into the daemon.
const QByteArray kAddress = QUrl(serviceurls::kPushAddressUrl).path().toUtf8();
const QByteArray kSso = QUrl(serviceurls::kSsoStatusUrl).path().toUtf8();

struct Run
{
    QTemporaryDir dir;
    QProcess process;
    MainAppSide link;
    int uid = 0;
    int stage = 0; // 0 started, 1 linked, 2 state seen, 3 ended by the test
    QDeadlineTimer actAt;
    QString socketPath() const { return dir.path() + "/" + kInstanceId; }
};
} // namespace

class tst_Exit : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase() { qInfo("exits: %d, crashes: %d", m_exits, m_crashes); }
    void endsWithZeroInEveryStateAndWay_data();
    void endsWithZeroInEveryStateAndWay();

private:
    int seen(const QByteArray& path, int uid) const
    {
        const QByteArray tail = "/" + QByteArray::number(uid);
        const QList<HttpStubRequest> all = m_http.requests();
        return std::count_if(all.cbegin(), all.cend(), [&](const HttpStubRequest& r) {
            return r.path == path && r.header("user-agent").endsWith(tail);
        });
    }

    HttpStub m_http;
    PushStub m_push;
    int m_exits = 0;
    int m_crashes = 0;
};

void tst_Exit::initTestCase()
{
    if (!buildUsesDefaultServices())
        QSKIP("this build's services are not on the default loopback port");
    QTcpServer probe;
    QVERIFY(m_push.listen(0) && m_http.listen(kDefaultServicesPort) &&
            probe.listen(QHostAddress::LocalHost));
    const quint16 refused = probe.serverPort();
    probe.close();
    m_http.route(kAddress, [this, refused](const HttpStubRequest& request) {
        const QByteArray state = request.header("user-agent").split('/').value(1);
        const QByteArray port = QByteArray::number(state == "backoff" ? refused : m_push.port());
        HttpStubResponse answer =
            HttpStubResponse::json(R"({"state":1,"data":{"server":["127.0.0.1:)" + port + "\"]}}");
        // The connection follows the answer at once: an exit aimed at that moment meets the
        // client thread inside connectToHost. For "http" the daemon stays blocked here.
        answer.delayMs = state == "http" ? 600000 : 200;
        return answer;
    });
    m_http.route(kSso, [](const HttpStubRequest& request) {
        const bool kicked = request.header("user-agent").split('/').value(2) == "logout";
        return HttpStubResponse::json(kicked ? R"({"state":1,"message":"kicked"})"
                                             : R"({"state":0,"message":""})");
    });
}

void tst_Exit::endsWithZeroInEveryStateAndWay_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("way");
    // States: before login; in step 0; blocked in the address request; in the back-off after a
    // refused connection; reconnecting with the cipher library missing, failing in every entry
    // point or failing its init; running. Ways: "exit" message; logout report; main application
    // gone (link down, its lock file free); the local server cannot listen.
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

void tst_Exit::endsWithZeroInEveryStateAndWay()
{
    QFETCH(QString, state);
    QFETCH(QString, way);
    static int uid = 7000;
    const bool aimed = state == "connecting" || state.contains("lib");
    auto stateSeen = [&](const Run& run) {
        if (state == "backoff")
            return seen(kSso, run.uid) > 0;
        if (state != "running") // reconnecting: the lookup for the second connection
            return state == "idle" || seen(kAddress, run.uid) > (state.contains("lib") ? 1 : 0);
        int connection = -1; // running: the query went out on the connection of its login
        for (const PushFrame& frame : m_push.frames()) {
            if (frame.isLogin() && frame.userId == quint32(run.uid))
                connection = frame.connection;
            if (frame.isQuery() && frame.connection == connection)
                return true;
        }
        return false;
    };
    std::vector<std::unique_ptr<Run>> runs;
    for (int i = 0; i < 14; ++i) {
        runs.emplace_back(new Run);
        Run& run = *runs.back();
        run.uid = ++uid;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("TMPDIR", run.dir.path());
        env.insert("HOME", run.dir.path());
        const QString lib = D627_LIB_DIR + QString(state.startsWith("lib") ? "/fake-ec627" : "");
        env.insert("LD_LIBRARY_PATH", state == "nolib" ? run.dir.path() : lib);
        env.insert("FAKE_EC627_MODE", state == "libfail" ? "fail" : "initfail");
        run.process.setProcessEnvironment(env);
        run.process.setStandardOutputFile(QProcess::nullDevice());
        run.process.setProcessChannelMode(QProcess::ForwardedErrorChannel); // sanitizer reports
        // A non-empty folder where the socket belongs: removeServer cannot clear it.
        QVERIFY(way != "listen" || QDir().mkpath(run.socketPath() + "/taken"));
        run.process.start(D627_BIN_DIR "/d627", QStringList());
    }

    const QDeadlineTimer deadline(60000);
    auto running = [&](const std::unique_ptr<Run>& run) {
        return run->process.state() != QProcess::NotRunning;
    };
    while (std::any_of(runs.cbegin(), runs.cend(), running) && !deadline.hasExpired()) {
        QTest::qWait(20);
        for (const std::unique_ptr<Run>& r : runs) {
            Run& run = *r;
            if (run.stage == 0 && way != "listen" && QFile::exists(run.socketPath())) {
                if (!run.link.connectTo(run.socketPath(), 5000))
                    continue;
                if (state != "idle")
                    run.link.send(QString(R"({"user_id":"%1","cookie":"USERSESSIONID=x;",)"
                                          R"("user_agent":"exit/%2/%3/%1","pid":%4,)"
                                          R"("lockfile":"%5/mainapp.lock","loglevel":0})")
                                      .arg(run.uid)
                                      .arg(state, way)
                                      .arg(QCoreApplication::applicationPid())
                                      .arg(run.dir.path())
                                      .toUtf8());
                run.stage = 1;
            } else if (run.stage == 1 && stateSeen(run)) {
                // Anywhere in the next stretch of the client thread's work, or, when aimed,
                // around the connection that follows the delayed address answer.
                run.actAt.setRemainingTime(
                    QRandomGenerator::global()->bounded(aimed ? 180 : 0, aimed ? 260 : 800));
                run.stage = 2;
            } else if (run.stage == 2 && run.actAt.hasExpired()) {
                if (way == "exit")
                    run.link.sendExit();
                else if (way == "gone")
                    run.link.socket().disconnectFromServer();
                run.stage = 3;
            }
        }
    }

    QStringList failures;
    for (const std::unique_ptr<Run>& r : runs) {
        Run& run = *r;
        if (running(r)) {
            run.process.kill();
            run.process.waitForFinished();
            failures << QString("uid %1: did not end").arg(run.uid);
            continue;
        }
        ++m_exits;
        const bool crashed = run.process.exitStatus() == QProcess::CrashExit;
        m_crashes += crashed;
        const QString lock = run.dir.path() + "/d627_" + kInstanceId + "-lockfile";
        const QStringList faults =
            QStringList{crashed ? "crashed" : "",
                        run.process.exitCode() ? "exit code" : "",
                        QFile::exists(lock) ? "lock file left" : "",
                        way != "listen" && QFile::exists(run.socketPath()) ? "socket left" : "",
                        way == "logout" && !run.link.received().contains("\"logout\"") ? "no logout"
                                                                                       : "",
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
