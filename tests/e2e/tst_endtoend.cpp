// End-to-end tests: the real d627 binary against the real d627-sandbox. The daemon has its
// service addresses compiled in (by default the sandbox's ports 18627 and 18628 on 127.0.0.1),
// so every test starts the sandbox on those ports, and the daemon with its own TMPDIR and HOME.
// The test plays the main application on a real local socket, drives the sandbox through its
// HTTP control paths, and reads the sandbox's output lines and the daemon's own log file.
// The last test runs the d627-mainapp stand-in, which starts the daemon by itself.
//
// Everything runs on the test's main thread; waits spin its event loop with a bounded time.

#include "jsonstream.h"
#include "link/communication.h"
#include "serviceurls.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QUrl>
#include <QtTest>
#include <cerrno>
#include <functional>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString kBinDir = QStringLiteral(D627_BIN_DIR);
const QString kServices = QStringLiteral("http://127.0.0.1:18627");
const QString kUserId = QStringLiteral("73105");
const QString kCookie = QStringLiteral("USERSESSIONID=e2e-session;PHPSESSID=e2e-php;");
const QString kUserAgent = QStringLiteral("d627-e2e/1.0");
// Set-Cookie of every status answer of the sandbox: renews PHPSESSID in the login record.
const QString kSetCookie = QStringLiteral("PHPSESSID=e2e-fresh; path=/");
// The cookie text of the push login as the sandbox prints it: "cookie=" and the record's cookie
// string with ";" turned into "&", percent-encoded.
const QByteArray kLoginText = "text=cookie=USERSESSIONID%3De2e-session%26PHPSESSID%3De2e-php%26";
const QByteArray kRenewedLoginText =
    "text=cookie=USERSESSIONID%3De2e-session%26PHPSESSID%3De2e-fresh%26";

const QByteArray kRunning = "MsgClient::onRun current process is 4!";
const QByteArray kConnecting = "MsgClient::onRun current process is 0!";
const QByteArray kDisconnected = "server disconnect to socket";
const QByteArray kStatusCheck = "http  GET /app/1.0/linux/5.0.1/check/sso";

// Runs the event loop until done() holds; false when timeoutMs passed first.
bool waitFor(const std::function<bool()>& done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
    return true;
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QList<QByteArray> linesOf(const QByteArray& text)
{
    QList<QByteArray> lines = text.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

QByteArray tail(const QByteArray& text, int count)
{
    const QList<QByteArray> lines = linesOf(text);
    return lines.mid(qMax(0, lines.size() - count)).join('\n');
}

} // namespace

class tst_EndToEnd : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void login_reachesRunningStepAndWritesLog();
    void profileChangesAndNotice_reachTheMainApplication();
    void logoutElsewhere_isReportedAndEndsTheDaemon();
    void refusedConnections_backOffLongerEachTime_thenRecover();
    void mainAppStandIn_startsTheDaemonAndEndsIt();

private:
    bool startDaemonAndLogin();
    bool control(const QString& commandAndQuery);
    // Index of the first sandbox line at or after `from` that contains `text`; -1: none.
    int sandboxLine(const QByteArray& text, int from = 0);
    int sandboxCount(const QByteArray& text);
    bool waitSandbox(const QByteArray& text, int count, int timeoutMs);
    QString logPath() const;
    QByteArray daemonLog() const;
    int logCount(const QByteArray& text) const;
    bool waitLog(const QByteArray& text, int count, int timeoutMs);
    // Times (ms since the epoch) of the daemon's log lines that contain `text`.
    QList<qint64> logTimes(const QByteArray& text) const;
    // Waits for a message from the daemon, received at index `from` or later, that has `key`.
    bool waitMessage(const QString& key, int from, int timeoutMs, QJsonObject& found);
    int messageCount(const QString& key) const;
    QByteArray mainAppOutput() const;
    void onLinkReadyRead();

    QScopedPointer<QTemporaryDir> m_dir;
    QString m_tmp;
    QString m_home;
    QProcessEnvironment m_env;
    QScopedPointer<QNetworkAccessManager> m_manager;

    QProcess m_sandbox;
    QByteArray m_sandboxOut;
    QProcess m_daemon;
    QProcess m_mainApp;
    pid_t m_detachedDaemon = 0; // the daemon that d627-mainapp started; reparented to us

    QScopedPointer<QLocalSocket> m_link;
    QByteArray m_linkBuffer;
    QList<QJsonObject> m_received;
};

void tst_EndToEnd::initTestCase()
{
    if (!QByteArray(serviceurls::kSsoStatusUrl).startsWith(kServices.toLatin1() + '/') ||
        !QByteArray(serviceurls::kPushAddressUrl).startsWith(kServices.toLatin1() + '/'))
        QSKIP("this build's daemon looks for its services elsewhere than the sandbox's default "
              "http://127.0.0.1:18627");
    for (const char* tool : {"d627", "d627-sandbox", "d627-mainapp"})
        QVERIFY2(QFileInfo(kBinDir + '/' + tool).isExecutable(), tool);
    QVERIFY(QFileInfo::exists(QStringLiteral(D627_LIB_DIR) + "/libec627.so"));
    // d627-mainapp starts the daemon detached; as a subreaper this process inherits it and can
    // read its exit code.
    QVERIFY(::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0);
    for (const quint16 port : {quint16(18627), quint16(18628)}) {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost, port)) {
            QFAIL(qPrintable(QString("port %1 on 127.0.0.1 is taken (%2). Is a demo or another "
                                     "sandbox running? These tests need 18627 and 18628 free.")
                                 .arg(port)
                                 .arg(probe.errorString())));
        }
    }
    connect(&m_sandbox, &QProcess::readyReadStandardOutput, this,
            [this]() { m_sandboxOut += m_sandbox.readAllStandardOutput(); });
}

void tst_EndToEnd::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    m_tmp = m_dir->path() + "/tmp";
    m_home = m_dir->path() + "/home";
    QVERIFY(QDir().mkpath(m_tmp));
    QVERIFY(QDir().mkpath(m_home));
    m_env = QProcessEnvironment::systemEnvironment();
    m_env.insert("TMPDIR", m_tmp);
    m_env.insert("HOME", m_home);
    m_env.insert("LD_LIBRARY_PATH", QStringLiteral(D627_LIB_DIR));
    m_manager.reset(new QNetworkAccessManager);
    m_manager->setProxy(QNetworkProxy::NoProxy);
    m_received.clear();
    m_linkBuffer.clear();
    m_detachedDaemon = 0;

    m_sandboxOut.clear();
    m_sandbox.setProgram(kBinDir + "/d627-sandbox");
    m_sandbox.setArguments({"--cookie", kSetCookie});
    m_sandbox.setProcessChannelMode(QProcess::MergedChannels);
    m_sandbox.start();
    QVERIFY2(m_sandbox.waitForStarted(5000), qPrintable(m_sandbox.errorString()));
    waitFor(
        [this]() {
            return sandboxCount("ready:") > 0 || m_sandbox.state() == QProcess::NotRunning;
        },
        5000);
    if (sandboxCount("ready:") == 0) {
        m_sandbox.kill(); // cleanup() does not run after a failed init()
        m_sandbox.waitForFinished(3000);
        QFAIL(qPrintable("d627-sandbox could not serve 127.0.0.1:18627 and 18628. Is a demo or "
                         "another sandbox running? These tests need both ports free. Its output: " +
                         QString::fromUtf8(m_sandboxOut)));
    }
}

void tst_EndToEnd::cleanup()
{
    if (QTest::currentTestFailed()) {
        qInfo("sandbox (last lines):\n%s", tail(m_sandboxOut, 25).constData());
        qInfo("daemon log (last lines):\n%s", tail(daemonLog(), 25).constData());
        if (!mainAppOutput().isEmpty())
            qInfo("d627-mainapp (last lines):\n%s", tail(mainAppOutput(), 15).constData());
    }
    if (m_link) {
        m_link->abort();
        m_link.reset();
    }
    for (QProcess* process : {&m_daemon, &m_mainApp}) {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(3000);
        }
    }
    if (m_detachedDaemon > 0) {
        int status = 0;
        const pid_t reaped = ::waitpid(m_detachedDaemon, &status, WNOHANG);
        if (reaped == 0) {
            ::kill(m_detachedDaemon, SIGKILL);
            ::waitpid(m_detachedDaemon, &status, 0);
        } else if (reaped < 0 && errno == ECHILD) {
            // Not ours after all (no subreaper): end it only if it is the daemon we built.
            QFile cmdline(QString("/proc/%1/cmdline").arg(m_detachedDaemon));
            if (cmdline.open(QIODevice::ReadOnly) &&
                cmdline.readAll().startsWith(QString(kBinDir + "/d627").toUtf8() + '\0'))
                ::kill(m_detachedDaemon, SIGKILL);
        }
        m_detachedDaemon = 0;
    }
    if (m_sandbox.state() != QProcess::NotRunning) {
        m_sandbox.write("quit\n");
        if (!m_sandbox.waitForFinished(3000)) {
            m_sandbox.kill();
            m_sandbox.waitForFinished(3000);
        }
    }
}

bool tst_EndToEnd::startDaemonAndLogin()
{
    m_daemon.setProgram(kBinDir + "/d627");
    m_daemon.setArguments({});
    m_daemon.setProcessEnvironment(m_env);
    m_daemon.setProcessChannelMode(QProcess::MergedChannels);
    m_daemon.setStandardOutputFile(m_dir->path() + "/daemon.out");
    m_daemon.start();
    if (!m_daemon.waitForStarted(5000)) {
        qWarning("d627 did not start: %s", qPrintable(m_daemon.errorString()));
        return false;
    }

    m_link.reset(new QLocalSocket);
    connect(m_link.data(), &QLocalSocket::readyRead, this, &tst_EndToEnd::onLinkReadyRead);
    const QString path = m_tmp + '/' + kInstanceId;
    const bool connected = waitFor(
        [&]() {
            if (m_daemon.state() == QProcess::NotRunning)
                return true;
            m_link->connectToServer(path);
            return m_link->waitForConnected(200);
        },
        5000);
    if (!connected || m_link->state() != QLocalSocket::ConnectedState) {
        qWarning("no local server at %s", qPrintable(path));
        return false;
    }

    const QJsonObject login{{"user_id", kUserId},
                            {"cookie", kCookie},
                            {"setting", 0},
                            {"user_agent", kUserAgent},
                            {"pid", int(QCoreApplication::applicationPid())},
                            {"lockfile", m_dir->path() + "/mainapp.lock"},
                            {"loglevel", 1}};
    m_link->write(compact(login));
    return m_link->flush() || m_link->bytesToWrite() == 0;
}

void tst_EndToEnd::onLinkReadyRead()
{
    m_linkBuffer += m_link->readAll();
    for (const QByteArray& object : takeJsonObjects(m_linkBuffer)) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(object, &error);
        if (error.error != QJsonParseError::NoError || !document.isObject()) {
            qWarning("unreadable message from the daemon: %s", object.constData());
            continue;
        }
        m_received << document.object();
    }
}

bool tst_EndToEnd::control(const QString& commandAndQuery)
{
    QNetworkReply* reply =
        m_manager->get(QNetworkRequest(QUrl(kServices + "/control/" + commandAndQuery)));
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished())
        finished.wait(5000);
    const QByteArray body = reply->readAll();
    const bool ok = reply->isFinished() && body.contains("\"ok\":true");
    if (!ok)
        qWarning("control %s failed: %s", qPrintable(commandAndQuery), body.constData());
    delete reply;
    return ok;
}

int tst_EndToEnd::sandboxLine(const QByteArray& text, int from)
{
    m_sandboxOut += m_sandbox.readAllStandardOutput();
    const QList<QByteArray> lines = linesOf(m_sandboxOut);
    for (int i = from; i < lines.size(); ++i) {
        if (lines.at(i).contains(text))
            return i;
    }
    return -1;
}

int tst_EndToEnd::sandboxCount(const QByteArray& text)
{
    int count = 0;
    for (int i = sandboxLine(text); i >= 0; i = sandboxLine(text, i + 1))
        ++count;
    return count;
}

bool tst_EndToEnd::waitSandbox(const QByteArray& text, int count, int timeoutMs)
{
    return waitFor([&]() { return sandboxCount(text) >= count; }, timeoutMs);
}

QString tst_EndToEnd::logPath() const
{
    const QDir dir(m_home + "/Documents/627log/support");
    const QStringList files = dir.entryList({"*.log"}, QDir::Files, QDir::Name);
    return files.isEmpty() ? QString() : dir.filePath(files.first());
}

QByteArray tst_EndToEnd::daemonLog() const
{
    const QString path = logPath();
    if (path.isEmpty())
        return QByteArray();
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

int tst_EndToEnd::logCount(const QByteArray& text) const
{
    return daemonLog().count(text);
}

bool tst_EndToEnd::waitLog(const QByteArray& text, int count, int timeoutMs)
{
    return waitFor([&]() { return logCount(text) >= count; }, timeoutMs);
}

QList<qint64> tst_EndToEnd::logTimes(const QByteArray& text) const
{
    // A line: "[<thread id>]yyyy-MM-dd hh:mm:ss.zzz  <text>".
    static const QRegularExpression stamp(R"(^\[\d+\](\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) )");
    QList<qint64> times;
    for (const QByteArray& line : linesOf(daemonLog())) {
        if (!line.contains(text))
            continue;
        const QRegularExpressionMatch match = stamp.match(QString::fromUtf8(line));
        if (match.hasMatch())
            times << QDateTime::fromString(match.captured(1), "yyyy-MM-dd hh:mm:ss.zzz")
                         .toMSecsSinceEpoch();
    }
    return times;
}

bool tst_EndToEnd::waitMessage(const QString& key, int from, int timeoutMs, QJsonObject& found)
{
    return waitFor(
        [&]() {
            for (int i = from; i < m_received.size(); ++i) {
                if (m_received.at(i).contains(key)) {
                    found = m_received.at(i);
                    return true;
                }
            }
            return false;
        },
        timeoutMs);
}

int tst_EndToEnd::messageCount(const QString& key) const
{
    return int(std::count_if(m_received.cbegin(), m_received.cend(),
                             [&](const QJsonObject& message) { return message.contains(key); }));
}

QByteArray tst_EndToEnd::mainAppOutput() const
{
    if (!m_dir)
        return QByteArray();
    QFile file(m_dir->path() + "/mainapp.out");
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// ---------------------------------------------------------------------------------------------

void tst_EndToEnd::login_reachesRunningStepAndWritesLog()
{
    QVERIFY(startDaemonAndLogin());
    QVERIFY2(waitLog(kRunning, 1, 15000), "the daemon did not reach the running step");

    // The address lookup carried the user agent; the push login the user id and the cookie
    // text; the first query followed on the same connection.
    QVERIFY(sandboxLine("http  POST /get_tcp_server ua=[" + kUserAgent.toUtf8() + "]") >= 0);
    const int login = sandboxLine("push  #1 HOOS login ");
    QVERIFY2(login >= 0, "no push login");
    const QByteArray loginLine = linesOf(m_sandboxOut).at(login);
    QVERIFY2(loginLine.contains(" user=" + kUserId.toUtf8() + " "), loginLine.constData());
    QVERIFY2(loginLine.endsWith(kLoginText), loginLine.constData());
    const int query = sandboxLine("push  #1 IOOS request#0 seq=1 cmd=16781314 (query)", login);
    QVERIFY2(query > login, "no query after the login");
    QVERIFY(!linesOf(m_sandboxOut).at(query).contains(" BAD: "));
    // Nothing failed on the way, so the status service was never asked.
    QCOMPARE(sandboxCount(kStatusCheck), 0);
    QCOMPARE(sandboxCount("client connected"), 1);
    QCOMPARE(m_received.size(), 0);

    // One log file, named MMdd_hhmmss_<pid>_627.log, that starts with its marker line.
    const QStringList logs =
        QDir(m_home + "/Documents/627log/support").entryList(QDir::Files | QDir::Hidden);
    QCOMPARE(logs.size(), 1);
    const QRegularExpression name(
        QString(R"(^\d{4}_\d{6}_%1_627\.log$)").arg(m_daemon.processId()));
    QVERIFY2(name.match(logs.first()).hasMatch(), qPrintable(logs.first()));
    const QByteArray log = daemonLog();
    QVERIFY2(log.startsWith("1!!!\n"), log.left(40).constData());
    QCOMPARE(m_daemon.state(), QProcess::Running);
}

void tst_EndToEnd::profileChangesAndNotice_reachTheMainApplication()
{
    QVERIFY(startDaemonAndLogin());
    QVERIFY2(waitLog(kRunning, 1, 15000), "the daemon did not reach the running step");

    // Avatar: the sandbox drops the connection, the daemon checks the status (the answer renews
    // PHPSESSID), reconnects, and its first query brings the change.
    const QString face = QStringLiteral("http://127.0.0.1/avatars/73105.png?v=2&size=L");
    QVERIFY(control("avatar?url=" + QString::fromLatin1(QUrl::toPercentEncoding(face))));
    QJsonObject message;
    QVERIFY2(waitMessage("user_face", 0, 15000, message), "no avatar message");
    QCOMPARE(compact(message), compact({{"user_face", face}}));
    const int check = sandboxLine(kStatusCheck);
    QVERIFY(check >= 0);
    QVERIFY2(linesOf(m_sandboxOut).at(check).contains("cookie=[" + kCookie.toUtf8() + "]"),
             linesOf(m_sandboxOut).at(check).constData());
    const int relogin = sandboxLine("push  #2 HOOS login ");
    QVERIFY(relogin > check);
    QVERIFY2(linesOf(m_sandboxOut).at(relogin).endsWith(kRenewedLoginText),
             linesOf(m_sandboxOut).at(relogin).constData());

    // Membership, with an expiry beyond 32 bits.
    QVERIFY2(waitLog(kRunning, 2, 15000), "not running again after the avatar change");
    int from = m_received.size();
    QVERIFY(control("vip?level=5&expire=4102444800"));
    QVERIFY2(waitMessage("vip_level", from, 15000, message), "no membership message");
    QCOMPARE(compact(message), QByteArray(R"({"expire_time":4102444800,"vip_level":5})"));

    // A notice in the running step: the daemon queries, and the answer makes it check the
    // status and mark a user-information refresh.
    QVERIFY2(waitLog(kRunning, 3, 15000), "not running again after the membership change");
    from = m_received.size();
    const int checks = sandboxCount(kStatusCheck);
    QVERIFY(control("notice?id=42"));
    QVERIFY2(waitMessage("vip_level", from, 10000, message), "no message after the notice");
    QCOMPARE(compact(message), QByteArray(R"({"expire_time":100,"vip_level":100})"));
    QVERIFY(sandboxLine("push  #3 IOOS request#1 ") >= 0);
    QVERIFY(waitSandbox(kStatusCheck, checks + 1, 5000));

    // Each change was reported once, and the connection stays up.
    QTest::qWait(500);
    QCOMPARE(messageCount("user_face"), 1);
    QCOMPARE(messageCount("vip_level"), 2);
    QCOMPARE(messageCount("net_error"), 0);
    QCOMPARE(sandboxCount("client connected"), 3);
    QCOMPARE(m_daemon.state(), QProcess::Running);
}

void tst_EndToEnd::logoutElsewhere_isReportedAndEndsTheDaemon()
{
    QVERIFY(startDaemonAndLogin());
    QVERIFY2(waitLog(kRunning, 1, 15000), "the daemon did not reach the running step");

    const QString text =
        QString::fromUtf8("signed in on \"another\" device \xe2\x80\x94 K\xc3\xb6ln");
    QVERIFY(control("logout?message=" + QString::fromLatin1(QUrl::toPercentEncoding(text))));
    QJsonObject message;
    QVERIFY2(waitMessage("logout", 0, 15000, message), "no logout message");
    QCOMPARE(compact(message), compact({{"logout", text}}));

    QTRY_COMPARE_WITH_TIMEOUT(m_daemon.state(), QProcess::NotRunning, 5000);
    QCOMPARE(m_daemon.exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_daemon.exitCode(), 0);
    QVERIFY(daemonLog().contains("user is logout! message is " + text.toUtf8()));
    QCOMPARE(sandboxCount("client connected"), 1);
    QVERIFY(!QFileInfo::exists(m_tmp + "/d627_" + kInstanceId + "-lockfile"));
}

void tst_EndToEnd::refusedConnections_backOffLongerEachTime_thenRecover()
{
    QVERIFY(startDaemonAndLogin());
    QVERIFY2(waitLog(kRunning, 1, 15000), "the daemon did not reach the running step");

    // The push server now accepts and closes every connection at once, while the status
    // service keeps saying "logged in": each attempt fails and is followed by a back-off.
    QVERIFY(control("push?mode=refuse"));
    QVERIFY(control("drop"));
    // Connections #2, #3 and #4 are refused ones.
    QVERIFY2(waitSandbox("push  #4 client disconnected", 1, 25000), "fewer than 3 new attempts");
    QVERIFY(control("push?mode=normal"));
    QVERIFY2(waitLog(kRunning, 2, 25000), "the daemon did not recover after the refusals");
    QVERIFY(sandboxLine("push  #5 HOOS login ") >= 0);
    QVERIFY(sandboxLine("push  #5 IOOS request#0 ") >= 0);
    QCOMPARE(sandboxLine("push  #4 HOOS login "), -1);
    QVERIFY(sandboxCount(kStatusCheck) >= 4);

    // One connection attempt per cycle: the first one, three refused ones, the good one.
    const QList<qint64> attempts = logTimes(kConnecting);
    QCOMPARE(attempts.size(), 5);
    const QList<qint64> drops = logTimes(kDisconnected);
    QVERIFY(!drops.isEmpty());
    // Back-off 1, 2, 4, 8 s, each plus the 1 s step: about 2, 3, 5, 9 s.
    const QList<qint64> gaps{attempts.at(1) - drops.first(), attempts.at(2) - attempts.at(1),
                             attempts.at(3) - attempts.at(2), attempts.at(4) - attempts.at(3)};
    const QByteArray shown = QString("gaps in ms: %1 %2 %3 %4")
                                 .arg(gaps.at(0))
                                 .arg(gaps.at(1))
                                 .arg(gaps.at(2))
                                 .arg(gaps.at(3))
                                 .toUtf8();
    qInfo("%s", shown.constData());
    QVERIFY2(gaps.at(0) >= 1500, shown.constData());
    for (int i = 1; i < gaps.size(); ++i)
        QVERIFY2(gaps.at(i) >= gaps.at(i - 1) + 700, shown.constData());
    QCOMPARE(m_received.size(), 0);
}

void tst_EndToEnd::mainAppStandIn_startsTheDaemonAndEndsIt()
{
    const QString lockFile = m_tmp + "/d627_" + kInstanceId + "-lockfile";
    m_mainApp.setProgram(kBinDir + "/d627-mainapp");
    m_mainApp.setArguments({"--daemon", kBinDir + "/d627", "--tmpdir", m_tmp, "--lockfile",
                            m_dir->path() + "/mainapp.lock", "--user-id", kUserId, "--cookie",
                            kCookie, "--user-agent", kUserAgent, "--loglevel", "1"});
    m_mainApp.setProcessEnvironment(m_env);
    // A file, not a pipe: the daemon inherits this output and outlives the stand-in.
    m_mainApp.setProcessChannelMode(QProcess::MergedChannels);
    m_mainApp.setStandardOutputFile(m_dir->path() + "/mainapp.out");
    m_mainApp.start();
    QVERIFY(m_mainApp.waitForStarted(5000));
    QVERIFY2(waitFor([&]() { return mainAppOutput().contains("mainapp: connected to the daemon"); },
                     10000),
             "d627-mainapp did not connect");
    QVERIFY(mainAppOutput().contains("no daemon answers; starting"));

    QVERIFY(waitFor([&]() { return QFile(lockFile).size() > 0; }, 3000));
    QFile lock(lockFile);
    QVERIFY(lock.open(QIODevice::ReadOnly));
    m_detachedDaemon = pid_t(lock.readLine().trimmed().toInt());
    QVERIFY(m_detachedDaemon > 0);
    QVERIFY(m_detachedDaemon != pid_t(m_mainApp.processId()));

    QVERIFY2(waitLog(kRunning, 1, 15000), "the daemon did not reach the running step");
    const QString face = QStringLiteral("http://127.0.0.1/avatars/mainapp.png");
    QVERIFY(control("avatar?url=" + QString::fromLatin1(QUrl::toPercentEncoding(face))));
    const QByteArray expected = "mainapp: received " + compact({{"user_face", face}});
    QVERIFY2(waitFor([&]() { return mainAppOutput().contains(expected); }, 15000),
             "d627-mainapp printed no avatar change");

    m_mainApp.write("exit\n");
    QVERIFY(m_mainApp.waitForFinished(5000));
    QCOMPARE(m_mainApp.exitCode(), 0);
    int status = -1;
    QVERIFY2(waitFor([&]() { return ::waitpid(m_detachedDaemon, &status, WNOHANG) > 0; }, 5000),
             "the daemon did not exit after the stand-in's exit");
    m_detachedDaemon = 0;
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 0);
    QVERIFY(!QFileInfo::exists(lockFile));
}

QTEST_GUILESS_MAIN(tst_EndToEnd)
#include "tst_endtoend.moc"
