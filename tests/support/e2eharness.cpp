#include "e2eharness.h"

#include "jsonstream.h"
#include "link/communication.h"
#include "serviceurls.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTcpServer>
#include <QtTest>

namespace e2e {
const QString kBinDir = QStringLiteral(D627_BIN_DIR);
const QString kUserId = QStringLiteral("73105");
const QString kCookie = QStringLiteral("USERSESSIONID=e2e-session;PHPSESSID=e2e-php;");
const QString kUserAgent = QStringLiteral("d627-e2e/1.0");
const QByteArray kLoginText = "text=cookie=USERSESSIONID%3De2e-session%26PHPSESSID%3De2e-php%26";
const QByteArray kRunning = "MsgClient::onRun current process is 4!";
const QByteArray kConnecting = "MsgClient::onRun current process is 0!";
const QByteArray kStatusCheck = "http  GET /app/1.0/linux/5.0.1/check/sso";

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
} // namespace e2e

using namespace e2e;

bool E2eHarness::check(QString& why) const
{
    const QByteArray services = "http://127.0.0.1:18627/";
    if (!QByteArray(serviceurls::kSsoStatusUrl).startsWith(services) ||
        !QByteArray(serviceurls::kPushAddressUrl).startsWith(services)) {
        why = "this build's daemon looks for its services elsewhere than the sandbox's default";
        return false;
    }
    for (const char* tool : {"d627", "d627-sandbox", "d627-mainapp"}) {
        if (!QFileInfo(kBinDir + '/' + tool).isExecutable()) {
            why = QString("%1 is not built").arg(tool);
            return false;
        }
    }
    for (const quint16 port : {quint16(18627), quint16(18628)}) {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost, port)) {
            why = QString("port %1 on 127.0.0.1 is taken (%2). Is a demo or another sandbox "
                          "running? These tests need 18627 and 18628 free.")
                      .arg(port)
                      .arg(probe.errorString());
            return false;
        }
    }
    return true;
}

bool E2eHarness::prepare()
{
    m_dir.reset(new QTemporaryDir);
    if (!m_dir->isValid() || !QDir().mkpath(tmp()) || !QDir().mkpath(home()))
        return false;
    m_env = QProcessEnvironment::systemEnvironment();
    m_env.insert("TMPDIR", tmp());
    m_env.insert("HOME", home());
    m_env.insert("LD_LIBRARY_PATH", QStringLiteral(D627_LIB_DIR));
    // This process plays the main application, so it holds the main application's lock.
    m_mainAppLock.reset(new QLockFile(m_dir->path() + "/mainapp.lock"));
    return m_mainAppLock->tryLock(1000);
}

bool E2eHarness::startSandbox(const QStringList& arguments)
{
    m_sandboxOut.clear();
    m_sandbox.setProgram(kBinDir + "/d627-sandbox");
    m_sandbox.setArguments(arguments);
    m_sandbox.setProcessChannelMode(QProcess::MergedChannels);
    m_sandbox.start();
    if (!m_sandbox.waitForStarted(5000))
        return false;
    waitFor(
        [this]() { return sandboxCount("ready:") > 0 || m_sandbox.state() != QProcess::Running; },
        5000);
    if (sandboxCount("ready:") == 0) {
        qWarning("d627-sandbox could not serve 127.0.0.1:18627 and 18628: %s",
                 m_sandboxOut.constData());
        return false;
    }
    return true;
}

bool E2eHarness::startDaemon(const QStringList& extra, const QString& socketPath)
{
    QProcessEnvironment env = m_env;
    for (const QString& item : extra) {
        const int eq = item.indexOf('=');
        if (item.mid(eq + 1).isEmpty())
            env.remove(item.left(eq));
        else
            env.insert(item.left(eq), item.mid(eq + 1));
    }
    m_received.clear();
    m_linkBuffer.clear();
    m_daemon.setProgram(kBinDir + "/d627");
    m_daemon.setProcessEnvironment(env);
    m_daemon.setWorkingDirectory(m_dir->path());
    m_daemon.setProcessChannelMode(QProcess::MergedChannels);
    m_daemon.setStandardOutputFile(m_dir->path() + "/daemon.out", QIODevice::Append);
    m_daemon.start();
    if (!m_daemon.waitForStarted(5000)) {
        qWarning("d627 did not start: %s", qPrintable(m_daemon.errorString()));
        return false;
    }
    const QString path = socketPath.isEmpty() ? tmp() + '/' + kInstanceId : socketPath;
    if (!connectLink(path)) {
        qWarning("no local server at %s", qPrintable(path));
        return false;
    }
    return true;
}

bool E2eHarness::connectLink(const QString& path)
{
    m_link.reset(new QLocalSocket);
    connect(m_link.data(), &QLocalSocket::readyRead, this, &E2eHarness::onLinkReadyRead);
    waitFor(
        [&]() {
            if (m_daemon.state() == QProcess::NotRunning)
                return true;
            m_link->connectToServer(path);
            return m_link->waitForConnected(200);
        },
        10000);
    return m_link->state() == QLocalSocket::ConnectedState;
}

bool E2eHarness::login(int setting)
{
    const QJsonObject login{{"user_id", kUserId},
                            {"cookie", kCookie},
                            {"setting", setting},
                            {"user_agent", kUserAgent},
                            {"pid", int(QCoreApplication::applicationPid())},
                            {"lockfile", m_dir->path() + "/mainapp.lock"},
                            {"loglevel", 1}};
    m_link->write(compact(login));
    return m_link->flush() || m_link->bytesToWrite() == 0;
}

bool E2eHarness::startDaemonAndLogin(const QStringList& extra)
{
    return startDaemon(extra) && login();
}

bool E2eHarness::exitDaemon()
{
    if (m_link && m_link->state() == QLocalSocket::ConnectedState) {
        m_link->write(R"({"exit":true})");
        m_link->flush();
    }
    if (!waitFor([&]() { return m_daemon.state() == QProcess::NotRunning; }, 15000)) {
        qWarning("the daemon did not end after {\"exit\":true}");
        return false;
    }
    const bool clean = m_daemon.exitStatus() == QProcess::NormalExit && m_daemon.exitCode() == 0;
    if (!clean)
        qWarning("the daemon ended with status %d, code %d", int(m_daemon.exitStatus()),
                 m_daemon.exitCode());
    return clean && !QFileInfo::exists(lockFile());
}

QString E2eHarness::lockFile() const
{
    return tmp() + "/d627_" + kInstanceId + "-lockfile";
}

void E2eHarness::cleanup()
{
    if (QTest::currentTestFailed()) {
        qInfo("sandbox (last lines):\n%s", tail(m_sandboxOut, 25).constData());
        qInfo("daemon log (last lines):\n%s", tail(daemonLog(), 25).constData());
    }
    if (m_link) {
        m_link->abort();
        m_link.reset();
    }
    if (m_daemon.state() != QProcess::NotRunning) {
        m_daemon.kill();
        m_daemon.waitForFinished(3000);
    }
    if (m_sandbox.state() != QProcess::NotRunning) {
        m_sandbox.write("quit\n");
        if (!m_sandbox.waitForFinished(3000)) {
            m_sandbox.kill();
            m_sandbox.waitForFinished(3000);
        }
    }
    m_mainAppLock.reset();
}

void E2eHarness::onLinkReadyRead()
{
    m_linkBuffer += m_link->readAll();
    for (const QByteArray& object : takeJsonObjects(m_linkBuffer)) {
        const QJsonDocument document = QJsonDocument::fromJson(object);
        if (document.isObject())
            m_received << document.object();
        else
            qWarning("unreadable message from the daemon: %s", object.constData());
    }
}

bool E2eHarness::ctl(const QString& line)
{
    const int before = sandboxCount("ctl   -> ");
    m_sandbox.write(line.toUtf8() + '\n');
    const bool answered = waitSandbox("ctl   -> ", before + 1, 10000);
    const QList<QByteArray> lines = linesOf(m_sandboxOut);
    for (int i = lines.size() - 1; answered && i >= 0; --i) {
        if (lines.at(i).contains("ctl   -> ")) {
            if (lines.at(i).contains("\"ok\":true"))
                return true;
            break;
        }
    }
    qWarning("sandbox command %s failed", qPrintable(line));
    return false;
}

int E2eHarness::sandboxLine(const QByteArray& text, int from)
{
    m_sandboxOut += m_sandbox.readAllStandardOutput();
    const QList<QByteArray> lines = linesOf(m_sandboxOut);
    for (int i = qMax(0, from); i < lines.size(); ++i) {
        if (lines.at(i).contains(text))
            return i;
    }
    return -1;
}

int E2eHarness::sandboxCount(const QByteArray& text)
{
    m_sandboxOut += m_sandbox.readAllStandardOutput();
    int count = 0;
    for (const QByteArray& line : linesOf(m_sandboxOut))
        count += line.contains(text) ? 1 : 0;
    return count;
}

bool E2eHarness::waitSandbox(const QByteArray& text, int count, int timeoutMs)
{
    return waitFor([&]() { return sandboxCount(text) >= count; }, timeoutMs);
}

QByteArray E2eHarness::daemonLog() const
{
    if (!m_dir)
        return QByteArray();
    QByteArray out;
    const QDir dir(home() + "/Documents/627log/support");
    for (const QString& name : dir.entryList({"*.log"}, QDir::Files, QDir::Name)) {
        QFile file(dir.filePath(name));
        if (file.open(QIODevice::ReadOnly))
            out += file.readAll();
    }
    return out;
}

int E2eHarness::logCount(const QByteArray& text) const
{
    return daemonLog().count(text);
}

bool E2eHarness::waitLog(const QByteArray& text, int count, int timeoutMs)
{
    return waitFor([&]() { return logCount(text) >= count; }, timeoutMs);
}

QList<qint64> E2eHarness::logTimes(const QByteArray& text) const
{
    // A line: "[<thread id>]yyyy-MM-dd hh:mm:ss.zzz  <text>".
    static const QRegularExpression stamp(R"(^\[\d+\](\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) )");
    QList<qint64> times;
    for (const QByteArray& line : linesOf(daemonLog())) {
        const QRegularExpressionMatch match = stamp.match(QString::fromUtf8(line));
        if (line.contains(text) && match.hasMatch())
            times << QDateTime::fromString(match.captured(1), "yyyy-MM-dd hh:mm:ss.zzz")
                         .toMSecsSinceEpoch();
    }
    return times;
}

bool E2eHarness::waitMessage(const QString& key, int from, int timeoutMs, QJsonObject& found)
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

int E2eHarness::messageCount(const QString& key) const
{
    return int(std::count_if(m_received.cbegin(), m_received.cend(),
                             [&](const QJsonObject& message) { return message.contains(key); }));
}
