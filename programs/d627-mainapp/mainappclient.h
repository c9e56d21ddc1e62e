#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QLocalSocket>
#include <QLockFile>
#include <QObject>
#include <QScopedPointer>
#include <QSocketNotifier>
#include <QTimer>

// The main application's side of the local link, for the stand-in tool. Runs on the main
// thread of d627-mainapp.
class MainAppClient : public QObject
{
    Q_OBJECT
public:
    struct Options
    {
        QString daemonPath;
        QString userId;
        QString cookie;
        int setting = 0;
        QString userAgent;
        int logLevel = 1;
        QString lockFile;
        // Handed to the daemon as TMPDIR: its lock file and local socket live there.
        QString tmpDir;
        // tmpDir is our default private folder: created 0700, refused unless it is ours.
        bool privateTmpDir = true;
        bool stay = false;
        QString libraryPath; // put first on the daemon's LD_LIBRARY_PATH when not empty
        bool noLogin = false;
        // Where a daemon we start writes its standard error: an owner-only file, or the null
        // device.
        QString daemonStderr;
    };

    explicit MainAppClient(const Options& options);

    // Takes our lock, reaches (or starts) the daemon and sends the login message.
    bool start();
    void sendExitAndQuit();

private slots:
    void onReadyRead();
    void onDisconnected();
    void onStdin();

private:
    bool preparePrivateTmpDir();
    bool prepareDaemonStderr();
    bool startDaemon();
    QString serverPath() const;
    bool peerIsOurUser();
    bool connectToDaemon(int timeoutMs);
    void sendLogin();
    void send(const QByteArray& bytes);
    void handleCommand(const QByteArray& line);

    Options m_options;
    QLockFile m_lock;
    QLocalSocket m_socket;
    QByteArray m_pending;
    QScopedPointer<QSocketNotifier> m_stdin;
    bool m_leaving = false;
};

// Prints one timestamped line on stdout and flushes it.
void printLine(const QString& text);

// The default folder for the daemon's TMPDIR: $XDG_RUNTIME_DIR/d627 when that is set, else
// <temp>/d627-<uid>. A shared temporary folder would let another local user take the daemon's
// fixed lock-file and socket names first.
QString defaultPrivateTmpDir();
