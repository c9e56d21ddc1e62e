#include "entry.h"

#include "link/adapter.h"
#include "link/communication.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QLockFile>

namespace entry {

QString lockFilePath()
{
    return QDir(QDir::tempPath()).absolutePath() + "/" + qAppName() + "_" + kInstanceId +
           "-lockfile";
}

int run(int argc, char** argv)
{
    // No plugin folders: Qt then loads no plugins. The daemon needs none, and the network
    // stack's default bearer plugins would bring D-Bus and a thread of their own, and could
    // refuse requests after a network change. A request while the network is down still fails
    // as a transport error and leads to the status check.
    QCoreApplication::setLibraryPaths(QStringList());
    QCoreApplication app(argc, argv);
    QLockFile lockFile(lockFilePath());

    const bool locked = !lockFile.isLocked() && lockFile.tryLock(100);
    if (!locked) {
        qint64 pid = 0;
        QString hostname;
        QString appname;
        lockFile.getLockInfo(&pid, &hostname, &appname);
        qDebug().noquote().nospace() << qAppName() << " has run : " << pid;
        return 0;
    }

    int code = 0;
    {
        Adapter adapter;
        if (adapter.start())
            code = QCoreApplication::exec();
    }
    return code;
}

} // namespace entry
