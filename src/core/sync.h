#pragma once
// SPDX-License-Identifier: Apache-2.0

class QMutex;

// Scoped lock over a plain QMutex: locks in the constructor, unlocks when the block ends.
// A null mutex makes both ends do nothing.
//
// Under the thread checker the lock and unlock are also announced to it: a contended QMutex
// is handed over inside Qt's own library, which is not built with the checker and would
// otherwise hide the ordering between the two holders.
class Sync
{
public:
    explicit Sync(QMutex* mutex);
    ~Sync();

    Sync(const Sync&) = delete;
    Sync& operator=(const Sync&) = delete;

    // Lets go before the block ends; the destructor then does nothing.
    void unlock();

    // Hand-over points the thread checker cannot see by itself: what one thread did before
    // release(p) is ordered before what another does after a later acquire(p). No-ops in
    // every other build.
    static void release(const void* address);
    static void acquire(const void* address);

private:
    QMutex* m_mutex;
};
