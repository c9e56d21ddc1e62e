#pragma once
// SPDX-License-Identifier: Apache-2.0

#include "basethread.h"

#include <atomic>

// Worker of type 4: while the local link is down, checks once a second that the main
// application still holds its single-instance lock file and clears the DataCenter's
// "main application exists" flag when it does not.
class CMainAppDetectThread : public CBaseThread
{
    Q_OBJECT
public:
    CMainAppDetectThread() = default;

    void run() override;
    void Quit() override;

    // True while the main application counts as alive by its lock file.
    bool isFileLocked();
    // True while the announced process id shows up in the process list (kept, unused).
    bool isAppExist();

private:
    std::atomic<bool> m_quit{false};
};
