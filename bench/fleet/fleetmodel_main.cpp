// SPDX-License-Identifier: Apache-2.0
// bench_fleet_model: runs the fleet model (fleetmodel.h) for one scenario and prints one summary
// line; --table writes the arrivals per bin.
//
//   bench_fleet_model --kind restart|blackhole|rolling --count N [--down S] [--fail-ms MS]
//       [--spread S] [--status-slow S] [--status-fail FROM:TO] [--admit R] [--horizon S]
//       [--bin-ms MS] [--seed X] [--jitter-ms MS] [--status-ms MS] [--address-ms MS]
//       [--push-ms MS] [--timer-ms MS] [--mono-offset-ms MS] [--exact-timers 0|1] [--own-clocks
//       0|1] [--tick-ms MS] [--tick-phase-ms MS]
//       [--heartbeats FILE] [--receipts FILE] [--first-checks FILE] [--trace DAEMON]
//       [--table FILE]
//
// Summary: count, the busiest bin of each service as requests per second, the busiest whole
// second (aligned on the failure) of each, the daemons whose connection was closed or failed, and
// their recovery (p50, p99, p100 in s; -1: not all back within the horizon).
#include "fleetmodel.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

using namespace fleetmodel;

namespace {

Micros seconds(const char* text)
{
    return Micros(std::atof(text) * double(kSecond));
}

Micros millis(const char* text)
{
    return Micros(std::atof(text) * double(kMs));
}

// Reads a file of times in seconds from the failure, one row per line; false if unreadable.
bool readTimeRows(const char* path, std::vector<std::vector<Micros>>& rows)
{
    std::ifstream in(path);
    if (!in)
        return false;
    for (std::string line; std::getline(in, line);) {
        std::vector<Micros> row;
        std::istringstream fields(line);
        for (double at = 0; fields >> at;)
            row.push_back(Micros(at * double(kSecond)));
        rows.push_back(std::move(row));
    }
    return true;
}

int usage()
{
    std::fprintf(stderr, "usage: bench_fleet_model --kind restart|blackhole|rolling --count N "
                         "[options, see the source]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    Scenario s;
    Environment env;
    std::string table;
    int traceDaemon = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (i + 1 >= argc)
            return usage();
        const char* value = argv[++i];
        if (name == "--kind") {
            const std::string kind = value;
            if (kind == "restart")
                s.kind = Kind::Restart;
            else if (kind == "blackhole")
                s.kind = Kind::Blackhole;
            else if (kind == "rolling")
                s.kind = Kind::Rolling;
            else
                return usage();
        } else if (name == "--count") {
            s.count = int(std::atof(value));
        } else if (name == "--down") {
            s.down = seconds(value);
        } else if (name == "--fail-ms") {
            s.fail = 10 * kSecond + millis(value);
        } else if (name == "--spread") {
            s.spread = seconds(value);
        } else if (name == "--status-slow") {
            s.statusSlow = seconds(value);
        } else if (name == "--status-fail") {
            const char* colon = std::strchr(value, ':');
            if (!colon)
                return usage();
            s.statusFailFrom = seconds(value);
            s.statusFailTo = seconds(colon + 1);
        } else if (name == "--admit") {
            s.admitPerSecond = std::atoi(value);
        } else if (name == "--horizon") {
            s.horizon = seconds(value);
        } else if (name == "--bin-ms") {
            s.binWidth = millis(value);
        } else if (name == "--seed") {
            s.seed = std::strtoull(value, nullptr, 10);
        } else if (name == "--jitter-ms") {
            env.jitter = millis(value);
        } else if (name == "--status-ms") {
            env.statusLatency = millis(value);
        } else if (name == "--address-ms") {
            env.addressLatency = millis(value);
        } else if (name == "--push-ms") {
            env.pushLatency = millis(value);
        } else if (name == "--timer-ms") {
            env.timerLate = millis(value);
        } else if (name == "--mono-offset-ms") {
            env.monoOffset = millis(value);
        } else if (name == "--backlog") {
            env.backlog = std::atoi(value);
        } else if (name == "--close-spread-ms") {
            env.closeSpread = millis(value);
        } else if (name == "--close-busy-ms") {
            env.closeBusy = millis(value);
        } else if (name == "--accept-per-ms") {
            env.acceptPerMs = std::atof(value);
        } else if (name == "--tick-ms") {
            env.tick = millis(value);
        } else if (name == "--tick-phase-ms") {
            env.tickPhase = millis(value);
        } else if (name == "--own-clocks") {
            env.ownClocks = std::atoi(value) != 0;
        } else if (name == "--exact-timers") {
            env.coarse = std::atoi(value) == 0;
        } else if (name == "--heartbeats") {
            // One line per daemon: its last heartbeat (or when its heartbeat timer started) and,
            // optionally, the last time it received anything.
            std::vector<std::vector<Micros>> rows;
            if (!readTimeRows(value, rows))
                return usage();
            for (const std::vector<Micros>& row : rows) {
                if (row.empty())
                    continue;
                s.lastHeartbeats.push_back(row[0]);
                if (row.size() >= 2)
                    s.lastReceived.push_back(row[1]);
            }
            if (!s.lastReceived.empty() && s.lastReceived.size() != s.lastHeartbeats.size())
                return usage();
        } else if (name == "--receipts") {
            // One line per daemon, in the order of --heartbeats: when its connection was made,
            // then when it received anything on it.
            if (!readTimeRows(value, s.receipts))
                return usage();
        } else if (name == "--first-checks") {
            // When the daemons sent their first status checks, in any order: they are taken from
            // the earliest on.
            std::vector<std::vector<Micros>> rows;
            if (!readTimeRows(value, rows))
                return usage();
            for (const std::vector<Micros>& row : rows)
                s.firstChecks.insert(s.firstChecks.end(), row.begin(), row.end());
            std::sort(s.firstChecks.begin(), s.firstChecks.end());
        } else if (name == "--trace") {
            traceDaemon = std::atoi(value);
        } else if (name == "--table") {
            table = value;
        } else {
            return usage();
        }
    }
    if (s.count < 1 || s.binWidth <= 0 || s.horizon <= 0)
        return usage();

    const Result r = simulate(s, env, Rules(), traceDaemon);
    static const char* const eventNames[] = {"noticed",        "status",         "wait",  "address",
                                             "connected",      "connect-failed", "login", "query",
                                             "query-answered", "heartbeat"};
    for (const TraceItem& item : r.trace)
        std::fprintf(stderr, "%.3f %s %d\n", double(item.at - s.fail) / double(kSecond),
                     eventNames[int(item.event)], item.value);

    if (!table.empty()) {
        FILE* out = std::fopen(table.c_str(), "w");
        if (!out)
            return 1;
        std::fprintf(out, "# t_s\tstatus\taddress\tconnect\tlogin\tquery\theartbeat\n");
        for (size_t b = 0; b < r.bins.size(); ++b) {
            const Bin& x = r.bins[b];
            const double t = double(Micros(b) * s.binWidth - r.lead) / double(kSecond);
            std::fprintf(out, "%.3f\t%u\t%u\t%u\t%u\t%u\t%u\n", t, x.status, x.address, x.connect,
                         x.login, x.query, x.heartbeat);
        }
        std::fclose(out);
    }

    // Busiest bin as a rate, and busiest second from the failure on.
    const double perSecond = double(kSecond) / double(s.binWidth);
    const size_t binsPerSecond = size_t(std::max<Micros>(1, kSecond / s.binWidth));
    const size_t first = size_t(r.lead / s.binWidth);
    auto peaks = [&](auto field, double& bin, double& second) {
        bin = 0;
        second = 0;
        for (const Bin& x : r.bins)
            bin = std::max(bin, double(field(x)) * perSecond);
        for (size_t b = first; b < r.bins.size(); b += binsPerSecond) {
            double sum = 0;
            for (size_t k = b; k < std::min(r.bins.size(), b + binsPerSecond); ++k)
                sum += double(field(r.bins[k]));
            second = std::max(second, sum);
        }
    };
    struct Field
    {
        const char* name;
        std::uint32_t Bin::*member;
    };
    const Field fields[] = {{"status", &Bin::status},   {"address", &Bin::address},
                            {"connect", &Bin::connect}, {"login", &Bin::login},
                            {"query", &Bin::query},     {"heartbeat", &Bin::heartbeat}};
    std::printf("count=%d", s.count);
    for (const Field& f : fields) {
        double bin = 0;
        double second = 0;
        peaks([&](const Bin& x) { return x.*(f.member); }, bin, second);
        std::printf(" %s_peak_bin_per_s=%.0f %s_peak_second=%.0f", f.name, bin, f.name, second);
    }
    const long closed = std::count_if(r.recovered.begin(), r.recovered.end(),
                                      [](Micros t) { return t != kNotFailed; });
    std::printf(" closed=%ld recovery_p50=%.2f recovery_p99=%.2f recovery_p100=%.2f\n", closed,
                recoveryPercentileS(r, 0.5), recoveryPercentileS(r, 0.99),
                recoveryPercentileS(r, 1.0));
    return 0;
}
