#include "link/communication.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <signal.h>

namespace {
const QString kDaemon = QString(D627_BIN_DIR) + "/d627";
}

// The real d627 binary as a process, with its own TMPDIR and HOME.
class tst_Daemon : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void secondInstance_printsHolderAndExitsZero();
    void staleSocketAndLock_doNotStopAStart();
    void exitMessage_endsWithZero();
    void mainAppLockReleasedWhileLinkDown_exits();

private:
    void startDaemon(QProcess& process);
    bool connectTo(QLocalSocket& socket);
    QString socketPath() const { return m_tmp + "/" + kInstanceId; }

    QScopedPointer<QTemporaryDir> m_dir;
    QString m_tmp;
    QProcessEnvironment m_env;
    QProcess m_daemon;
};

void tst_Daemon::init()
{
    m_dir.reset(new QTemporaryDir);
    m_tmp = m_dir->path() + "/tmp";
    QVERIFY(QDir().mkpath(m_tmp));
    m_env = QProcessEnvironment::systemEnvironment();
    m_env.insert("TMPDIR", m_tmp);
    m_env.insert("HOME", m_dir->path());
    m_env.insert("QT_FORCE_STDERR_LOGGING", "1");
}

void tst_Daemon::cleanup()
{
    if (m_daemon.state() != QProcess::NotRunning) {
        m_daemon.kill();
        m_daemon.waitForFinished(3000);
    }
}

void tst_Daemon::startDaemon(QProcess& process)
{
    process.setProcessEnvironment(m_env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(kDaemon, QStringList());
    QVERIFY(process.waitForStarted(30000));
}

bool tst_Daemon::connectTo(QLocalSocket& socket)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 30000) {
        socket.connectToServer(socketPath());
        if (socket.waitForConnected(500))
            return true;
        QTest::qWait(50);
    }
    return false;
}

void tst_Daemon::secondInstance_printsHolderAndExitsZero()
{
    startDaemon(m_daemon);
    QLocalSocket socket;
    QVERIFY(connectTo(socket));

    QProcess second;
    startDaemon(second);
    QVERIFY(second.waitForFinished(30000));
    QCOMPARE(second.exitStatus(), QProcess::NormalExit);
    QCOMPARE(second.exitCode(), 0);
    const QString output = QString::fromUtf8(second.readAll()).trimmed();
    QCOMPARE(output, QString("d627 has run : %1").arg(m_daemon.processId()));
    QCOMPARE(m_daemon.state(), QProcess::Running);
    // The second instance wrote no log.
    QVERIFY(!QFileInfo::exists(m_dir->path() + "/Documents"));

    const QString lockFile = m_tmp + "/d627_" + kInstanceId + "-lockfile";
    QVERIFY(QFile::exists(lockFile));
    socket.write(R"({"exit":true})");
    socket.flush();
    QVERIFY(m_daemon.waitForFinished(30000));
    QCOMPARE(m_daemon.exitCode(), 0);
    QVERIFY(!QFile::exists(lockFile));
}

void tst_Daemon::staleSocketAndLock_doNotStopAStart()
{
    startDaemon(m_daemon);
    QLocalSocket first;
    QVERIFY(connectTo(first));
    ::kill(pid_t(m_daemon.processId()), SIGKILL);
    QVERIFY(m_daemon.waitForFinished(30000));
    first.abort();
    QVERIFY(QFileInfo::exists(socketPath()));

    startDaemon(m_daemon);
    QLocalSocket second;
    QVERIFY(connectTo(second));
    QTest::qWait(300);
    QCOMPARE(m_daemon.state(), QProcess::Running);
    second.write(R"({"exit":true})");
    second.flush();
    QVERIFY(m_daemon.waitForFinished(30000));
    QCOMPARE(m_daemon.exitCode(), 0);
}

void tst_Daemon::exitMessage_endsWithZero()
{
    startDaemon(m_daemon);
    QLocalSocket socket;
    QVERIFY(connectTo(socket));
    socket.write(R"({"exit":false})");
    socket.flush();
    QVERIFY(!m_daemon.waitForFinished(600));
    socket.write(R"({"exit":true})");
    socket.flush();
    QVERIFY(m_daemon.waitForFinished(30000));
    QCOMPARE(m_daemon.exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_daemon.exitCode(), 0);
}

void tst_Daemon::mainAppLockReleasedWhileLinkDown_exits()
{
    QProcess holder;
    holder.start(QString(D627_BIN_DIR) + "/lockholder", {m_dir->path() + "/main.lock"});
    QVERIFY(holder.waitForReadyRead(30000));

    startDaemon(m_daemon);
    QLocalSocket socket;
    QVERIFY(connectTo(socket));
    // No user id: the client thread waits and never dials a service.
    const QJsonObject login{{"user_id", ""},
                            {"cookie", "PHPSESSID=x;"},
                            {"pid", int(holder.processId())},
                            {"lockfile", m_dir->path() + "/main.lock"},
                            {"loglevel", 1}};
    socket.write(QJsonDocument(login).toJson(QJsonDocument::Compact));
    socket.flush();
    QTest::qWait(300);
    socket.disconnectFromServer();

    // While the main application holds its lock, the daemon stays.
    QVERIFY(!m_daemon.waitForFinished(2500));
    holder.closeWriteChannel();
    QVERIFY(holder.waitForFinished(30000));
    QVERIFY(m_daemon.waitForFinished(30000));
    QCOMPARE(m_daemon.exitCode(), 0);

    const QStringList logs =
        QDir(m_dir->path() + "/Documents/627log/support").entryList(QDir::Files);
    QCOMPARE(logs.size(), 1);
    QFile log(m_dir->path() + "/Documents/627log/support/" + logs.first());
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QByteArray text = log.readAll();
    QVERIFY(text.contains("local socket disconnected"));
    QVERIFY(text.contains("627 is not runing!"));
    QVERIFY(text.contains("627 is not exist, exit app"));
}

QTEST_GUILESS_MAIN(tst_Daemon)
#include "tst_daemon.moc"
