#pragma once
// SPDX-License-Identifier: Apache-2.0

#include "basethread.h"

#include <atomic>

// Worker of type 2: pings a public host once a second and records in the DataCenter whether
// a reply came back. The framework can create it; the daemon itself does not ask for it.
class CNetWorkDetectThread : public CBaseThread
{
    Q_OBJECT
public:
    CNetWorkDetectThread() = default;

    void run() override;
    void Quit() override;

private:
    std::atomic<bool> m_quit{false};
};
