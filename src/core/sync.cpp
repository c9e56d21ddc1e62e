// SPDX-License-Identifier: Apache-2.0
#include "sync.h"

#include <QMutex>

#if defined(__SANITIZE_THREAD__)
#define D627_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define D627_TSAN 1
#endif
#endif

#ifdef D627_TSAN
#include <sanitizer/tsan_interface.h>
#endif

Sync::Sync(QMutex* mutex) : m_mutex(mutex)
{
    if (!m_mutex)
        return;
    m_mutex->lock();
    acquire(m_mutex);
}

Sync::~Sync()
{
    unlock();
}

void Sync::unlock()
{
    if (!m_mutex)
        return;
    release(m_mutex);
    m_mutex->unlock();
    m_mutex = nullptr;
}

void Sync::release(const void* address)
{
#ifdef D627_TSAN
    __tsan_release(const_cast<void*>(address)); // NOLINT(cppcoreguidelines-pro-type-const-cast)
#else
    (void)address;
#endif
}

void Sync::acquire(const void* address)
{
#ifdef D627_TSAN
    __tsan_acquire(const_cast<void*>(address)); // NOLINT(cppcoreguidelines-pro-type-const-cast)
#else
    (void)address;
#endif
}
