#pragma once
// SPDX-License-Identifier: Apache-2.0

// Noticing that the machine slept, without a periodic timer.
//
// The boot-time clock runs on while the machine is suspended; the monotonic clock, on which Qt's
// timers run, stops. SleepWatch reports how far the first ran ahead of the second since it was
// last asked: that is the time spent asleep. BootDeadline is a one-shot timer on the boot-time
// clock (a timerfd behind a QSocketNotifier): a deadline that passed during a suspend fires as
// soon as the machine resumes, where a QTimer would still wait for what was left of its interval.

#include <QObject>
#include <QtGlobal>

class QSocketNotifier;

// The two clocks, in milliseconds; tests give their own.
class ClockSource
{
public:
    virtual ~ClockSource() = default;
    virtual qint64 bootTimeMs() const = 0;  // CLOCK_BOOTTIME: counts suspended time
    virtual qint64 monotonicMs() const = 0; // CLOCK_MONOTONIC: stops while suspended
    // The real clocks of this machine; lives for the whole process.
    static const ClockSource* system();
};

class SleepWatch
{
public:
    // Shorter gaps are read jitter, not a suspend.
    static constexpr qint64 kMinSleepMs = 1000;

    explicit SleepWatch(const ClockSource* clocks = ClockSource::system());

    // Milliseconds slept since the previous call (or construction or reset()); 0 when none.
    // Every call starts a new count.
    qint64 sleptMsSinceLast();
    // True when at least `minimumMs` were slept since the previous call; starts a new count.
    bool sleptSince(qint64 minimumMs = kMinSleepMs) { return sleptMsSinceLast() >= minimumMs; }
    void reset();

private:
    qint64 offset() const; // boot time minus monotonic time

    const ClockSource* m_clocks;
    qint64 m_lastOffset;
};

class BootDeadline : public QObject
{
    Q_OBJECT
public:
    explicit BootDeadline(QObject* parent = nullptr);
    ~BootDeadline() override;

    // Arms the deadline `msec` ahead on the boot-time clock (msec <= 0: at once), replacing an
    // armed one. 0 on success; -1 with one log line when the timer cannot be made or set.
    int start(qint64 msec);
    void stop();
    bool isActive() const { return m_active; }

signals:
    // Once per start(), on the owner thread.
    void timeout();

private slots:
    void onExpired();

private:
    int m_fd = -1;
    QSocketNotifier* m_notifier = nullptr;
    bool m_active = false;
};
