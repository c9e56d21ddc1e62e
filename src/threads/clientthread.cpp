// SPDX-License-Identifier: Apache-2.0
#include "clientthread.h"

#include "core/constants.h"
#include "core/data.h"
#include "core/datacenter.h"
#include "core/log.h"
#include "core/sync.h"
#include "push/client.h"

namespace {
constexpr unsigned long kLoginPollMs = 1000; // between two looks at the login record
} // namespace

ClientThread::ClientThread() : m_pollMs(kLoginPollMs) {}

// The MsgClient is left alone on purpose: it lives until the process ends.
ClientThread::~ClientThread() = default;

// Runs on the client thread.
void ClientThread::run()
{
    Infor tracer(kLogTrace, std::string(metaObject()->className()) + "_run");
    CBaseThread::run();

    CLoginInfor info;
    for (;;) {
        DataCenter::getInstance()->GetLoginInfor(info);
        if (!info.userId.isEmpty())
            break;
        QThread::msleep(nextPauseMs());
    }

    // Created here, so it has this thread's affinity: its slots and timers run on this thread.
    m_client.store(new MsgClient(nullptr));
    exec();
}

void ClientThread::setPollInterval(unsigned long msec)
{
    Sync lock(&m_pollMutex);
    m_pollMs = msec;
    m_emptyPolls = 0;
}

int ClientThread::emptyPolls()
{
    Sync lock(&m_pollMutex);
    return m_emptyPolls;
}

unsigned long ClientThread::nextPauseMs()
{
    Sync lock(&m_pollMutex);
    ++m_emptyPolls;
    return m_pollMs;
}
