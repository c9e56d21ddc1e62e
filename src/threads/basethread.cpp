// SPDX-License-Identifier: Apache-2.0
#include "basethread.h"

#include "core/constants.h"
#include "core/log.h"
#include "core/sync.h"

#include <pthread.h>

CBaseThread::CBaseThread()
{
    // Emitted on the finishing thread itself, after run() has returned.
    connect(
        this, &QThread::finished, this, [this] { Sync::release(this); }, Qt::DirectConnection);
}

CBaseThread::~CBaseThread() = default;

int CBaseThread::GetState()
{
    Sync lock(&m_mutex);
    return m_state;
}

void CBaseThread::SetState(int state)
{
    Sync lock(&m_mutex);
    m_state = state;
}

void CBaseThread::SetThreadId()
{
    Sync lock(&m_mutex);
    m_threadId = static_cast<quint64>(pthread_self());
}

quint64 CBaseThread::GetThreadId()
{
    Sync lock(&m_mutex);
    return m_threadId;
}

void CBaseThread::SetData(const QVariant& data)
{
    Sync lock(&m_mutex);
    m_data = data;
}

QVariant CBaseThread::GetData()
{
    Sync lock(&m_mutex);
    return m_data;
}

void CBaseThread::SetValid(bool valid)
{
    Sync lock(&m_mutex);
    m_valid = valid;
}

bool CBaseThread::GetValid()
{
    Sync lock(&m_mutex);
    return m_valid;
}

void CBaseThread::SetType(int type)
{
    m_type = type;
}

int CBaseThread::GetType()
{
    Sync lock(&m_mutex);
    return m_type;
}

void CBaseThread::run()
{
    SetThreadId();
    LogManager::getInstance()->Msg(kLogImportant, "[thread]name:%s tId:%llu",
                                   metaObject()->className(),
                                   static_cast<unsigned long long>(GetThreadId()));
}

void CBaseThread::Quit() {}

bool CBaseThread::isFinished() const
{
    if (!QThread::isFinished())
        return false;
    Sync::acquire(this);
    return true;
}

bool CBaseThread::wait(unsigned long time)
{
    if (!QThread::wait(time))
        return false;
    Sync::acquire(this);
    return true;
}
