#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QList>
#include <QMutex>
#include <QObject>
#include <QVariant>

class CBaseThread;

// Registry of worker threads, used from the main thread only. Threads are created by type
// (threads/constants.h: client, network probe, main-application watchdog), stopped by type and
// tag, and deleted once finished. Nothing here waits for a thread.
class ThreadManager : public QObject
{
    Q_OBJECT
public:
    static ThreadManager* GetInstance();
    static void DestroyInstance();

    void Init();
    // The started thread, or null when a valid thread of that type and tag exists or the type
    // is unknown.
    CBaseThread* CreateThread(int type, const QVariant& data);
    bool IsExist(int typeMask);
    bool IsInvalidThreadExist(int type, const QVariant& data, int waited, int limit);
    void StopThread(int type, const QVariant& data);
    void CleanThread();
    void FinishAllThread();
    void Destroy();
    void getThreadInfo(CBaseThread* thread);

private:
    ThreadManager() = default;
    // Caller holds m_mutex.
    bool Exist(int type, const QVariant& data);

    static ThreadManager* m_this;

    QList<CBaseThread*> m_threads;
    QMutex m_mutex;
};
