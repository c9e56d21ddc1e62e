// SPDX-License-Identifier: Apache-2.0
#include "mainappclient.h"

#include "jsonstream.h"
#include "locallink/locallink.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void printLine(const QString& text)
{
    const QString stamp = QDateTime::currentDateTime().toString("hh:mm:ss.zzz");
    std::printf("[%s] mainapp: %s\n", qPrintable(stamp), text.toUtf8().constData());
    std::fflush(stdout);
}

MainAppClient::MainAppClient(const Options& options) : m_options(options), m_lock(options.lockFile)
{
    connect(&m_socket, &QLocalSocket::readyRead, this, &MainAppClient::onReadyRead);
    connect(&m_socket, &QLocalSocket::disconnected, this, &MainAppClient::onDisconnected);
}

QString defaultPrivateTmpDir()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty())
        return runtime + "/d627";
    return QDir::tempPath() + "/d627-" + QString::number(::geteuid());
}

bool MainAppClient::preparePrivateTmpDir()
{
    const QByteArray path = QFile::encodeName(m_options.tmpDir);
    if (::mkdir(path.constData(), 0700) != 0 && errno != EEXIST) {
        printLine("cannot create " + m_options.tmpDir + ": " + qt_error_string(errno));
        return false;
    }
    if (!m_options.privateTmpDir)
        return true;
    // Someone else may have made the folder first, or left a link there.
    struct stat info = {};
    if (::lstat(path.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != ::geteuid() || ::chmod(path.constData(), 0700) != 0) {
        printLine("refusing " + m_options.tmpDir + ": not a folder of our own user");
        return false;
    }
    return true;
}

// Whatever its log threshold, the daemon prints the Set-Cookie answers of its HTTP requests,
// session ids included, on its standard error: only our user may read where that goes. The file
// is made (or tightened) here, so that QProcess only ever appends to an owner-only file.
bool MainAppClient::prepareDaemonStderr()
{
    const QString& path = m_options.daemonStderr;
    if (path == QProcess::nullDevice())
        return true;
    const int fd =
        ::open(QFile::encodeName(path).constData(),
               O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    struct stat info = {};
    const bool ours = fd >= 0 && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
                      info.st_uid == ::geteuid() && ::fchmod(fd, 0600) == 0;
    if (fd >= 0)
        ::close(fd);
    if (!ours)
        printLine("refusing " + path + " for the daemon's standard error: not a file of our own");
    return ours;
}

bool MainAppClient::startDaemon()
{
    if (!prepareDaemonStderr())
        return false;
    QProcess daemon;
    daemon.setStandardErrorFile(m_options.daemonStderr, QIODevice::Append);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TMPDIR", m_options.tmpDir);
    if (!m_options.libraryPath.isEmpty()) {
        const QString old = environment.value("LD_LIBRARY_PATH");
        environment.insert("LD_LIBRARY_PATH",
                           m_options.libraryPath + (old.isEmpty() ? "" : ":" + old));
    }
    daemon.setProcessEnvironment(environment);
    daemon.setProgram(m_options.daemonPath);
    return daemon.startDetached();
}

QString MainAppClient::serverPath() const
{
    return m_options.tmpDir + "/" + QString::fromLatin1(kInstanceId);
}

bool MainAppClient::peerIsOurUser()
{
    const qint64 peer = GetPeerUserId(m_socket.socketDescriptor());
    if (peer == qint64(::geteuid()))
        return true;
    printLine(QString("refusing the daemon at %1: it runs as user id %2, not %3; no login sent")
                  .arg(serverPath())
                  .arg(peer)
                  .arg(::geteuid()));
    m_socket.abort();
    return false;
}

bool MainAppClient::start()
{
    if (!preparePrivateTmpDir())
        return false;
    if (!m_lock.tryLock(100)) {
        printLine("another main application holds " + m_options.lockFile);
        return false;
    }
    if (!connectToDaemon(300)) {
        printLine("no daemon answers; starting " + m_options.daemonPath);
        if (!startDaemon()) {
            printLine("could not start the daemon");
            return false;
        }
        if (!connectToDaemon(5000)) {
            printLine("the daemon did not answer within 5 s");
            return false;
        }
    }
    if (!peerIsOurUser())
        return false;
    printLine("connected to the daemon");
    if (!m_options.noLogin)
        sendLogin();

    m_stdin.reset(new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read));
    connect(m_stdin.data(), &QSocketNotifier::activated, this, &MainAppClient::onStdin);
    return true;
}

bool MainAppClient::connectToDaemon(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    do {
        m_socket.connectToServer(serverPath());
        if (m_socket.waitForConnected(200))
            return true;
        QThread::msleep(50);
    } while (timer.elapsed() < timeoutMs);
    return false;
}

void MainAppClient::sendLogin()
{
    const QJsonObject login{{"user_id", m_options.userId},
                            {"cookie", m_options.cookie},
                            {"setting", m_options.setting},
                            {"user_agent", m_options.userAgent},
                            {"pid", int(QCoreApplication::applicationPid())},
                            {"lockfile", m_options.lockFile},
                            {"loglevel", m_options.logLevel}};
    send(QJsonDocument(login).toJson(QJsonDocument::Compact));
}

void MainAppClient::send(const QByteArray& bytes)
{
    if (m_socket.state() != QLocalSocket::ConnectedState) {
        printLine("not connected; not sent: " + QString::fromUtf8(bytes));
        return;
    }
    printLine("sent " + QString::fromUtf8(bytes));
    m_socket.write(bytes);
    m_socket.flush();
}

void MainAppClient::sendExitAndQuit()
{
    m_leaving = true;
    send(R"({"exit":true})");
    m_socket.waitForBytesWritten(1000);
    QCoreApplication::exit(0);
}

void MainAppClient::onReadyRead()
{
    m_pending += m_socket.readAll();
    for (const QByteArray& object : takeJsonObjects(m_pending))
        printLine("received " + QString::fromUtf8(object));
}

void MainAppClient::onDisconnected()
{
    printLine("the daemon closed the link");
    if (!m_options.stay && !m_leaving)
        QCoreApplication::exit(0);
}

void MainAppClient::onStdin()
{
    char buffer[4096];
    if (!std::fgets(buffer, sizeof buffer, stdin)) {
        // End of input: stop listening, keep running.
        m_stdin->setEnabled(false);
        return;
    }
    handleCommand(QByteArray(buffer).trimmed());
}

void MainAppClient::handleCommand(const QByteArray& line)
{
    if (line == "exit") {
        sendExitAndQuit();
    } else if (line == "login") {
        sendLogin();
    } else if (line == "drop") {
        m_leaving = true;
        printLine("closing the local link");
        m_socket.disconnectFromServer();
    } else if (line == "connect") {
        m_leaving = false;
        if (connectToDaemon(2000) && peerIsOurUser())
            printLine("connected to the daemon");
    } else if (line == "quit") {
        printLine("leaving without a word; the lock is released");
        m_leaving = true;
        QCoreApplication::exit(0);
    } else if (line.startsWith("send ")) {
        send(line.mid(5));
    } else if (!line.isEmpty()) {
        printLine("unknown command: " + QString::fromUtf8(line) +
                  " (exit, login, drop, connect, quit, send <json>)");
    }
}
