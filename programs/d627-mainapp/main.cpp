// SPDX-License-Identifier: Apache-2.0
// d627-mainapp: plays the main application on one machine. It holds its own single-instance
// lock file, starts the daemon when none answers on the local server, sends the login
// message built from its options, prints every message the daemon sends as a timestamped
// line, and sends {"exit":true} on the stdin line "exit" or on Ctrl-C. It starts the daemon
// with TMPDIR set to a folder private to its user and its standard error in an owner-only file
// there, and sends the login only to a daemon whose peer user id is its own.
//
// Other stdin lines: "login" sends the login message again, "drop" closes the local link
// (the daemon's watchdog then looks at our lock file), "connect" opens it again, "quit" leaves
// without telling the daemon (our lock is released, as when the main application dies),
// "send <json>" writes the text as it is, in one write.
#include "mainappclient.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <atomic>
#include <csignal>
#include <cstdio>

namespace {
std::atomic<bool> g_interrupted{false};

// Installed, the daemon lives in libexec and the stand-in cipher library in a private folder;
// in the build folder both sit elsewhere and the caller sets the paths (or LD_LIBRARY_PATH).
QString defaultDaemonPath()
{
    const QDir here(QCoreApplication::applicationDirPath());
    if (QFileInfo(here.filePath("d627")).isExecutable())
        return here.filePath("d627");
    return QDir::cleanPath(here.filePath(QStringLiteral(D627_DAEMON_FROM_BIN)));
}

QString defaultLibraryPath()
{
    const QDir here(QCoreApplication::applicationDirPath());
    const QString dir = QDir::cleanPath(here.filePath(QStringLiteral(D627_LIBDIR_FROM_BIN)));
    return QFileInfo::exists(dir + "/libec627.so") ? dir : QString();
}

void onSignal(int)
{
    g_interrupted.store(true);
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("d627-mainapp");
    QCoreApplication::setApplicationVersion(D627_VERSION);

    QCommandLineParser parser;
    parser.setApplicationDescription("Stand-in for the main application of the d627 daemon.");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption daemon("daemon", "Path of the d627 binary to start.", "path",
                                    defaultDaemonPath());
    const QCommandLineOption userId("user-id", "User id of the login message.", "id", "10001");
    const QCommandLineOption cookie("cookie", "Cookie string of the login message.", "text",
                                    "USERSESSIONID=demo-session;PHPSESSID=demo-php;");
    const QCommandLineOption setting("setting", "Setting bits (1 rc, 2 https, 4 encrypt).", "n",
                                     "0");
    const QCommandLineOption userAgent("user-agent", "User agent for the daemon's requests.",
                                       "text", "d627-mainapp/1.0");
    const QCommandLineOption logLevel("loglevel", "Log threshold for the daemon (0 off).", "n",
                                      "1");
    const QCommandLineOption lockFile("lockfile",
                                      "Our own lock file (default: d627-mainapp.lock in the "
                                      "daemon's TMPDIR).",
                                      "path");
    const QCommandLineOption tmpDir("tmpdir",
                                    "TMPDIR for the daemon (default: $XDG_RUNTIME_DIR/d627, else "
                                    "<temp>/d627-<uid>, created owner-only).",
                                    "path");
    const QCommandLineOption stayOption("stay", "Keep running when the daemon goes away.");
    parser.addOptions(
        {daemon, userId, cookie, setting, userAgent, logLevel, lockFile, tmpDir, stayOption});
    const QCommandLineOption libraryPath(
        "library-path", "Folder put first on the started daemon's LD_LIBRARY_PATH.", "dir",
        defaultLibraryPath());
    const QCommandLineOption noLogin("no-login", "Connect, but send no login message.");
    const QCommandLineOption daemonStderr(
        "daemon-stderr",
        "File for the started daemon's standard error (default: d627-stderr.log in its TMPDIR, "
        "owner-only; /dev/null discards it).",
        "path");
    parser.addOptions({libraryPath, noLogin, daemonStderr});
    parser.process(app);

    MainAppClient::Options options;
    options.daemonPath = parser.value(daemon);
    options.userId = parser.value(userId);
    options.cookie = parser.value(cookie);
    options.setting = parser.value(setting).toInt();
    options.userAgent = parser.value(userAgent);
    options.logLevel = parser.value(logLevel).toInt();
    options.privateTmpDir = !parser.isSet(tmpDir);
    options.tmpDir = options.privateTmpDir ? defaultPrivateTmpDir() : parser.value(tmpDir);
    options.lockFile =
        parser.isSet(lockFile) ? parser.value(lockFile) : options.tmpDir + "/d627-mainapp.lock";
    options.stay = parser.isSet(stayOption);
    options.libraryPath = parser.value(libraryPath);
    options.noLogin = parser.isSet(noLogin);
    options.daemonStderr = parser.isSet(daemonStderr) ? parser.value(daemonStderr)
                                                      : options.tmpDir + "/d627-stderr.log";

    MainAppClient client(options);
    if (!client.start())
        return 1;

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    QTimer signalPoll;
    QObject::connect(&signalPoll, &QTimer::timeout, [&client] {
        if (g_interrupted.exchange(false))
            client.sendExitAndQuit();
    });
    signalPoll.start(100);

    return QCoreApplication::exec();
}
