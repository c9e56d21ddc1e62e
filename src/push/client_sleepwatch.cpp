// SPDX-License-Identifier: Apache-2.0
#include "client_sleepwatch.h"

#include "core/constants.h"
#include "core/log.h"

#include <QSocketNotifier>
#include <cerrno>
#include <ctime>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

constexpr qint64 kNsPerMs = 1000000;

qint64 readClockMs(clockid_t clock)
{
    timespec now{};
    ::clock_gettime(clock, &now);
    return qint64(now.tv_sec) * kMsPerSecond + now.tv_nsec / kNsPerMs;
}

class SystemClocks : public ClockSource
{
public:
    qint64 bootTimeMs() const override { return readClockMs(CLOCK_BOOTTIME); }
    qint64 monotonicMs() const override { return readClockMs(CLOCK_MONOTONIC); }
};

} // namespace

const ClockSource* ClockSource::system()
{
    static const SystemClocks clocks;
    return &clocks;
}

SleepWatch::SleepWatch(const ClockSource* clocks) : m_clocks(clocks), m_lastOffset(offset()) {}

qint64 SleepWatch::offset() const
{
    return m_clocks->bootTimeMs() - m_clocks->monotonicMs();
}

qint64 SleepWatch::sleptMsSinceLast()
{
    const qint64 now = offset();
    const qint64 slept = now - m_lastOffset;
    m_lastOffset = now;
    return slept > 0 ? slept : 0; // the two reads are not at one instant: a ms either way
}

void SleepWatch::reset()
{
    m_lastOffset = offset();
}

BootDeadline::BootDeadline(QObject* parent) : QObject(parent) {}

BootDeadline::~BootDeadline()
{
    delete m_notifier;
    if (m_fd >= 0)
        ::close(m_fd);
}

int BootDeadline::start(qint64 msec)
{
    if (m_fd < 0) {
        m_fd = ::timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK);
        if (m_fd < 0) {
            LogManager::getInstance()->Msg(kLogError, "boot-time timer cannot be made: %s",
                                           qPrintable(qt_error_string(errno)));
            return -1;
        }
        m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &BootDeadline::onExpired);
    }
    // A zero it_value disarms a timerfd: "at once" is one nanosecond ahead.
    const qint64 ns = msec > 0 ? msec * kNsPerMs : 1;
    itimerspec when{};
    when.it_value.tv_sec = time_t(ns / (kMsPerSecond * kNsPerMs));
    when.it_value.tv_nsec = long(ns % (kMsPerSecond * kNsPerMs));
    if (::timerfd_settime(m_fd, 0, &when, nullptr) != 0) {
        LogManager::getInstance()->Msg(kLogError, "boot-time timer cannot be set: %s",
                                       qPrintable(qt_error_string(errno)));
        m_active = false;
        return -1;
    }
    m_active = true;
    return 0;
}

void BootDeadline::stop()
{
    if (m_fd < 0)
        return;
    const itimerspec off{};
    ::timerfd_settime(m_fd, 0, &off, nullptr); // disarms and clears an unread expiry
    m_active = false;
}

void BootDeadline::onExpired()
{
    quint64 expiries = 0;
    if (::read(m_fd, &expiries, sizeof(expiries)) != ssize_t(sizeof(expiries)))
        return; // stopped or re-armed after the expiry was signalled
    m_active = false;
    emit timeout();
}
