#pragma once
// SPDX-License-Identifier: Apache-2.0

#include "basethread.h"

#include <QMutex>
#include <atomic>

class MsgClient;

// Worker thread of type 1 ("LongConnect") that hosts the push connection. It waits for the
// login record's user id, then creates the MsgClient inside itself and runs its own event loop,
// so the socket, the timers and the blocking HTTP requests never touch the main thread.
// Quit() is the base class's empty one: the thread ends with the process.
class ClientThread : public CBaseThread
{
    Q_OBJECT
public:
    ClientThread();
    ~ClientThread() override;

    // Runs on the client thread.
    void run() override;

    // The push connection once created (null before); it is never deleted.
    MsgClient* client() const { return m_client.load(); }
    // Pause between two looks at the login record; one second unless a test shortens it.
    void setPollInterval(unsigned long msec);
    // Looks that found no user id since the interval was last set; each is followed by a pause
    // of that interval.
    int emptyPolls();

private:
    // The next pause, counted as one more empty look.
    unsigned long nextPauseMs();

    std::atomic<MsgClient*> m_client{nullptr};
    QMutex m_pollMutex;
    unsigned long m_pollMs;
    int m_emptyPolls = 0;
};
