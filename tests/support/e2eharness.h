#pragma once

// End-to-end set-up shared by the e2e suites: the real d627-sandbox on its default ports, the
// real d627 with a private TMPDIR and HOME, and this process as the main application (it holds
// the main application's lock file and talks on a real local socket). The sandbox is driven by
// its standard-input commands; its output lines and the daemon's log files are read back.
// Everything runs on the test's main thread; waits spin its event loop with a bounded time.

#include <QJsonObject>
#include <QList>
#include <QLocalSocket>
#include <QLockFile>
#include <QProcess>
#include <QScopedPointer>
#include <QTemporaryDir>
#include <functional>

namespace e2e {
extern const QString kBinDir;
extern const QString kUserId;
extern const QString kCookie;
extern const QString kUserAgent;
extern const QByteArray kLoginText;   // the cookie text of the push login, as the sandbox prints it
extern const QByteArray kRunning;     // log line of the running step
extern const QByteArray kConnecting;  // log line of step 0
extern const QByteArray kStatusCheck; // sandbox line of a status check

bool waitFor(const std::function<bool()>& done, int timeoutMs);
QByteArray compact(const QJsonObject& object);
QList<QByteArray> linesOf(const QByteArray& text);
} // namespace e2e

class E2eHarness : public QObject
{
    Q_OBJECT
public:
    // Checks the binaries and that ports 18627/18628 are free; false with a message otherwise.
    bool check(QString& why) const;
    // A fresh temporary folder with tmp/ and home/, and the daemon's environment for it.
    bool prepare();
    bool startSandbox(const QStringList& arguments = {});
    // Starts d627 with the environment (plus `extra`, "NAME=value"; an empty value unsets) in
    // the private folder and connects the link; false if it does not listen.
    bool startDaemon(const QStringList& extra = {}, const QString& socketPath = QString());
    bool connectLink(const QString& path);
    bool login(int setting = 0);
    bool startDaemonAndLogin(const QStringList& extra = {});
    // Sends {"exit":true}; true when the daemon ended with code 0 and removed its lock file.
    bool exitDaemon();
    // Kills what still runs and prints the last lines when the test failed.
    void cleanup();

    // One sandbox command line; true when it answered "ok".
    bool ctl(const QString& line);
    // Index of the first sandbox line at or after `from` that contains `text`; -1: none.
    int sandboxLine(const QByteArray& text, int from = 0);
    int sandboxCount(const QByteArray& text);
    bool waitSandbox(const QByteArray& text, int count, int timeoutMs);
    QByteArray sandboxOut() const { return m_sandboxOut; }

    QByteArray daemonLog() const; // all log files in name order
    int logCount(const QByteArray& text) const;
    bool waitLog(const QByteArray& text, int count, int timeoutMs);
    // Times (ms since the epoch) of the daemon's log lines that contain `text`.
    QList<qint64> logTimes(const QByteArray& text) const;

    // Waits for a message from the daemon, received at index `from` or later, that has `key`.
    bool waitMessage(const QString& key, int from, int timeoutMs, QJsonObject& found);
    int messageCount(const QString& key) const;

    QString dir() const { return m_dir ? m_dir->path() : QString(); }
    QString tmp() const { return m_dir->path() + "/tmp"; }
    QString home() const { return m_dir->path() + "/home"; }
    QString lockFile() const;
    QProcessEnvironment& env() { return m_env; }
    QProcess& daemon() { return m_daemon; }
    QLocalSocket* link() { return m_link.data(); }
    QList<QJsonObject>& received() { return m_received; }

private:
    void onLinkReadyRead();

    QScopedPointer<QTemporaryDir> m_dir;
    QScopedPointer<QLockFile> m_mainAppLock;
    QProcessEnvironment m_env;
    QProcess m_sandbox;
    QByteArray m_sandboxOut;
    QProcess m_daemon;
    QScopedPointer<QLocalSocket> m_link;
    QByteArray m_linkBuffer;
    QList<QJsonObject> m_received;
};
