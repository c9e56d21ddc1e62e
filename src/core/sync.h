#pragma once

class QMutex;

// Scoped lock over a plain QMutex: locks in the constructor, unlocks when the block ends.
// A null mutex makes both ends do nothing.
class Sync
{
public:
    explicit Sync(QMutex* mutex);
    ~Sync();

    Sync(const Sync&) = delete;
    Sync& operator=(const Sync&) = delete;

private:
    QMutex* m_mutex;
};
