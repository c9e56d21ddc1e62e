#include "sync.h"

#include <QMutex>

Sync::Sync(QMutex* mutex) : m_mutex(mutex)
{
    if (m_mutex)
        m_mutex->lock();
}

Sync::~Sync()
{
    if (m_mutex)
        m_mutex->unlock();
}
