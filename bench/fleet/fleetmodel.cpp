// SPDX-License-Identifier: Apache-2.0
#include "fleetmodel.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

namespace fleetmodel {

int nextBackoff(const Rules& rules, BackoffState& state, std::int64_t nowS)
{
    if (!state.any || nowS - state.lastS > rules.backoffQuietS)
        state.delayS = rules.backoffFirstS;
    else
        state.delayS = std::min(state.delayS * 2, rules.backoffMaxS);
    state.any = true;
    state.lastS = nowS;
    return state.delayS;
}

namespace {

// Qt makes a single-shot timer of this length or more a coarse one.
constexpr Micros kCoarseSingleShot = 2 * kSecond;

enum class Ev : std::uint8_t
{
    Notice,         // the daemon notices that its connection is gone
    StatusAnswer,   // its status request is answered (ok or failed)
    NetCheck,       // the repeat of a failed status request
    Reconnect,      // the back-off is over: restart at step 0 one step later
    Run,            // a paced step runs
    ConnectTimeout, // a connection attempt into the black hole gives up
    PushAnswer,     // login or query answered
    Heartbeat,      // the heartbeat timer
    Watchdog,       // the heartbeat's answer watchdog
    Slice,          // the service closes a slice of connections (daemon field unused)
    StatusTry,      // the status request's connection attempt (arg: SYNs sent before)
    AddressTry,     // the address look-up's connection attempt
    PushTry,        // the push connection attempt
    KeepAlive,      // the kernel's keepalive timer on the push connection
    DataTimeout     // data unacknowledged for the user timeout: the kernel fails the connection
};

struct Item
{
    Micros at;
    std::uint32_t daemon;
    Ev ev;
    std::uint8_t arg;
    std::uint32_t generation;
};

struct Daemon
{
    Micros heartbeatAt = 0;  // next heartbeat, while running
    Micros pipeFreeAt = 0;   // when the last segment sent has reached the server
    Micros echoAt = 0;       // when the last heartbeat's echo comes back
    Micros lastReceived = 0; // the last segment received on the push connection
    std::uint64_t connectionNo = 0;
    std::uint64_t connNo = 0;    // the daemon's connection number: a restart and step 0 count it
    std::uint64_t checkConn = 0; // ... as it was when the status check under way began
    Micros connectStart = 0;     // when step 0 began
    BackoffState backoff;
    std::uint32_t runGen = 0;       // invalidates a pending step, a pending answer, heartbeats
    std::uint32_t netGen = 0;       // invalidates a stopped net-check timer
    std::uint32_t checkGen = 0;     // invalidates an abandoned status check
    std::uint32_t restartGen = 0;   // invalidates a re-armed restart
    std::uint16_t monoOffsetMs = 0; // its machine's monotonic clock, with ownClocks
    Micros tickPhase = 0;           // ... and its kernel's tick counter
    std::uint8_t step = 0;          // 0..4 as in the daemon
    std::uint8_t probesOut = 0;     // keepalive probes sent and not answered
    bool connected = false;
    bool checking = false;        // a status request is under way
    bool reconnectWanted = false; // ... and one of its callers wants a reconnection
    bool reconnectPending = false;
    bool netCheckOn = false;
};

// A calendar queue of 1 ms slots: every event lands in the slot of its millisecond and slots are
// run in order, each in the order its events came in.
class Calendar
{
public:
    explicit Calendar(Micros end) : m_slots(size_t(end / kMs) + 2) {}
    void push(const Item& item)
    {
        const size_t index = size_t(std::max<Micros>(item.at, 0) / kMs);
        if (index < m_slots.size())
            m_slots[index].push_back(item);
    }
    size_t size() const { return m_slots.size(); }
    std::vector<Item>& slot(size_t i) { return m_slots[i]; }

private:
    std::vector<std::vector<Item>> m_slots;
};

class Fleet
{
public:
    Fleet(const Scenario& s, const Environment& env, const Rules& rules, int traceDaemon)
        : m_s(s), m_env(env), m_rules(rules), m_trace(traceDaemon), m_end(s.fail + s.horizon),
          m_calendar(m_end), m_daemons(size_t(s.count)), m_rng(s.seed)
    {
        m_result.bins.resize(size_t((m_result.lead + s.horizon) / s.binWidth) + 1);
        m_result.recovered.assign(size_t(s.count), kNotFailed);
    }

    Result run()
    {
        settle();
        scheduleFailure();
        for (size_t i = 0; i < m_calendar.size(); ++i) {
            std::vector<Item>& slot = m_calendar.slot(i);
            for (size_t k = 0; k < slot.size(); ++k) {
                const Item item = slot[k]; // the slot may grow meanwhile
                handle(item);
            }
            std::vector<Item>().swap(slot);
        }
        return std::move(m_result);
    }

private:
    // Before the failure every daemon runs: connected, its heartbeat phase spread out.
    void settle()
    {
        std::uniform_real_distribution<double> phase(0.0, 1.0);
        std::uniform_int_distribution<int> clock(0, 999);
        for (size_t i = 0; i < m_daemons.size(); ++i) {
            Daemon& d = m_daemons[i];
            if (m_env.ownClocks) {
                d.monoOffsetMs = std::uint16_t(clock(m_rng));
                if (m_env.tick > 0)
                    d.tickPhase = Micros(phase(m_rng) * double(4096 * m_env.tick));
            }
            d.connected = true;
            d.step = 4;
            d.connectionNo = ++m_connections;
            d.backoff = BackoffState{-1000, m_rules.backoffFirstS, true}; // long settled
            if (m_s.kind == Kind::Blackhole) {
                Micros received = 0;
                if (i < m_s.lastHeartbeats.size()) {
                    const Micros last = m_s.fail + m_s.lastHeartbeats[i];
                    d.heartbeatAt = last + m_rules.heartbeat + m_env.timerLate;
                    received = i < m_s.lastReceived.size() ? m_s.fail + m_s.lastReceived[i]
                                                           : last + m_env.pushLatency;
                } else {
                    const Micros offset = Micros(phase(m_rng) * double(m_s.heartbeatSpread));
                    d.heartbeatAt = m_s.fail + offset;
                    received = d.heartbeatAt - m_rules.heartbeat + m_env.pushLatency;
                }
                while (d.heartbeatAt < m_s.fail)
                    d.heartbeatAt += m_rules.heartbeat;
                push(d.heartbeatAt, i, Ev::Heartbeat, 0, d.runGen);
                if (i < m_s.receipts.size() && !m_s.receipts[i].empty())
                    replayKeepAlive(i);
                else
                    settleKeepAlive(i, received);
            }
        }
    }

    // The keepalive timer as it stands at the failure: before it, every probe was answered.
    // Between two heartbeats the timer last fires about 31 s after the echo (its checks after the
    // previous probe), so that the probe's timer is armed 14 s ahead.
    void settleKeepAlive(size_t i, Micros received)
    {
        Daemon& d = m_daemons[i];
        d.lastReceived = received;
        constexpr Micros kAhead = 14 * kSecond;
        Micros due = kernelTimer(i, received + m_rules.keepIdle - kAhead, kAhead);
        while (due < m_s.fail) {
            if (due - d.lastReceived >= m_rules.keepIdle) {
                d.lastReceived = due;
                due = kernelTimer(i, due, m_rules.keepInterval);
            } else {
                due = kernelTimer(i, due, d.lastReceived + m_rules.keepIdle - due);
            }
        }
        push(due, i, Ev::KeepAlive, 0, d.runGen);
    }

    // The keepalive timer from the connection on: armed for the idle time when the connection
    // is made, then at each expiry put off until the idle time after the last receipt, or, after
    // that much silence, a probe (answered before the failure) and the interval.
    void replayKeepAlive(size_t i)
    {
        Daemon& d = m_daemons[i];
        const std::vector<Micros>& receipts = m_s.receipts[i];
        size_t next = 1;
        Micros last = m_s.fail + receipts.front();
        const auto receivedBy = [&](Micros at) {
            for (; next < receipts.size() && m_s.fail + receipts[next] <= at; ++next)
                last = std::max(last, m_s.fail + receipts[next]);
        };
        Micros due = kernelTimer(i, last, m_rules.keepIdle);
        while (due < m_s.fail) {
            receivedBy(due);
            const Micros quiet = due - last;
            if (quiet < m_rules.keepIdle) {
                due = kernelTimer(i, due, m_rules.keepIdle - quiet);
            } else {
                last = due + m_env.pushLatency;
                due = kernelTimer(i, due, m_rules.keepInterval);
            }
        }
        receivedBy(m_s.fail);
        d.lastReceived = last;
        push(due, i, Ev::KeepAlive, 0, d.runGen);
    }

    // When a kernel timer armed at `at` for `delay` fires: Linux's timer wheel rounds the due
    // tick up to the granularity of the wheel level that the delay falls in (1, 8, 64, 512 ...
    // ticks for delays from 0, 63, 504, 4032 ... ticks), on the machine's tick counter.
    Micros kernelTimer(size_t i, Micros at, Micros delay) const
    {
        const Micros tick = m_env.tick;
        if (tick <= 0)
            return at + delay;
        const Micros phase = m_env.ownClocks ? m_daemons[i].tickPhase : m_env.tickPhase;
        const Micros from = at - phase;
        const Micros now = from >= 0 ? from / tick : -((tick - 1 - from) / tick);
        const Micros ticks = (delay + tick - 1) / tick;
        int shift = 0;
        for (Micros start = 63; shift < 24 && ticks >= start; start <<= 3)
            shift += 3;
        const Micros expires = (((now + ticks) >> shift) + 1) << shift;
        return phase + expires * tick;
    }

    void scheduleFailure()
    {
        if (m_s.kind == Kind::Rolling) {
            for (int k = 0; k < m_s.slices; ++k)
                push(m_s.fail + k * m_s.slicePeriod, 0, Ev::Slice, 0, 0);
            return;
        }
        if (m_s.kind == Kind::Blackhole)
            return; // the heartbeats find it
        std::uniform_real_distribution<double> spread(0.0, 1.0);
        // The server closes the connections one after the other (over closeSpread) and accepts
        // nothing until it is done with them (closeBusy).
        const Micros closing = m_env.closeBusy;
        for (Queue& q : m_queues)
            q.last = std::max(q.last, m_s.fail + closing);
        for (size_t i = 0; i < m_daemons.size(); ++i) {
            if (i < m_s.firstChecks.size()) {
                closeConnection(i, m_s.fail + m_s.firstChecks[i] - m_env.notice);
                continue;
            }
            const Micros closedAt =
                m_s.fail + m_env.closeSpread * Micros(i) / Micros(m_daemons.size());
            closeConnection(i, closedAt + Micros(spread(m_rng) * double(m_s.spread)));
        }
    }

    void closeConnection(size_t i, Micros at)
    {
        Daemon& d = m_daemons[i];
        if (!d.connected)
            return;
        if (m_result.recovered[i] == kNotFailed)
            m_result.recovered[i] = -1;
        d.connected = false;
        ++d.runGen; // the answers on that connection and its heartbeat are gone
        push(at + m_env.notice, i, Ev::Notice, 0, d.runGen);
    }

    void push(Micros at, size_t i, Ev ev, std::uint8_t arg, std::uint32_t generation)
    {
        if (at < m_end)
            m_calendar.push(Item{at, std::uint32_t(i), ev, arg, generation});
    }

    // When a timer started at `at` fires. The daemon's timers are Qt's default coarse timers:
    // below 20 s they may fire up to 5 % early or late so as to land on a round fraction of a
    // second of the monotonic clock (a multiple of 500 ms; from 5 s on, a whole second when
    // within reach); from 20 s on they land on a whole second.
    Micros timer(size_t i, Micros at, Micros interval) const
    {
        return coarse(at, interval,
                      m_env.ownClocks ? m_daemons[i].monoOffsetMs * kMs : m_env.monoOffset);
    }

    // On the bench machine a slow status answer waits on the stand-in's single-shot timer,
    // which Qt makes coarse from 2 s on: the answers of one wave land together on the machine's
    // clock. A fleet's own service (every daemon on a machine of its own) just takes the delay.
    Micros serviceDelay(Micros at, Micros delay) const
    {
        if (m_env.ownClocks || delay < kCoarseSingleShot)
            return at + delay;
        return coarse(at, delay, m_env.monoOffset);
    }

    // Qt's coarse timer started at `at`, on a monotonic clock `offset` ahead of the model's.
    Micros coarse(Micros at, Micros interval, Micros offset) const
    {
        Micros due = at + interval;
        if (m_env.coarse) {
            const Micros mono = due + offset;
            const Micros second = mono - (((mono % kSecond) + kSecond) % kSecond);
            const Micros ms = (mono - second) / kMs; // 0..999
            const Micros ims = interval / kMs;
            Micros rounded = ms;
            if (ims >= 20000) {
                rounded = ms >= 500 ? 1000 : 0;
            } else if (ims >= 20) {
                const Micros maxRound = ims / 20;
                const Micros lo = std::max<Micros>(0, ms - maxRound);
                const Micros hi = std::min<Micros>(1000, ms + maxRound);
                if (lo == 0) {
                    rounded = 0;
                } else if (hi == 1000) {
                    rounded = 1000;
                } else if (ims % 500 == 0 && ims >= 5000) {
                    rounded = ms >= 500 ? hi : lo;
                } else {
                    const Micros multiple = ims % 500 == 0 ? 500 : 25;
                    const Micros base = ms / multiple * multiple;
                    rounded = ms < base + multiple / 2 ? std::max(base, lo)
                                                       : std::min(base + multiple, hi);
                }
            }
            due = std::max(at, second + rounded * kMs - offset);
        }
        return due + m_env.timerLate;
    }

    // Where the daemon's action really starts: on the bench machine hundreds of daemons wake
    // at once on two processors, so each starts a little later, up to `jitter`.
    Micros cpu(Micros at)
    {
        if (m_env.jitter <= 0)
            return at;
        std::uniform_int_distribution<Micros> late(0, m_env.jitter);
        return at + late(m_rng);
    }

    Bin* bin(Micros at)
    {
        const Micros rel = at - (m_s.fail - m_result.lead);
        if (rel < 0 || rel / m_s.binWidth >= Micros(m_result.bins.size()))
            return nullptr;
        return &m_result.bins[size_t(rel / m_s.binWidth)];
    }

    void trace(size_t i, Micros at, Event event, int value = 0)
    {
        if (int(i) == m_trace)
            m_result.trace.push_back(TraceItem{at, event, value});
    }

    bool pushDown(Micros at) const
    {
        return m_s.kind != Kind::Rolling && at >= m_s.fail && at < m_s.fail + m_s.down;
    }

    // The push port black-holed: nothing gets through in either direction.
    bool silent(Micros at) const
    {
        return m_s.kind == Kind::Blackhole && at >= m_s.fail && at < m_s.fail + m_s.down;
    }

    bool statusFails(Micros at) const
    {
        return m_s.statusFailFrom >= 0 && at >= m_s.fail + m_s.statusFailFrom &&
               at < m_s.fail + m_s.statusFailTo;
    }

    // One status check; `reconnect` asks for a reconnection when the session proves valid.
    // A check under way is abandoned (its request has gone out all the same); its wish passes to
    // the new one if its connection is still the current one.
    void checkStatus(size_t i, Micros at, bool reconnect)
    {
        Daemon& d = m_daemons[i];
        bool wish = reconnect;
        if (d.checking)
            wish = wish || (d.reconnectWanted && d.checkConn == d.connNo);
        d.checking = true;
        d.reconnectWanted = wish;
        d.checkConn = d.connNo;
        ++d.checkGen;
        onStatusTry(i, at, 0);
    }

    void onStatusTry(size_t i, Micros at, int syns)
    {
        if (!accept(0, at)) {
            push(at + synRetry(syns), i, Ev::StatusTry, std::uint8_t(syns + 1),
                 m_daemons[i].checkGen);
            return;
        }
        if (Bin* b = bin(at))
            ++b->status;
        trace(i, at, Event::StatusSent);
        const bool ok = !statusFails(at);
        const Micros answered = at + m_env.statusLatency;
        push(ok ? serviceDelay(answered, m_s.statusSlow) : answered, i, Ev::StatusAnswer,
             ok ? 1 : 0, m_daemons[i].checkGen);
    }

    // A listener's accept queue: `backlog` connections wait in it and the server takes
    // `acceptPerMs` of them a millisecond; a connection that finds it full loses its SYN, which
    // the client's kernel sends again 1, 2, 4 ... s later. Listener 0 serves both HTTP services
    // (as the sandbox does), 1 is the push server.
    bool accept(int listener, Micros at)
    {
        if (m_env.backlog <= 0)
            return true;
        Queue& q = m_queues[size_t(listener)];
        if (at > q.last) {
            q.level =
                std::max(0.0, q.level - double(at - q.last) / double(kMs) * m_env.acceptPerMs);
            q.last = at;
        }
        if (q.level + 1 > double(m_env.backlog))
            return false;
        q.level += 1;
        return true;
    }

    // When the `k`-th retransmission of a lost SYN goes out, from the first SYN: a few after
    // equal waits, then each wait doubled.
    Micros synAt(int k) const
    {
        const int linear = std::min(k, m_rules.synLinear);
        const int doubling = std::min(k - linear, 20);
        return m_rules.synFirst * (linear + (Micros(2) << doubling) - 2);
    }

    // The wait from the `syns`-th SYN to the next.
    Micros synRetry(int syns) const { return synAt(syns + 1) - synAt(syns); }

    void onStatusAnswer(size_t i, Micros at, bool ok)
    {
        Daemon& d = m_daemons[i];
        d.checking = false;
        const bool current = d.checkConn == d.connNo;
        if (!ok) {
            if (current && !d.netCheckOn) {
                d.netCheckOn = true;
                push(timer(i, at, m_rules.netCheck), i, Ev::NetCheck, 0, ++d.netGen);
            }
            return;
        }
        if (current)
            stopNetCheck(d);
        if (!d.reconnectWanted)
            return;
        // Every confirmation takes the next wait (the back-off reads whole seconds of the wall
        // clock) and re-arms the one restart; one about a replaced connection only re-arms.
        const std::int64_t nowS = std::int64_t(std::floor(double(at) / double(kSecond)));
        const int wait = nextBackoff(m_rules, d.backoff, nowS);
        if (!current && !d.reconnectPending)
            return;
        d.reconnectPending = true;
        trace(i, at, Event::ReconnectWait, wait);
        push(timer(i, at, wait * kSecond), i, Ev::Reconnect, 0, ++d.restartGen);
    }

    void stopNetCheck(Daemon& d)
    {
        if (d.netCheckOn) {
            d.netCheckOn = false;
            ++d.netGen;
        }
    }

    void nextStep(size_t i, Micros at)
    {
        Daemon& d = m_daemons[i];
        ++d.step;
        push(timer(i, at, m_rules.step), i, Ev::Run, 0, d.runGen);
    }

    // Step 0: the address look-up, then the connection.
    void connect(size_t i, Micros at)
    {
        Daemon& d = m_daemons[i];
        stopNetCheck(d);
        ++d.connNo;
        d.connectStart = at;
        onAddressTry(i, at, 0);
    }

    void onAddressTry(size_t i, Micros at, int syns)
    {
        if (!accept(0, at)) {
            push(at + synRetry(syns), i, Ev::AddressTry, std::uint8_t(syns + 1),
                 m_daemons[i].runGen);
            return;
        }
        if (Bin* b = bin(at))
            ++b->address;
        trace(i, at, Event::AddressSent);
        onPushTry(i, at + m_env.addressLatency, 0);
    }

    void onPushTry(size_t i, Micros tried, int syns)
    {
        Daemon& d = m_daemons[i];
        if (silent(tried)) { // the SYN is sent again until the hole closes or the attempt gives up
            const Micros giveUp = d.connectStart + m_rules.connectTimeout;
            int k = syns + 1;
            Micros again = kernelTimer(i, tried, synRetry(syns));
            while (silent(again) && again < giveUp) {
                again = kernelTimer(i, again, synRetry(k));
                ++k;
            }
            if (again < giveUp)
                push(again, i, Ev::PushTry, std::uint8_t(k), d.runGen);
            else
                push(giveUp, i, Ev::ConnectTimeout, 1, d.runGen);
            return;
        }
        if (pushDown(tried) || !admit(tried)) {
            trace(i, tried, Event::ConnectFailed);
            checkStatus(i, cpu(tried), true);
            return;
        }
        if (!accept(1, tried)) {
            const Micros again = tried + synRetry(syns);
            if (again - d.connectStart >= m_rules.connectTimeout)
                push(d.connectStart + m_rules.connectTimeout, i, Ev::ConnectTimeout, 0, d.runGen);
            else
                push(again, i, Ev::PushTry, std::uint8_t(syns + 1), d.runGen);
            return;
        }
        const Micros up = tried + m_env.pushLatency;
        d.connected = true;
        d.lastReceived = up;
        d.probesOut = 0;
        d.connectionNo = ++m_connections;
        if (Bin* b = bin(up))
            ++b->connect;
        trace(i, up, Event::Connected);
        nextStep(i, up);
    }

    // The push server's admission limit: connections beyond it in one second are refused.
    bool admit(Micros at)
    {
        if (m_s.admitPerSecond <= 0)
            return true;
        const std::int64_t second = at / kSecond;
        if (second != m_admitSecond) {
            m_admitSecond = second;
            m_admitted = 0;
        }
        if (m_admitted >= m_s.admitPerSecond)
            return false;
        ++m_admitted;
        return true;
    }

    void onRun(size_t i, Micros at)
    {
        Daemon& d = m_daemons[i];
        switch (d.step) {
        case 0:
            connect(i, at);
            break;
        case 1:
            if (Bin* b = bin(at))
                ++b->login;
            trace(i, at, Event::LoginSent);
            if (!pushDown(at))
                push(at + m_env.pushLatency, i, Ev::PushAnswer, 1, d.runGen);
            break;
        case 2:
            if (Bin* b = bin(at))
                ++b->query;
            trace(i, at, Event::QuerySent);
            if (!pushDown(at))
                push(at + m_env.pushLatency, i, Ev::PushAnswer, 2, d.runGen);
            break;
        case 3: // the heartbeat's timer is exact: it runs on the boot-time clock
            d.step = 4;
            d.heartbeatAt = at + m_rules.heartbeat + m_env.timerLate;
            push(d.heartbeatAt, i, Ev::Heartbeat, 0, d.runGen);
            break;
        default:
            break;
        }
    }

    void onPushAnswer(size_t i, Micros at, int step)
    {
        Daemon& d = m_daemons[i];
        if (step == 1) {
            nextStep(i, at);
            return;
        }
        trace(i, at, Event::QueryAnswered);
        if (m_result.recovered[i] == -1)
            m_result.recovered[i] = at - m_s.fail;
        d.step = 2;
        nextStep(i, at);
    }

    // When a segment sent at `at` reaches the server: at once, or at the first retransmission
    // (200 ms, doubling) after the black hole, never before the segments sent earlier; -1 when
    // the retransmissions run into the user timeout (counted from the first of them) first: the
    // last one is cut to it and then finds the time up, also when the hole has closed meanwhile.
    Micros delivery(size_t i, Micros at)
    {
        Daemon& d = m_daemons[i];
        Micros arrive = at;
        if (silent(at)) {
            arrive = kernelTimer(i, at, m_rules.rtoFirst);
            // The user timeout counts from the first retransmission.
            const Micros limit = arrive + m_rules.userTimeout;
            Micros rto = 2 * m_rules.rtoFirst;
            while (silent(arrive)) {
                arrive = kernelTimer(i, arrive, std::min(rto, limit - arrive));
                rto *= 2;
                if (arrive >= limit) {
                    d.pipeFreeAt = arrive; // the connection fails then
                    return -1;
                }
            }
        }
        arrive = std::max(arrive, d.pipeFreeAt);
        d.pipeFreeAt = arrive;
        return arrive;
    }

    void onHeartbeat(size_t i, Micros at)
    {
        Daemon& d = m_daemons[i];
        trace(i, at, Event::HeartbeatSent);
        // The timer on the boot-time clock starts its next period when this one is handled.
        push(at + m_rules.heartbeat + m_env.timerLate, i, Ev::Heartbeat, 0, d.runGen);
        const Micros arrive = delivery(i, at);
        if (arrive < 0) {
            push(d.pipeFreeAt, i, Ev::DataTimeout, 0, d.runGen);
            return;
        }
        if (Bin* b = bin(arrive))
            ++b->heartbeat;
        d.echoAt = arrive + m_env.pushLatency;
        d.lastReceived = d.echoAt;
        d.probesOut = 0;
        const Micros watchdog = timer(i, at, m_rules.answerWatchdog);
        if (d.echoAt > watchdog)
            push(watchdog, i, Ev::Watchdog, 0, d.runGen);
    }

    // The kernel's keepalive timer: data in flight puts it off by the idle time; silence for the
    // idle time sends a probe and checks again after the interval; a probe unanswered and
    // silence for the user timeout fail the connection.
    void onKeepAlive(size_t i, Micros at)
    {
        Daemon& d = m_daemons[i];
        if (at < d.pipeFreeAt) {
            push(kernelTimer(i, at, m_rules.keepIdle), i, Ev::KeepAlive, 0, d.runGen);
            return;
        }
        const Micros quiet = at - d.lastReceived;
        if (quiet < m_rules.keepIdle) {
            push(kernelTimer(i, at, m_rules.keepIdle - quiet), i, Ev::KeepAlive, 0, d.runGen);
            return;
        }
        if (d.probesOut > 0 && quiet >= m_rules.userTimeout) {
            closeConnection(i, at);
            return;
        }
        if (silent(at)) {
            ++d.probesOut;
        } else {
            d.lastReceived = at;
            d.probesOut = 0;
        }
        push(kernelTimer(i, at, m_rules.keepInterval), i, Ev::KeepAlive, 0, d.runGen);
    }

    void onSlice(Micros at)
    {
        std::vector<size_t> open;
        for (size_t i = 0; i < m_daemons.size(); ++i) {
            if (m_daemons[i].connected)
                open.push_back(i);
        }
        const size_t slice = size_t((m_s.count + m_s.slices - 1) / m_s.slices);
        const size_t n = std::min(slice, open.size());
        std::partial_sort(open.begin(), open.begin() + long(n), open.end(),
                          [this](size_t a, size_t b) {
                              return m_daemons[a].connectionNo < m_daemons[b].connectionNo;
                          });
        for (size_t k = 0; k < n; ++k)
            closeConnection(open[k], at);
    }

    void handle(const Item& item)
    {
        const size_t i = item.daemon;
        Daemon& d = m_daemons[i];
        switch (item.ev) {
        case Ev::Slice:
            onSlice(item.at);
            break;
        case Ev::Notice:
            if (item.generation != d.runGen)
                break;
            trace(i, item.at, Event::Noticed);
            checkStatus(i, cpu(item.at), true);
            break;
        case Ev::StatusAnswer:
            if (item.generation == d.checkGen && d.checking)
                onStatusAnswer(i, cpu(item.at), item.arg != 0);
            break;
        case Ev::NetCheck:
            if (item.generation != d.netGen || !d.netCheckOn)
                break;
            push(timer(i, item.at - m_env.timerLate, m_rules.netCheck), i, Ev::NetCheck, 0,
                 d.netGen);
            checkStatus(i, cpu(item.at), true);
            break;
        case Ev::Reconnect:
            if (item.generation != d.restartGen || !d.reconnectPending)
                break;
            d.reconnectPending = false;
            d.step = 0;
            d.connected = false;
            ++d.runGen;
            ++d.connNo;
            stopNetCheck(d);
            push(timer(i, item.at, m_rules.step), i, Ev::Run, 0, d.runGen);
            break;
        case Ev::Run:
            if (item.generation == d.runGen)
                onRun(i, cpu(item.at));
            break;
        case Ev::ConnectTimeout:
            if (item.generation == d.runGen) {
                // An attempt into the hole ends with one more try (as measured): on a port open
                // again, the server sees a connection that is closed at once.
                if (item.arg != 0 && !silent(item.at)) {
                    if (Bin* b = bin(item.at + m_env.pushLatency))
                        ++b->connect;
                }
                trace(i, item.at, Event::ConnectFailed);
                checkStatus(i, cpu(item.at), true);
            }
            break;
        case Ev::PushAnswer:
            if (item.generation == d.runGen && d.connected)
                onPushAnswer(i, cpu(item.at), item.arg);
            break;
        case Ev::Heartbeat:
            if (item.generation == d.runGen && d.connected && d.step == 4)
                onHeartbeat(i, item.at);
            break;
        case Ev::StatusTry:
            if (item.generation == d.checkGen && d.checking)
                onStatusTry(i, item.at, item.arg);
            break;
        case Ev::AddressTry:
            if (item.generation == d.runGen)
                onAddressTry(i, item.at, item.arg);
            break;
        case Ev::PushTry:
            if (item.generation == d.runGen)
                onPushTry(i, item.at, item.arg);
            break;
        case Ev::KeepAlive:
            if (item.generation == d.runGen && d.connected)
                onKeepAlive(i, item.at);
            break;
        case Ev::DataTimeout:
            if (item.generation == d.runGen && d.connected)
                closeConnection(i, item.at);
            break;
        case Ev::Watchdog:
            if (item.generation == d.runGen && d.connected && d.echoAt > item.at)
                checkStatus(i, cpu(item.at), false);
            break;
        }
    }

    const Scenario& m_s;
    const Environment& m_env;
    const Rules& m_rules;
    int m_trace;
    Micros m_end;
    Calendar m_calendar;
    std::vector<Daemon> m_daemons;
    struct Queue
    {
        double level = 0;
        Micros last = 0;
    };
    Queue m_queues[2];
    std::mt19937_64 m_rng;
    std::uint64_t m_connections = 0;
    std::int64_t m_admitSecond = -1;
    int m_admitted = 0;
    Result m_result;
};

} // namespace

Result simulate(const Scenario& scenario, const Environment& env, const Rules& rules,
                int traceDaemon)
{
    Fleet fleet(scenario, env, rules, traceDaemon);
    return fleet.run();
}

double recoveryPercentileS(const Result& result, double p)
{
    std::vector<Micros> times;
    for (Micros t : result.recovered) {
        if (t != kNotFailed)
            times.push_back(t);
    }
    if (times.empty())
        return -1;
    std::sort(times.begin(), times.end(), [](Micros a, Micros b) {
        if ((a < 0) != (b < 0))
            return b < 0; // not recovered sorts last
        return a < b;
    });
    size_t rank = size_t(std::ceil(p * double(times.size())));
    rank = std::min(std::max<size_t>(rank, 1), times.size());
    const Micros t = times[rank - 1];
    return t < 0 ? -1.0 : double(t) / double(kSecond);
}

} // namespace fleetmodel
