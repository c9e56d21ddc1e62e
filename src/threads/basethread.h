#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QMutex>
#include <QThread>
#include <QVariant>
#include <climits>

// Base of every worker thread: a type number (a single bit), a tag that tells threads of one
// type apart, a validity flag cleared when the thread is told to stop, and the running
// thread's id. Fields other than the type are guarded by the thread's own mutex so that the
// ThreadManager on the main thread can read them while the worker runs.
class CBaseThread : public QThread
{
    Q_OBJECT
public:
    CBaseThread();
    ~CBaseThread() override;

    int GetState();
    void SetState(int state);
    void SetThreadId();
    quint64 GetThreadId();
    void SetData(const QVariant& data);
    QVariant GetData();
    void SetValid(bool valid);
    bool GetValid();
    // Set once before the thread starts, so it takes no lock; the getter does.
    void SetType(int type);
    int GetType();

    // Records the thread id and logs the start line; subclasses call it first.
    void run() override;
    // Asks the thread's loop to end. Must not block: it is called under the registry lock.
    virtual void Quit();

    // QThread's own, plus the hand-over from the finished thread to the one that found it
    // finished (and may now delete it). Qt signals the end inside its own library, where the
    // thread checker cannot see it; the finishing thread announces it from finished().
    bool isFinished() const;
    bool wait(unsigned long time = ULONG_MAX);

private:
    int m_state = 0;
    int m_type = 0;
    bool m_valid = true;
    quint64 m_threadId = 0;
    QString m_name;
    QVariant m_data;
    QMutex m_mutex;
};
