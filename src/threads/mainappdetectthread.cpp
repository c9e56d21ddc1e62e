// SPDX-License-Identifier: Apache-2.0
#include "mainappdetectthread.h"

#include "core/constants.h"
#include "core/datacenter.h"
#include "core/log.h"

#include <QLockFile>
#include <QProcess>

namespace {
constexpr int kLockWaitMs = 100;
constexpr int kProcessWaitMs = 30000;
constexpr unsigned long kPauseSeconds = 1;
} // namespace

// Runs on the watchdog thread.
void CMainAppDetectThread::run()
{
    Infor tracer(kLogTrace, std::string(metaObject()->className()) + "_run");
    CBaseThread::run();

    while (!m_quit.load(std::memory_order_relaxed)) {
        if (!isFileLocked())
            DataCenter::getInstance()->SetMainAppExist(false);
        QThread::sleep(kPauseSeconds);
    }
}

// Called from the main thread, under the registry lock.
void CMainAppDetectThread::Quit()
{
    LogManager::getInstance()->Msg(kLogImportant, "mainapp detect thread receive quit flag");
    m_quit.store(true, std::memory_order_relaxed);
}

bool CMainAppDetectThread::isFileLocked()
{
    DataCenter* data = DataCenter::getInstance();
    const QString path = data->GetMainLockFile();
    if (path.isEmpty())
        return true;

    QLockFile lockFile(path);
    if (!lockFile.isLocked()) {
        if (lockFile.tryLock(kLockWaitMs)) {
            lockFile.unlock();
            LogManager::getInstance()->Msg(kLogImportant, "627 is not runing!");
            return false;
        }
    }

    const int announced = data->GetMainAppId();
    if (announced == kNoMainAppId)
        return true;

    qint64 owner = 0;
    QString hostname;
    QString appname;
    if (lockFile.getLockInfo(&owner, &hostname, &appname) && announced != owner) {
        LogManager::getInstance()->Msg(
            kLogImportant, "627 is running, but pid(%d) is not same  with now appid(%lld)!",
            announced, static_cast<long long>(owner));
        return false;
    }
    return true;
}

bool CMainAppDetectThread::isAppExist()
{
    const int announced = DataCenter::getInstance()->GetMainAppId();
    if (announced == kNoMainAppId)
        return true;

    const QString command =
        QString("ps aux | awk '{print $2}'| grep -w %1").arg(QString::number(announced));
    QProcess process;
    process.start("/bin/bash", {"-c", command}, QIODevice::ReadWrite);
    process.waitForFinished(kProcessWaitMs);
    const QByteArray output = process.readAllStandardOutput().toLower();
    return QString::fromUtf8(output).contains(QString::number(announced));
}
