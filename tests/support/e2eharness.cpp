// SPDX-License-Identifier: Apache-2.0
#include "e2eharness.h"

#include "defaultservices.h"
#include "jsonstream.h"
#include "link/communication.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QJsonDocument>
#include <QRegularExpression>
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
    const QDeadlineTimer deadline(timeoutMs);
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

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

int run(const QString& program, const QStringList& arguments, const QByteArray& input)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.exitCode();
}

bool onlyLoopback()
{
    const QList<QByteArray> devices = linesOf(readFile("/proc/self/net/dev")).mid(2);
    return devices.size() == 1 && devices.first().trimmed().startsWith("lo:");
}
} // namespace e2e

using namespace e2e;

bool E2eHarness::prepare()
{
    // Only loopback: a build whose services are not the sandbox's would talk to other hosts.
    if (!buildUsesDefaultServices())
        return false;
    m_dir.reset(new QTemporaryDir);
    if (!m_dir->isValid() || !QDir().mkpath(tmp()) || !QDir().mkpath(dir() + "/home"))
        return false;
    m_env = QProcessEnvironment::systemEnvironment();
    m_env.insert("TMPDIR", tmp());
    m_env.insert("HOME", dir() + "/home");
    m_env.insert("LD_LIBRARY_PATH", QStringLiteral(D627_LIB_DIR));
    m_mainAppLock.reset(new QLockFile(m_dir->path() + "/mainapp.lock"));
    return m_mainAppLock->tryLock(1000);
}

bool E2eHarness::startSandbox(const QStringList& arguments)
{
    m_sandboxOut.clear();
    m_sandbox.setProcessChannelMode(QProcess::MergedChannels);
    m_sandbox.start(kBinDir + "/d627-sandbox", arguments);
    waitFor(
        [this] { return sandboxCount("ready:") > 0 || m_sandbox.state() == QProcess::NotRunning; },
        5000);
    if (sandboxCount("ready:") > 0)
        return true;
    qWarning("d627-sandbox could not serve 127.0.0.1:18627 and 18628: %s",
             m_sandboxOut.constData());
    return false;
}

bool E2eHarness::startDaemon(const QStringList& extra, const QString& socketPath)
{
    QProcessEnvironment daemonEnv = m_env;
    for (const QString& item : extra)
        daemonEnv.insert(item.section('=', 0, 0), item.section('=', 1));
    m_received.clear();
    m_linkBuffer.clear();
    m_daemon.setProcessEnvironment(daemonEnv);
    m_daemon.setWorkingDirectory(m_dir->path());
    m_daemon.setProcessChannelMode(QProcess::MergedChannels);
    m_daemon.setStandardOutputFile(m_dir->path() + "/daemon.out", QIODevice::Append);
    m_daemon.start(kBinDir + "/d627", QStringList());
    if (!m_daemon.waitForStarted(30000)) {
        qWarning("d627 did not start: %s", qPrintable(m_daemon.errorString()));
        return false;
    }
    const QString path = socketPath.isEmpty() ? tmp() + '/' + kInstanceId : socketPath;
    m_link.reset(new MainAppSide);
    QLocalSocket& socket = m_link->socket();
    // After MainAppSide's own reader, which collects what this one then splits.
    connect(&socket, &QLocalSocket::readyRead, this, &E2eHarness::onLinkReadyRead);
    waitFor(
        [&] {
            if (m_daemon.state() == QProcess::NotRunning)
                return true;
            socket.connectToServer(path);
            return socket.waitForConnected(200);
        },
        30000);
    if (socket.state() == QLocalSocket::ConnectedState)
        return true;
    qWarning("no local server at %s", qPrintable(path));
    return false;
}

bool E2eHarness::login(int setting, int logLevel)
{
    return m_link->sendLogin({{"user_id", kUserId},
                              {"cookie", kCookie},
                              {"setting", setting},
                              {"user_agent", kUserAgent},
                              {"pid", int(QCoreApplication::applicationPid())},
                              {"lockfile", m_dir->path() + "/mainapp.lock"},
                              {"loglevel", logLevel}});
}

bool E2eHarness::exitDaemon(bool ask)
{
    if (ask && m_link && m_link->socket().state() == QLocalSocket::ConnectedState)
        m_link->sendExit();
    if (!waitFor([&] { return m_daemon.state() == QProcess::NotRunning; }, 15000)) {
        qWarning("the daemon did not end");
        return false;
    }
    const bool clean = m_daemon.exitStatus() == QProcess::NormalExit && m_daemon.exitCode() == 0;
    if (!clean)
        qWarning("the daemon ended with status %d, code %d", int(m_daemon.exitStatus()),
                 m_daemon.exitCode());
    return clean && !QFileInfo::exists(tmp() + "/d627_" + kInstanceId + "-lockfile");
}

void E2eHarness::cleanup()
{
    // When the test failed: the last lines of the sandbox, of the daemon's log and of its
    // output (where a sanitizer report goes).
    if (QTest::currentTestFailed()) {
        for (const QByteArray& text : {m_sandboxOut, daemonLog(), daemonOut()}) {
            const QList<QByteArray> lines = linesOf(text);
            qInfo("%s", lines.mid(qMax(0, lines.size() - 25)).join('\n').constData());
        }
    }
    if (m_link)
        m_link->socket().abort();
    m_link.reset();
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
    keepLogs();
}

void E2eHarness::keepLogs() const
{
    if (!m_dir)
        return;
    QString name = QTest::currentTestFunction() ? QTest::currentTestFunction() : "all";
    if (QTest::currentDataTag())
        name += QStringLiteral("-") + QTest::currentDataTag();
    name.replace(QRegularExpression("[^A-Za-z0-9._-]+"), "_");
    QDir kept(kBinDir + "/../test-logs/" + QCoreApplication::applicationName() + '/' + name);
    kept.removeRecursively();
    const QDir logs(logFolder());
    const QStringList names = logs.entryList({"*.log"}, QDir::Files, QDir::Name);
    if (names.isEmpty() || !kept.mkpath("."))
        return;
    for (const QString& file : names)
        QFile::copy(logs.filePath(file), kept.filePath(file));
}

void E2eHarness::onLinkReadyRead()
{
    m_linkBuffer += m_link->takeReceived();
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
    const int at = m_sandboxOut.lastIndexOf("ctl   -> ");
    if (answered &&
        m_sandboxOut.mid(at, m_sandboxOut.indexOf('\n', at) - at).contains("\"ok\":true"))
        return true;
    qWarning("sandbox command %s failed", qPrintable(line));
    return false;
}

int E2eHarness::sandboxLine(const QByteArray& text, int from)
{
    const QList<QByteArray> lines = linesOf(sandboxText());
    for (int i = qMax(0, from); i < lines.size(); ++i) {
        if (lines.at(i).contains(text))
            return i;
    }
    return -1;
}

QByteArray E2eHarness::sandboxText()
{
    m_sandboxOut += m_sandbox.readAllStandardOutput();
    return m_sandboxOut;
}

int E2eHarness::sandboxCount(const QByteArray& text)
{
    const QList<QByteArray> lines = linesOf(sandboxText());
    return int(std::count_if(lines.cbegin(), lines.cend(),
                             [&](const QByteArray& line) { return line.contains(text); }));
}

QByteArray E2eHarness::daemonLog() const
{
    QByteArray out;
    if (!m_dir)
        return out;
    const QDir logDir(m_dir->path() + "/home/Documents/627log/support");
    for (const QString& name : logDir.entryList({"*.log"}, QDir::Files, QDir::Name))
        out += readFile(logDir.filePath(name));
    return out;
}

QString E2eHarness::logFolder() const
{
    return m_dir ? m_dir->path() + "/home/Documents/627log/support" : QString();
}

QList<qint64> E2eHarness::logTimes(const QByteArray& text) const
{
    QList<qint64> times;
    for (const QByteArray& line : linesOf(daemonLog())) {
        // A line: "[<thread id>]yyyy-MM-dd hh:mm:ss.zzz  <text>".
        const QDateTime time = QDateTime::fromString(
            QString::fromUtf8(line.mid(line.indexOf(']') + 1, 23)), "yyyy-MM-dd hh:mm:ss.zzz");
        if (line.contains(text) && line.startsWith('[') && time.isValid())
            times << time.toMSecsSinceEpoch();
    }
    return times;
}

QList<qint64> E2eHarness::sandboxTimes(const QByteArray& text)
{
    QList<qint64> times;
    const QDateTime now = QDateTime::currentDateTime();
    for (const QByteArray& line : linesOf(sandboxText())) {
        // A line: "[hh:mm:ss.zzz] sandbox: <text>", of today or, past midnight, of yesterday.
        const QDateTime time(now.date(),
                             QTime::fromString(QString(line.mid(1, 12)), "hh:mm:ss.zzz"));
        if (line.contains(text) && time.isValid())
            times << time.toMSecsSinceEpoch() - (time > now.addSecs(60) ? 86400000 : 0);
    }
    return times;
}

bool E2eHarness::waitMessage(const QString& key, int from, int timeoutMs, QJsonObject& found)
{
    return waitFor(
        [&] {
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

QString E2eHarness::stepFault(int after, int minQueryGapMs)
{
    QMap<int, int> logins, queries, notices;
    QMap<int, QTime> loggedIn;
    QList<int> open;
    for (const QByteArray& line : linesOf(sandboxText())) {
        if (line.contains("push  notice ") || line.contains("push  raw ")) {
            for (int n : qAsConst(open))
                ++notices[n];
            continue;
        }
        const int at = line.indexOf("push  #");
        const int n = at < 0 ? 0 : line.mid(at + 7, line.indexOf(' ', at + 7) - at - 7).toInt();
        if (n <= after)
            continue;
        if (line.contains(" client connected"))
            open.append(n);
        else if (line.contains(" client disconnected"))
            open.removeAll(n);
        const QTime time = QTime::fromString(QString::fromLatin1(line.mid(1, 12)), "hh:mm:ss.zzz");
        if (line.contains(" login ") && ++logins[n] > 1)
            return QString("push connection %1 logged in twice").arg(n);
        if (line.contains(" login "))
            loggedIn[n] = time;
        if (!line.contains("(query)"))
            continue;
        if (logins.value(n) == 0)
            return QString("push connection %1 queried before it logged in").arg(n);
        if (++queries[n] > 1 + notices.value(n))
            return QString("push connection %1 queried twice").arg(n);
        const int gapMs = (loggedIn.value(n).msecsTo(time) + 86400000) % 86400000;
        if (queries.value(n) == 1 && gapMs < minQueryGapMs)
            return QString("push connection %1 queried %2 ms after its login").arg(n).arg(gapMs);
    }
    return QString();
}
