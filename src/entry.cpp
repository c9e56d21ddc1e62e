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
