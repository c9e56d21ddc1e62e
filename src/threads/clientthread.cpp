#include "clientthread.h"

#include "core/data.h"
#include "core/datacenter.h"
#include "core/log.h"
#include "push/client.h"

ClientThread::ClientThread() = default;

// The MsgClient is left alone on purpose: it lives until the process ends.
ClientThread::~ClientThread() = default;

// Runs on the client thread.
void ClientThread::run()
{
    Infor tracer(0, std::string(metaObject()->className()) + "_run");
    CBaseThread::run();

    CLoginInfor info;
    for (;;) {
        DataCenter::getInstance()->GetLoginInfor(info);
        if (!info.userId.isEmpty())
            break;
        QThread::msleep(m_pollMs.load());
    }

    // Created here, so it has this thread's affinity: its slots and timers run on this thread.
    m_client.store(new MsgClient(nullptr));
    exec();
}
