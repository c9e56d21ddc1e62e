// SPDX-License-Identifier: Apache-2.0
#include "threadmanager.h"

#include "basethread.h"
#include "clientthread.h"
#include "constants.h"
#include "core/constants.h"
#include "core/log.h"
#include "core/sync.h"
#include "mainappdetectthread.h"
#include "networkdetectthread.h"

#include <algorithm>

ThreadManager* ThreadManager::m_this = nullptr;

ThreadManager* ThreadManager::GetInstance()
{
    if (!m_this)
        m_this = new ThreadManager;
    return m_this;
}

void ThreadManager::DestroyInstance()
{
    delete m_this;
    m_this = nullptr;
}

void ThreadManager::Init()
{
    LogManager::getInstance()->Msg(kLogProgress, "[ThreadManager]init");
}

bool ThreadManager::Exist(int type, const QVariant& data)
{
    return std::any_of(m_threads.cbegin(), m_threads.cend(), [&](CBaseThread* thread) {
        return thread->GetType() == type && thread->GetData() == data && thread->GetValid();
    });
}

CBaseThread* ThreadManager::CreateThread(int type, const QVariant& data)
{
    Sync lock(&m_mutex);
    if (Exist(type, data)) {
        LogManager::getInstance()->Msg(kLogImportant, "exist the same valid thread");
        return nullptr;
    }

    CBaseThread* thread = nullptr;
    switch (type) {
    case kThreadClient:
        thread = new ClientThread;
        break;
    case kThreadNetworkDetect:
        thread = new CNetWorkDetectThread;
        break;
    case kThreadMainAppDetect:
        thread = new CMainAppDetectThread;
        break;
    default:
        return nullptr;
    }
    thread->SetType(type);
    thread->SetData(data);
    m_threads.append(thread);
    thread->start(QThread::InheritPriority);
    return thread;
}

bool ThreadManager::IsExist(int typeMask)
{
    Sync lock(&m_mutex);
    return std::any_of(m_threads.cbegin(), m_threads.cend(), [typeMask](CBaseThread* thread) {
        return (thread->GetType() & typeMask) != 0 && !thread->isFinished();
    });
}

bool ThreadManager::IsInvalidThreadExist(int type, const QVariant& data, int waited, int limit)
{
    Sync lock(&m_mutex);
    if (data.toString().isEmpty() || m_threads.isEmpty())
        return false;

    for (CBaseThread* thread : qAsConst(m_threads)) {
        if (thread->GetValid() || thread->GetType() != type || thread->GetData() != data)
            continue;
        thread->Quit();
        LogManager::getInstance()->Msg(kLogProgress, "invalid main thread is exist");
        if (waited > limit) {
            LogManager::getInstance()->Msg(kLogImportant,
                                           "!!! over time, terminate invalid main thread");
            thread->terminate();
        }
        return true;
    }
    return false;
}

void ThreadManager::StopThread(int type, const QVariant& data)
{
    Infor tracer(kLogTrace, std::string(metaObject()->className()) + "_StopThread");
    Sync lock(&m_mutex);
    for (CBaseThread* thread : qAsConst(m_threads)) {
        if (thread->GetType() == type && thread->GetData() == data) {
            LogManager::getInstance()->Msg(kLogProgress, "found main thread");
            thread->Quit();
            thread->SetValid(false);
        }
    }
}

void ThreadManager::CleanThread()
{
    Sync lock(&m_mutex);
    for (CBaseThread* thread : qAsConst(m_threads))
        getThreadInfo(thread);

    int index = 0;
    while (index < m_threads.size()) {
        CBaseThread* thread = m_threads.at(index);
        // isFinished() is already true while the thread is still inside its own finishing
        // (emitting finished(), running its last cleanup); only a successful wait(0) shows it
        // has left run() for good, so that the object can go.
        if (thread->isFinished() && thread->wait(0)) {
            m_threads.removeAt(index);
            delete thread;
            index = 0;
        } else {
            ++index;
        }
    }
}

void ThreadManager::FinishAllThread()
{
    Sync lock(&m_mutex);
    for (CBaseThread* thread : qAsConst(m_threads))
        thread->Quit();
}

void ThreadManager::Destroy()
{
    Sync lock(&m_mutex);
    for (CBaseThread* thread : qAsConst(m_threads))
        thread->Quit();
    // The threads themselves are left to the end of the process.
    m_threads = QList<CBaseThread*>();
}

void ThreadManager::getThreadInfo(CBaseThread* thread)
{
    // What a diagnostic line would show; no line is emitted, so nothing is formatted.
    const char* name = thread->metaObject()->className();
    const quint64 threadId = thread->GetThreadId();
    const bool running = thread->isRunning();
    const QVariant data = thread->GetData();
    const bool valid = thread->GetValid();
    Q_UNUSED(name);
    Q_UNUSED(threadId);
    Q_UNUSED(running);
    Q_UNUSED(data);
    Q_UNUSED(valid);
}
