#pragma once
// SPDX-License-Identifier: Apache-2.0

// A discrete-event model of a fleet of daemons and their push service, built from the daemon's
// fixed timing rules:
// - a failure of the push connection asks the status service at once;
// - a valid answer schedules the reconnection after the back-off: 1 s when the last scheduling
//   is more than 5 whole seconds (of the wall clock) ago, else the last wait doubled, at most
//   10 s; one reconnection per failure episode;
// - a failed status request repeats every 10 s (a timer started at the first failure) until one
//   succeeds;
// - every valid answer of a status check that wants a reconnection takes the next back-off wait
//   and re-arms the one pending restart to it; a check about a connection that a restart has
//   replaced since only re-arms a pending restart; a newer status check abandons an older one
//   still waiting (its request was sent all the same) and takes over its wish;
// - the steps are paced by 1 s timers: the reconnection restarts at step 0 one second after the
//   back-off, step 0 looks up the address and connects, the login goes 1 s after the connection,
//   the query 1 s after the login's answer, the heartbeat starts 1 s after the query's answer
//   and repeats every 60 s on an exact timer (the boot-time clock, no rounding); an unanswered
//   heartbeat makes a status check (without reconnection) after 50 s;
// - a connection attempt that gets no answer gives up after 30 s (with one more try, which a
//   port open again accepts and sees closed at once);
// - the kernel fails a push connection whose path died in silence (keepalive and user timeout on
//   the socket): a keepalive probe goes out after 45 s without anything received and every 10 s
//   after it, and the connection fails at the first check that finds a probe unanswered and
//   nothing received for 25 s (that is 10 s after a lost probe, 55 s after the last traffic);
//   data unacknowledged for 25 s after its first retransmission fails it too. A failed connection
//   takes the normal path: a status check at once, the back-off, step 0.
// The services answer after fixed latencies; a black-holed TCP segment is retransmitted on
// Linux's schedule (200 ms, doubling, the last one cut to the user timeout), a lost SYN after
// 1, 2, 3, 4, 5, 7, 11, 19 s (linear timeouts first, then doubling). Times are in microseconds on a
// clock whose zero is a whole second of the wall clock, as the back-off reads whole seconds.

#include <cstdint>
#include <vector>

namespace fleetmodel {

using Micros = std::int64_t;
constexpr Micros kMs = 1000;
constexpr Micros kSecond = 1000 * kMs;

// The daemon's own rules; fixed by design, kept here so that the test can pin them.
struct Rules
{
    Micros step = kSecond;                // pacing of the steps and the restart after a back-off
    int backoffFirstS = 1;                // the first wait, and the wait after a quiet spell
    int backoffQuietS = 5;                // a quiet spell is longer than this many whole seconds
    int backoffMaxS = 10;                 // the doubling stops here
    Micros netCheck = 10 * kSecond;       // repeat of a failed status request
    Micros heartbeat = 60 * kSecond;      // heartbeat period in the running step
    Micros answerWatchdog = 50 * kSecond; // heartbeat without an answer: status check
    Micros connectTimeout = 30 * kSecond; // connection attempt without an answer
    Micros keepIdle = 45 * kSecond;       // nothing received this long: a keepalive probe
    Micros keepInterval = 10 * kSecond;   // the next keepalive check after a probe
    Micros userTimeout = 25 * kSecond;    // unacknowledged data, or silence after a probe, fails
    Micros synFirst = kSecond;            // a SYN is sent again after this ...
    int synLinear = 5;                    // ... this many times, then after doubling waits
    Micros rtoFirst = 200 * kMs;          // first retransmission of data (then doubling)
};

// The reconnection back-off: one value pair per daemon, as in the daemon.
struct BackoffState
{
    std::int64_t lastS = 0;
    int delayS = 0;
    bool any = false; // scheduled before
};

// The wait in seconds for a reconnection scheduled at whole wall-clock second `nowS`; updates
// the pair. The model's daemons use it for every scheduling.
int nextBackoff(const Rules& rules, BackoffState& state, std::int64_t nowS);

class Backoff
{
public:
    explicit Backoff(const Rules& rules) : m_rules(rules) {}
    int next(std::int64_t nowS) { return nextBackoff(m_rules, m_state, nowS); }

private:
    const Rules& m_rules;
    BackoffState m_state;
};

// What the services and the machine add.
struct Environment
{
    Micros statusLatency = 3 * kMs;  // status request to answer
    Micros addressLatency = 3 * kMs; // address look-up to answer
    Micros pushLatency = 2 * kMs;    // login or query to its answer; connection set-up
    Micros timerLate = 1 * kMs;      // a timer fires this much after its due time
    Micros notice = 1 * kMs;         // a closed connection is noticed this much later
    // Qt's coarse timers round their due time on the monotonic clock, which is this far ahead
    // of the model's clock (whose zero is a whole wall-clock second); false: exact timers.
    bool coarse = true;
    Micros monoOffset = 0;
    // The kernel's tick (0: exact kernel timers) and when its counter was a multiple of 4096
    // ticks: the timer wheel rounds the keepalive and retransmission timers on it.
    Micros tick = 0;
    Micros tickPhase = 0;
    // Every daemon on a machine of its own, with its own monotonic clock and tick counter (random
    // offsets), so that the rounding of the timers lands elsewhere for each.
    bool ownClocks = false;
    // Bench machine: the daemons share two processors, so each action starts up to this much
    // late (0: every daemon has a machine of its own, as on desktops).
    Micros jitter = 0;
    // The services' accept queues (0: no limit): `backlog` waiting connections, drained at
    // `acceptPerMs`; a SYN that finds the queue full is sent again 1, 2, 4 ... s later.
    int backlog = 0;
    double acceptPerMs = 10;
    // A restarting server closes its connections over `closeSpread` and accepts nothing until
    // `closeBusy` after the failure.
    Micros closeSpread = 0;
    Micros closeBusy = 0;
};

enum class Kind
{
    Restart,   // every connection closed at `fail`, the port refusing until `fail + down`
    Blackhole, // the push port silent from `fail` to `fail + down`; the kernels find out
    Rolling    // `slices` slices of the longest-open connections closed, one every `slicePeriod`
};

struct Scenario
{
    Kind kind = Kind::Restart;
    int count = 200;
    Micros fail = 10 * kSecond; // when the push server fails (its sub-second part matters)
    Micros down = 0;
    int slices = 6;
    Micros slicePeriod = 10 * kSecond;
    Micros spread = 0;          // the daemons notice a closed connection spread over this
    Micros statusSlow = 0;      // status answers take this much longer
    Micros statusFailFrom = -1; // status requests fail in [from, to) (relative to `fail`)
    Micros statusFailTo = -1;
    int admitPerSecond = 0; // push server accepts at most this many connections a second
    Micros heartbeatSpread = 60 * kSecond; // the daemons' heartbeat phases, spread over this
    // Or, per daemon, when its last heartbeat before `fail` went out (relative to `fail`; for a
    // connection without one yet, when its heartbeat timer started) ...
    std::vector<Micros> lastHeartbeats;
    // ... and when it last received anything on its connection (empty: the heartbeat's echo).
    std::vector<Micros> lastReceived;
    // Or also, per daemon in the same order, when its connection was made and then everything it
    // received on it before `fail` (relative to it): the kernel's keepalive timer is replayed
    // from the connection on instead of guessed.
    std::vector<std::vector<Micros>> receipts;
    // Or, for a restart, when each daemon sent its first status check after `fail` (relative
    // to it), as a bench run saw them; the daemons beyond the list notice over `closeSpread`.
    std::vector<Micros> firstChecks;
    Micros horizon = 120 * kSecond; // simulated time after `fail`
    Micros binWidth = 100 * kMs;
    std::uint64_t seed = 627;
};

// Per bin (from `fail - lead` on): arrivals at each service.
struct Bin
{
    std::uint32_t status = 0;
    std::uint32_t address = 0;
    std::uint32_t connect = 0;
    std::uint32_t login = 0;
    std::uint32_t query = 0;
    std::uint32_t heartbeat = 0;
};

// One daemon's trace, kept when asked for (the test reads it).
enum class Event
{
    Noticed,
    StatusSent,
    ReconnectWait, // value: the wait in seconds
    AddressSent,
    Connected,
    ConnectFailed,
    LoginSent,
    QuerySent,
    QueryAnswered,
    HeartbeatSent
};
struct TraceItem
{
    Micros at;
    Event event;
    int value;
};

constexpr Micros kNotFailed = -2;

struct Result
{
    Micros lead = 5 * kSecond; // bins start this long before `fail`
    std::vector<Bin> bins;
    // Per daemon whose connection was closed: its first query answered after `fail` (relative
    // to it), -1 if none within the horizon; kNotFailed for a daemon that kept its connection.
    std::vector<Micros> recovered;
    std::vector<TraceItem> trace; // of daemon `traceDaemon`, if any
};

Result simulate(const Scenario& scenario, const Environment& env, const Rules& rules = Rules(),
                int traceDaemon = -1);

// Nearest-rank percentile of the recovery times (s) of the daemons whose connection was closed;
// -1 if the daemon at that rank is not back within the horizon (or none was closed).
double recoveryPercentileS(const Result& result, double p);

} // namespace fleetmodel
