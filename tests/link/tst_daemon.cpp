// SPDX-License-Identifier: Apache-2.0
#include "defaultservices.h"
#include "httpstub.h"
#include "link/communication.h"
#include "mainappside.h"
#include "ownership.h"

#include <QDir>
#include <QLocalSocket>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {
const QString kDaemon = QString(D627_BIN_DIR) + "/d627";
const char* const kCannotSwitch = "not root, or cannot switch to user 65534: another user untested";
const QByteArray kSessionCookie = "PHPSESSID=stderr-secret; path=/";
} // namespace

// The real d627 binary as a process, with its own TMPDIR and HOME.
class tst_Daemon : public QObject
{
    Q_OBJECT
private slots:
    void init()
    {
        m_dir.reset(new QTemporaryDir);
        m_tmp = m_dir->path() + "/tmp";
        QVERIFY(QDir().mkpath(m_tmp));
        m_env = QProcessEnvironment::systemEnvironment();
        m_env.insert("TMPDIR", m_tmp);
        m_env.insert("HOME", m_dir->path());
        m_env.insert("QT_FORCE_STDERR_LOGGING", "1");
    }
    void cleanup()
    {
        m_daemon.kill();
        m_daemon.waitForFinished(3000);
    }
    void secondInstanceLeavesAndAStaleOneBlocksNothing()
    {
        MainAppSide first, second;
        start(m_daemon, &first);
        QProcess other;
        start(other);
        endsWithZero(other);
        QCOMPARE(QString::fromUtf8(other.readAll()).trimmed(),
                 QString("d627 has run : %1").arg(m_daemon.processId()));
        QVERIFY(!QFileInfo::exists(m_dir->path() + "/Documents")); // it wrote no log

        // A killed daemon leaves its socket file and lock file; neither stops the next start.
        ::kill(pid_t(m_daemon.processId()), SIGKILL);
        QVERIFY(m_daemon.waitForFinished(30000));
        first.socket().abort();
        const QString lockFile = m_tmp + "/d627_" + kInstanceId + "-lockfile";
        QVERIFY(QFileInfo::exists(socketPath()) && QFile::exists(lockFile));
        start(m_daemon, &second);
        exitWithZero(second);
        QVERIFY(!QFile::exists(lockFile));
    }
    void exitsWhenTheMainAppLockIsFreedWhileTheLinkIsDown()
    {
        const QString lock = m_dir->path() + "/main.lock";
        QProcess holder;
        holder.start(QString(D627_BIN_DIR) + "/lockholder", {lock});
        QVERIFY(holder.waitForReadyRead(30000));
        // The watchdog reads the held lock file at every look; inotify counts the opens.
        const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        QVERIFY(inotify_add_watch(watch, QFile::encodeName(lock).constData(), IN_OPEN) >= 0);
        int opens = 0;
        const auto countOpens = [&] {
            alignas(inotify_event) char events[4096];
            for (ssize_t n; (n = ::read(watch, events, sizeof events)) > 0;) {
                for (ssize_t at = 0; at < n; ++opens)
                    at += ssize_t(sizeof(inotify_event)) +
                          reinterpret_cast<inotify_event*>(events + at)->len;
            }
            return opens;
        };
        MainAppSide mainApp;
        start(m_daemon, &mainApp);
        // No user id: the client thread waits and never dials a service.
        mainApp.sendLogin({{"user_id", ""},
                           {"pid", int(holder.processId())},
                           {"lockfile", lock},
                           {"loglevel", 1}});
        QTRY_VERIFY_WITH_TIMEOUT(logText().contains("OnReadyRead data is"), 30000);
        mainApp.socket().disconnectFromServer();

        // While the main application holds its lock, the daemon stays, look after look.
        QTRY_VERIFY_WITH_TIMEOUT(countOpens() >= 9, 30000);
        ::close(watch);
        QCOMPARE(m_daemon.state(), QProcess::Running);
        holder.closeWriteChannel();
        QVERIFY(holder.waitForFinished(30000));
        endsWithZero(m_daemon);
        const QByteArray text = logText();
        QVERIFY2(text.contains("local socket disconnected") &&
                     text.contains("627 is not runing!") &&
                     text.contains("627 is not exist, exit app"),
                 text.constData());
    }
    void anotherUsersConnectionIsClosedUnread()
    {
        if (!ownership::canSwitch())
            QSKIP(kCannotSwitch);
        for (const QString& dir : {m_dir->path(), m_tmp}) // user 65534 may reach the socket file
            QCOMPARE(::chmod(QFile::encodeName(dir).constData(), 0755), 0);
        MainAppSide mainApp;
        const mode_t before = ::umask(022);
        start(m_daemon, &mainApp);
        ::umask(before);
        mainApp.sendLogin({{"user_id", ""}, {"loglevel", 1}});
        QTRY_VERIFY(logText().contains("OnReadyRead data is"));
        QCOMPARE(ownership::mode(socketPath()), 0700);

        const QByteArray path = QFile::encodeName(socketPath()), exit = R"({"exit":true})";
        const auto intrude = [&]() { return ownership::talk(path, &exit); };
        QCOMPARE(ownership::waitExit(ownership::asOtherUser(intrude)), ownership::kRefused);
        // Even through a socket file open to all, the peer's user id shuts it out.
        QCOMPARE(::chmod(path.constData(), 0777), 0);
        QCOMPARE(ownership::waitExit(ownership::asOtherUser(intrude)), ownership::kClosed);
        QVERIFY(logText().contains("local connection of another user (uid 65534) closed unread"));
        QVERIFY(!logText().contains(exit));
        QCOMPARE(m_daemon.state(), QProcess::Running);
        QCOMPARE(mainApp.socket().state(), QLocalSocket::ConnectedState);
        exitWithZero(mainApp);
    }
    void mainAppGivesTheDaemonAPrivateTmpDir_data()
    {
        QTest::addColumn<bool>("runtimeDir");
        QTest::addColumn<int>("foreign"); // 1: its folder made by another user; 2: an impostor
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("$XDG_RUNTIME_DIR/d627")
            << true << 0 << QByteArray("connected to the daemon");
        QTest::newRow("<temp>/d627-<uid>") << false << 0 << QByteArray("connected to the daemon");
        QTest::newRow("folder of another user")
            << true << 1 << QByteArray("not a folder of our own");
        QTest::newRow("daemon of another user") << true << 2 << QByteArray("runs as user id 65534");
    }
    void mainAppGivesTheDaemonAPrivateTmpDir()
    {
        QFETCH(bool, runtimeDir);
        QFETCH(int, foreign);
        QFETCH(QByteArray, expected);
        if (foreign && !ownership::canSwitch())
            QSKIP(kCannotSwitch);
        const QString run = m_dir->path() + "/run", uid = QString::number(::geteuid());
        const QString tmp = runtimeDir ? run + "/d627" : m_tmp + "/d627-" + uid;
        m_env.insert("XDG_RUNTIME_DIR", runtimeDir ? run : QString());
        QVERIFY(QDir().mkpath(tmp)); // left open to all: tightened, or refused when not ours
        for (const QString& dir : {m_dir->path(), run, tmp})
            ::chmod(QFile::encodeName(dir).constData(), dir == tmp ? 0777 : 0755);
        if (foreign == 1)
            QCOMPARE(
                ::chown(QFile::encodeName(tmp).constData(), ownership::kNobody, ownership::kNobody),
                0);
        // Every service answer sets a cookie, which the daemon prints on stderr even at threshold
        // 0.
        if (!foreign && !buildUsesDefaultServices())
            QSKIP("this build's services are not on the default loopback port");
        HttpStub services;
        services.setFallback([](const HttpStubRequest&) {
            HttpStubResponse answer = HttpStubResponse::json("{}", 404);
            answer.headers.append({"Set-Cookie", kSessionCookie});
            return answer;
        });
        QVERIFY(foreign || services.listen(kDefaultServicesPort));
        const QByteArray socket = QFile::encodeName(tmp + "/" + kInstanceId);
        const pid_t impostor =
            foreign == 2 ? ownership::asOtherUser([&]() { return ownership::talk(socket); }) : 0;
        QTRY_VERIFY(!impostor || QFile::exists(socket));

        QProcess mainApp;
        const mode_t before = ::umask(0);
        start(mainApp, nullptr, QString(D627_BIN_DIR) + "/d627-mainapp",
              QStringList{"--daemon", kDaemon, "--loglevel", "0"} +
                  (impostor ? QStringList{"--tmpdir", tmp} : QStringList{}));
        ::umask(before);
        QByteArray output;
        QTRY_VERIFY_WITH_TIMEOUT((output += mainApp.readAll()).contains(expected), 30000);
        if (foreign) {
            QTRY_COMPARE_WITH_TIMEOUT(mainApp.state(), QProcess::NotRunning, 30000);
            QCOMPARE(mainApp.exitCode(), 1);
            QVERIFY2(!impostor || ownership::waitExit(impostor) == ownership::kClosed,
                     "the impostor got bytes");
            return;
        }
        const QString lockFile = tmp + "/d627_" + kInstanceId + "-lockfile";
        QVERIFY(QFileInfo::exists(lockFile) && QFileInfo::exists(tmp + "/d627-mainapp.lock"));
        QCOMPARE(ownership::mode(tmp), 0700);
        QCOMPARE(ownership::mode(QFile::decodeName(socket)), 0700);
        QVERIFY(!QFileInfo::exists(socketPath()));
        QFile errors(tmp + "/d627-stderr.log"); // the daemon's: owner-only whatever the umask
        QByteArray text;
        QVERIFY(errors.open(QIODevice::ReadOnly));
        QTRY_VERIFY_WITH_TIMEOUT(
            (text += errors.readAll()).contains("cookies is  \"" + kSessionCookie), 30000);
        QCOMPARE(ownership::mode(errors.fileName()), 0600);
        mainApp.write("exit\n");
        endsWithZero(mainApp);
        QVERIFY(!(output + mainApp.readAll()).contains(kSessionCookie));
        QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(lockFile), 30000); // the daemon ended
    }

private:
    // Starts the daemon; with a main application, connects it.
    void start(QProcess& process, MainAppSide* mainApp = nullptr, const QString& program = kDaemon,
               const QStringList& arguments = {})
    {
        process.setProcessEnvironment(m_env);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program, arguments);
        QVERIFY(process.waitForStarted(30000));
        QVERIFY2(!mainApp || mainApp->connectTo(socketPath()), "the daemon does not listen");
    }
    void exitWithZero(MainAppSide& mainApp)
    {
        mainApp.sendExit();
        endsWithZero(m_daemon);
    }
    static void endsWithZero(QProcess& process)
    {
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
    }
    QString socketPath() const { return m_tmp + "/" + kInstanceId; }
    // The daemon's one log file; empty while there is none.
    QByteArray logText() const
    {
        const QString dir = m_dir->path() + "/Documents/627log/support/";
        const QStringList logs = QDir(dir).entryList(QDir::Files);
        QFile log(dir + logs.value(0));
        return logs.size() == 1 && log.open(QIODevice::ReadOnly) ? log.readAll() : "";
    }

    QScopedPointer<QTemporaryDir> m_dir;
    QString m_tmp;
    QProcessEnvironment m_env;
    QProcess m_daemon;
};

QTEST_GUILESS_MAIN(tst_Daemon)
#include "tst_daemon.moc"
