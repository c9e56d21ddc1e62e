#pragma once
// SPDX-License-Identifier: Apache-2.0

// End-to-end set-up shared by the e2e suites: the real d627-sandbox on its default ports, the
// real d627 with a private TMPDIR and HOME, and this process as the main application (it holds
// the main application's lock file and talks on a real local socket, as MainAppSide). Waits spin
// the event loop.

#include "mainappside.h"

#include <QJsonObject>
#include <QList>
#include <QLocalSocket>
#include <QLockFile>
#include <QProcess>
#include <QScopedPointer>
#include <QTemporaryDir>
#include <functional>

namespace e2e {
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
QByteArray readFile(const QString& path); // empty when unreadable
// Runs a program with `input` on its standard input; its exit code, -1 when it failed to run.
int run(const QString& program, const QStringList& arguments, const QByteArray& input = {});
// True in a network namespace whose only device is the loopback, as netns.sh gives a test.
bool onlyLoopback();
} // namespace e2e

class E2eHarness : public QObject
{
    Q_OBJECT
public:
    // A fresh temporary folder with tmp/ and home/, and the daemon's environment for it; false
    // if this build's services are not the sandbox's on 127.0.0.1.
    bool prepare();
    bool startSandbox(const QStringList& arguments = {});
    // Starts d627 with the environment plus `extra` ("NAME=value") in the private folder and
    // connects the link; false if it does not listen.
    bool startDaemon(const QStringList& extra = {}, const QString& socketPath = QString());
    bool login(int setting = 0, int logLevel = 1);
    bool startDaemonAndLogin(const QStringList& extra = {})
    {
        return startDaemon(extra) && login();
    }
    // Sends {"exit":true} if `ask`; true when the daemon ended with code 0, its lock file gone.
    bool exitDaemon(bool ask = true);
    // Kills what still runs and prints the last lines when the test failed. The daemon's log
    // files are kept in <build>/test-logs/<test>/<function>[-<row>].
    void cleanup();

    bool ctl(const QString& line); // one sandbox command line; true when it answered "ok"
    // Index of the first sandbox line at or after `from` that contains `text`; -1: none.
    int sandboxLine(const QByteArray& text, int from = 0);
    int sandboxCount(const QByteArray& text);
    QByteArray sandboxText(); // all the sandbox printed so far
    bool waitSandbox(const QByteArray& text, int count, int timeoutMs)
    {
        return e2e::waitFor([&] { return sandboxCount(text) >= count; }, timeoutMs);
    }
    QByteArray lineAt(int index) const { return e2e::linesOf(m_sandboxOut).value(index); }

    QString logFolder() const;    // where the daemon writes its log files
    QByteArray daemonLog() const; // all log files in name order
    QByteArray daemonOut() const { return e2e::readFile(dir() + "/daemon.out"); }
    int logCount(const QByteArray& text) const { return daemonLog().count(text); }
    bool waitLog(const QByteArray& text, int count, int timeoutMs)
    {
        return e2e::waitFor([&] { return logCount(text) >= count; }, timeoutMs);
    }
    // Times (ms since the epoch) of the daemon's log lines that contain `text`.
    QList<qint64> logTimes(const QByteArray& text) const;
    QList<qint64> sandboxTimes(const QByteArray& text); // the same for the sandbox's lines

    // Waits for a message from the daemon, received at index `from` or later, that has `key`.
    bool waitMessage(const QString& key, int from, int timeoutMs, QJsonObject& found);
    // Where a push connection numbered above `after` broke the order of the steps: more than
    // one login, a request before the login, its query sooner than `minQueryGapMs` after the
    // login (one step is 1000 ms), or more queries than the first one and one per notice or raw
    // frame sent while it was open. Empty when none did.
    QString stepFault(int after, int minQueryGapMs = 900);

    QString dir() const { return m_dir ? m_dir->path() : QString(); }
    QString tmp() const { return m_dir->path() + "/tmp"; }
    QProcess& daemon() { return m_daemon; }
    QLocalSocket* link() { return m_link ? &m_link->socket() : nullptr; }
    QList<QJsonObject>& received() { return m_received; }

private:
    void onLinkReadyRead();
    void keepLogs() const;

    QScopedPointer<QTemporaryDir> m_dir;
    QScopedPointer<QLockFile> m_mainAppLock;
    QProcessEnvironment m_env;
    QProcess m_sandbox;
    QByteArray m_sandboxOut;
    QProcess m_daemon;
    QScopedPointer<MainAppSide> m_link;
    QByteArray m_linkBuffer;
    QList<QJsonObject> m_received;
};
