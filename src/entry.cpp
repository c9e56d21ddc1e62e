// SPDX-License-Identifier: Apache-2.0
#include "entry.h"

#include "link/adapter.h"
#include "link/communication.h"
#include "web/requesthttps.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QLockFile>
#include <cstdio>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define D627_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define D627_ASAN 1
#endif
#ifdef D627_ASAN
#include <sanitizer/lsan_interface.h>
#endif

namespace entry {

namespace {

constexpr int kLockWaitMs = 100; // for the single-instance lock

// Ends the process without running exit-time destructors or unloading libraries. The client
// thread is never stopped and may at this moment be inside a socket call or an HTTP request
// that uses Qt's process-wide statics (proxy settings, socket engine handlers, the meta-type
// registry, the network configuration manager); destroying those under it would crash. Every
// file the daemon owns has been closed or removed before this point.
[[noreturn]] void endProcess(int code)
{
    std::fflush(stdout);
    std::fflush(stderr);
#ifdef D627_ASAN
    __lsan_do_leak_check();
#endif
    _exit(code);
}

int runApplication(int argc, char** argv)
{
    // No plugin folders: Qt then loads no plugins. The daemon needs none, and the network
    // stack's default bearer plugins would bring D-Bus and a thread of their own, and could
    // refuse requests after a network change. A request while the network is down still fails
    // as a transport error and leads to the status check.
    QCoreApplication::setLibraryPaths(QStringList());
    QCoreApplication app(argc, argv);
    int code = 0;
    {
        QLockFile lockFile(lockFilePath());
        const bool locked = !lockFile.isLocked() && lockFile.tryLock(kLockWaitMs);
        if (!locked) {
            qint64 pid = 0;
            QString hostname;
            QString appname;
            lockFile.getLockInfo(&pid, &hostname, &appname);
            qDebug().noquote().nospace() << qAppName() << " has run : " << pid;
            return 0;
        }
        {
            // Its destructor closes the local server, which removes the socket file.
            Adapter adapter;
            if (adapter.start())
                code = QCoreApplication::exec();
        }
        // The lock file object goes here: the lock is released and the file removed.
    }
    // ~QCoreApplication tears down the network configuration manager; from now on the client
    // thread makes no network access manager and destroys none.
    CRequestHttps::closeNetworkGate();
    return code;
}

} // namespace

QString lockFilePath()
{
    return QDir(QDir::tempPath()).absolutePath() + "/" + qAppName() + "_" + kInstanceId +
           "-lockfile";
}

int run(int argc, char** argv)
{
    endProcess(runApplication(argc, argv));
}

} // namespace entry
