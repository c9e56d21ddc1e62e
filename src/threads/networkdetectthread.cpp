// SPDX-License-Identifier: Apache-2.0
#include "networkdetectthread.h"

#include "core/constants.h"
#include "core/datacenter.h"
#include "core/log.h"

#include <QProcess>

namespace {
// The flags are passed as they are; a probe that does not print a reply line counts as down.
constexpr const char* kProbeCommand = "ping example.com -n 2 -w 500";
constexpr const char* kReplyMarker = "ttl=";
constexpr int kProbeWaitMs = 30000;
constexpr int kKillWaitMs = 1000; // for a probe stopped past its time
constexpr unsigned long kPauseSeconds = 1;
} // namespace

// Runs on the probe thread.
void CNetWorkDetectThread::run()
{
    Infor tracer(kLogTrace, std::string(metaObject()->className()) + "_run");
    CBaseThread::run();

    // One process object, reused for every probe.
    QProcess process;
    while (!m_quit.load(std::memory_order_relaxed)) {
        process.start(QString::fromLatin1(kProbeCommand), QIODevice::ReadWrite);
        process.waitForFinished(kProbeWaitMs);
        const QString output = QString::fromUtf8(process.readAllStandardOutput().constData());
        DataCenter::getInstance()->SetNetError(!output.contains(QLatin1String(kReplyMarker)));
        if (process.state() != QProcess::NotRunning) {
            // A probe past its time is judged on what it printed; do not let it linger.
            process.kill();
            process.waitForFinished(kKillWaitMs);
        }
        QThread::sleep(kPauseSeconds);
    }
}

// Called from the main thread, under the registry lock.
void CNetWorkDetectThread::Quit()
{
    LogManager::getInstance()->Msg(kLogImportant, "network detect thread receive quit flag");
    m_quit.store(true, std::memory_order_relaxed);
}
