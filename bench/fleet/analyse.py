#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads what the fleet bench recorded (bench/fleet/run.sh) and writes the results.

Inputs in the raw folder: marks (epoch ms, scenario, event), sandbox.log (every request and frame
the services saw, stamped hh:mm:ss.zzz UTC), apps.log (what the daemons told their main
applications, and the daemons' descriptor and thread counts once a second), count.

  analyse.py --raw DIR --answered-since MS     daemons whose query was answered since MS
  analyse.py --raw DIR --results DIR --model BIN [--quick]
"""
import argparse
import collections
import math
import os
import re
import subprocess
import sys

KINDS = ["status", "address", "connect", "login", "query", "heartbeat"]
BIN_MS = 100
LEAD_MS = 5000

LINE = re.compile(r"^\[(\d\d):(\d\d):(\d\d)\.(\d\d\d)\] sandbox: (.*)$")
PUSH = re.compile(r"^push  #(\d+) (.*)$")
USER = re.compile(r" user=(\d+) ")


def read_marks(raw):
    marks = []
    with open(os.path.join(raw, "marks")) as f:
        for line in f:
            parts = line.split()
            if len(parts) >= 3:
                marks.append((int(parts[0]), parts[1], parts[2]))
    return marks


def sandbox_lines(raw, reference_ms):
    """The sandbox's lines as (epoch ms, text); its stamps are times of day (UTC), placed on the
    day of the reference, or the next one when they lie more than 12 hours before it."""
    day = reference_ms - reference_ms % 86400000
    with open(os.path.join(raw, "sandbox.log"), errors="replace") as f:
        for line in f:
            m = LINE.match(line)
            if not m:
                continue
            h, mi, sec, ms, text = m.groups()
            t = day + ((int(h) * 60 + int(mi)) * 60 + int(sec)) * 1000 + int(ms)
            if t < reference_ms - 43200000:
                t += 86400000
            yield t, text


def read_sandbox(raw, reference_ms):
    """Events (ms, kind, user or None) seen by the services, in order."""
    events = []
    conn_user = {}
    pending_query = set()
    for t, text in sandbox_lines(raw, reference_ms):
        if text.startswith("ctl   "):
            events.append((t, "ctl", text[6:]))
        elif text.startswith("http  GET /app/1.0/linux/5.0.1/check/sso"):
            events.append((t, "status", None))
        elif text.startswith("http  POST /get_tcp_server"):
            events.append((t, "address", None))
        else:
            p = PUSH.match(text)
            if not p:
                continue
            conn, rest = int(p.group(1)), p.group(2)
            if rest == "client connected":
                events.append((t, "connect", None))
            elif rest.startswith("HOOS login"):
                u = USER.search(rest)
                user = int(u.group(1)) - 100000 if u else None
                conn_user[conn] = user
                events.append((t, "login", user))
            elif rest.startswith("IOOS request#0") and "(query)" in rest:
                pending_query.add(conn)
                events.append((t, "query", conn_user.get(conn)))
            elif rest.startswith("answer") and conn in pending_query:
                pending_query.discard(conn)
                events.append((t, "answered", conn_user.get(conn)))
            elif rest.startswith("GOOS"):
                events.append((t, "heartbeat", conn_user.get(conn)))
    return events


def mono_offset_ms(raw):
    """How far the monotonic clock is ahead of the wall clock, modulo one second."""
    with open(os.path.join(raw, "apps.log"), errors="replace") as f:
        for line in f:
            parts = line.split()
            if len(parts) == 4 and parts[1] == "clocks":
                return ((int(parts[3]) - int(parts[2])) // 1000) % 1000
    return 0


def wall_to_mono_us(raw):
    """Monotonic minus wall clock, in microseconds (from the clocks read together)."""
    with open(os.path.join(raw, "apps.log"), errors="replace") as f:
        for line in f:
            parts = line.split()
            if len(parts) == 4 and parts[1] == "clocks":
                return int(parts[3]) - int(parts[2])
    return None


def tick_args(raw, fail_ms):
    """The kernel's tick and the phase of its counter on the model's clock (whose zero is the
    whole wall-clock second 10 s before the failure's), from two samples of the tick counter and
    the monotonic clock; the model rounds the kernel's timers on them."""
    path = os.path.join(raw, "jiffies")
    offset = wall_to_mono_us(raw)
    if not os.path.exists(path) or offset is None:
        return []
    samples = [tuple(int(x) for x in line.split()[:2]) for line in open(path) if len(line.split()) >= 2]
    if len(samples) < 2:
        return []
    (n0, j0), (n1, j1) = samples[0], samples[-1]
    tick_ms = round(1000.0 / ((j1 - j0) / ((n1 - n0) / 1e9)))
    zero_wall_ms = fail_ms - fail_ms % 1000 - 10000
    zero_mono_ns = (zero_wall_ms * 1000 + offset) * 1000
    ticks_at_zero = j0 + (zero_mono_ns - n0) / (tick_ms * 1e6)
    phase_ms = (-(ticks_at_zero % 4096) * tick_ms) % (4096 * tick_ms)
    return ["--tick-ms", str(tick_ms), "--tick-phase-ms", f"{phase_ms:.3f}"]


def read_apps(raw):
    messages, procs = [], []
    with open(os.path.join(raw, "apps.log"), errors="replace") as f:
        for line in f:
            parts = line.rstrip("\n").split(" ", 3)
            if len(parts) < 3:
                continue
            t, kind = int(parts[0]), parts[1]
            if kind == "msg" and len(parts) == 4:
                messages.append((t, int(parts[2]), parts[3]))
            elif kind == "proc":
                procs.append((t, [int(x) for x in line.split()[2:]]))
    return messages, procs


def answered_since(raw, since):
    events = read_sandbox(raw, since)
    return len({u for t, k, u in events if k == "answered" and t >= since and u is not None})


def connection_receipts(raw, reference_ms):
    """Per user, their push connections in order: (made at, [times the daemon received
    something]): the login's and every request's answer, each heartbeat's echo."""
    conns, user_of = {}, {}
    for t, text in sandbox_lines(raw, reference_ms):
        p = PUSH.match(text)
        if not p:
            continue
        conn, rest = int(p.group(1)), p.group(2)
        if rest == "client connected":
            conns[conn] = (t, [])
        elif conn in conns and rest.startswith(("answer", "GOOS")):
            conns[conn][1].append(t)
        elif rest.startswith("HOOS login"):
            u = USER.search(rest)
            if u:
                user_of[conn] = int(u.group(1)) - 100000
    out = collections.defaultdict(list)
    for conn in sorted(conns):
        if conn in user_of:
            out[user_of[conn]].append(conns[conn])
    return out


def scenarios(marks, events):
    """name -> {event: ms (first), 'slices': [...]} in the order played. The moments the push
    server closed, opened and dropped are taken from the sandbox's own log of the commands."""
    out = collections.OrderedDict()
    for t, name, event in marks:
        if name == "bench":
            continue
        s = out.setdefault(name, {"slices": []})
        if event != "slice":
            s.setdefault(event, t)
    ctl = [(t, text) for t, k, text in events if k == "ctl"]
    for name, s in out.items():
        if "begin" not in s or "end" not in s:
            continue
        mine = [(t, text) for t, text in ctl if s["begin"] <= t <= s["end"]]
        closed = [t for t, text in mine if text.startswith("push listen=0")]
        opened = [t for t, text in mine if text.startswith("push listen=1")]
        slices = [t for t, text in mine if text.startswith("drop count=")]
        back = [t for t, text in mine if text.startswith("sso mode=ok")]
        if closed:
            s["fail"] = closed[0]
        if opened:
            s["restore"] = opened[0]
        if slices:
            s["slices"] = slices
            s["fail"] = slices[0]
        if back and name == "d-failing":
            s["status-back"] = back[0]
    return out


def percentile(values, p, total):
    """Nearest rank over `total` daemons; those missing count as not back (None)."""
    if total == 0:
        return None
    rank = max(1, math.ceil(p * total))
    v = sorted(values)
    return v[rank - 1] / 1000.0 if rank <= len(v) else None


def human(x):
    x = float(x)
    for div, unit in ((1e6, "M"), (1e3, "k")):
        if x >= div:
            v = x / div
            return f"{v:.2f}{unit}" if v < 10 else f"{v:.1f}{unit}" if v < 100 else f"{v:.0f}{unit}"
    return f"{x:.0f}"


def peak_cells(r, kinds):
    """Busiest second / busiest 100 ms as a rate, per service."""
    return [f"{human(r[k + '_peak_second'])} / {human(r[k + '_peak_bin_per_s'])}" for k in kinds]


def fmt(x, digits=1):
    return "-" if x is None else f"{x:.{digits}f}"


def measure(name, s, events, messages, count):
    fail, end = s["fail"], s["end"]
    start = fail - LEAD_MS
    nbins = (end - start) // BIN_MS + 1
    bins = [dict.fromkeys(KINDS, 0) for _ in range(nbins)]
    recovered = {}
    for t, k, u in events:
        if t < start or t > end:
            continue
        if k in KINDS:
            bins[(t - start) // BIN_MS][k] += 1
        if k == "answered" and u is not None and t >= fail and u not in recovered:
            recovered[u] = t - fail
    avatar = f"{name}.png"
    reached = {}
    for t, i, text in messages:
        if avatar in text and t >= fail and i not in reached:
            reached[i] = t - fail
    return bins, recovered, reached


def per_second(bins, lead_bins, kind, shift=0):
    """Counts per second from the failure on (bins before it dropped), the seconds starting
    `shift` bins after it."""
    out = []
    per = 1000 // BIN_MS
    # Whole seconds only, from the one that holds the failure.
    for b in range(lead_bins + shift - (per if shift else 0), len(bins) - per + 1, per):
        out.append(sum(x[kind] for x in bins[b:b + per]))
    return out


def grid_shift(fail_ms, offset):
    """The daemons' timers land on the 500 ms grid of the monotonic clock (plus a few ms): the
    seconds of the comparison start midway between two grid points, so that no wave is cut in
    two by a second's edge. Returns the shift after the failure in bins."""
    grid = (-offset) % 500                      # wall-clock phase of the grid
    target = (grid + 250) % 500
    return round(((target - fail_ms % 1000) % 500) / BIN_MS) % (500 // BIN_MS)


def write_table(path, bins, recovered_at_bins=None, header_extra=""):
    with open(path, "w") as f:
        f.write("# t_s\t" + "\t".join(KINDS) + header_extra + "\n")
        for b, x in enumerate(bins):
            t = (b * BIN_MS - LEAD_MS) / 1000.0
            row = [f"{t:.3f}"] + [str(x[k]) for k in KINDS]
            if recovered_at_bins is not None:
                row.append(f"{recovered_at_bins[b]:.4f}")
            f.write("\t".join(row) + "\n")


def read_model_table(path):
    bins = []
    with open(path) as f:
        for line in f:
            if line.startswith("#"):
                continue
            parts = line.split()
            bins.append(dict(zip(KINDS, (int(x) for x in parts[1:7]))))
    return bins


def run_model(model, args):
    out = subprocess.run([model] + args, check=True, capture_output=True, text=True).stdout
    return dict(kv.split("=") for kv in out.split())


def model_args(name, s, count, offset, raw=None):
    """The model's replay of one measured scenario."""
    kind, down = "restart", 0.0
    extra = []
    if name.startswith("b-"):
        kind, down = "blackhole", (s["restore"] - s["fail"]) / 1000.0
        extra = ["--horizon", "140"]
    elif name == "c":
        kind = "rolling"
        extra = ["--horizon", "120"]
    else:
        down = (s["restore"] - s["fail"]) / 1000.0
        extra = ["--horizon", str(max(60, int(down) + 60))]
    if name == "d-slow":
        extra += ["--status-slow", "3"]
    if name == "d-failing":
        back = (s.get("status-back", s["fail"] + 30000) - s["fail"]) / 1000.0
        extra += ["--status-fail", f"0:{back}"]
    # The bench machine: one monotonic clock for all daemons (Qt rounds their timers on it),
    # timers firing 5 ms late, and the closed connections noticed over 0.75 ms per daemon (150 ms
    # for 200: the daemons wake at once on two processors).
    bench = ["--mono-offset-ms", str(offset), "--timer-ms", "5",
             "--close-spread-ms", f"{0.75 * count:g}"] + (tick_args(raw, s["fail"]) if raw else [])
    return ["--kind", kind, "--count", str(count), "--down", f"{down:.3f}",
            "--fail-ms", str(s["fail"] % 1000)] + bench + extra


def agreement(measured, modelled, lead_bins, shift=0):
    """Per kind: arrivals in a different second than measured, as a share of all (half the L1
    distance), and the busiest second of both."""
    out = {}
    for k in KINDS:
        m = per_second(measured, lead_bins, k, shift)
        s = per_second(modelled, lead_bins, k, shift)
        n = min(len(m), len(s))
        m, s = m[:n], s[:n]
        total = sum(m)
        if total == 0:
            continue
        moved = sum(abs(a - b) for a, b in zip(m, s)) / 2
        out[k] = (total, sum(s), moved / total, max(m), max(s))
    return out


def gnuplot(script):
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--raw", required=True)
    ap.add_argument("--answered-since", type=int)
    ap.add_argument("--results")
    ap.add_argument("--model")
    ap.add_argument("--quick", action="store_true")
    ap.add_argument("--no-sweep", action="store_true", help="only the comparison with the model")
    a = ap.parse_args()
    if a.answered_since is not None:
        print(answered_since(a.raw, a.answered_since))
        return 0
    report(a)
    return 0


def report(a):
    raw, res = a.raw, a.results
    os.makedirs(res, exist_ok=True)
    for old in os.listdir(res):  # what an earlier run wrote
        if old.endswith((".tsv", ".svg", ".txt")) or old == "summary.md":
            os.remove(os.path.join(res, old))
    count = int(open(os.path.join(raw, "count")).read())
    marks = read_marks(raw)
    events = read_sandbox(raw, marks[0][0])
    messages, procs = read_apps(raw)
    sc = scenarios(marks, events)
    lead_bins = LEAD_MS // BIN_MS
    lines = []
    say = lines.append
    say(f"# Fleet bench: {count} daemons\n")
    say(f"Run of {os.popen('date -u -d @' + str(marks[0][0] // 1000) + ' +%Y-%m-%dT%H:%MZ').read().strip()}"
        ", one 2-core machine shared with other work; daemons, sandbox and the main-application "
        "stand-in all on it.\n")
    say("## Measured\n")
    say("Every service cell: requests in the busiest whole second (seconds counted from the "
        "failure) / in the busiest 100 ms, as a rate per second. Recovery: time from the failure until 50 %, 99 % and 100 % of the "
        "daemons whose connection was closed had their query answered again. Avatar: main "
        "applications that got the change queued at the failure, and when the last one got it.\n")
    say("| scenario | status | address | connect | login | query | heartbeat | recovery p50 / p99 / p100 (s) | avatar |")
    say("|---|---|---|---|---|---|---|---|---|")
    measured = {}
    for name, s in sc.items():
        if "fail" not in s or "end" not in s:
            continue
        bins, rec, reached = measure(name, s, events, messages, count)
        measured[name] = (bins, rec, reached)
        closed = count if not name.startswith("b-") else len(rec)
        cum, done = [], 0
        times = sorted(rec.values())
        for b in range(len(bins)):
            edge = b * BIN_MS - LEAD_MS + BIN_MS
            while done < len(times) and times[done] < edge:
                done += 1
            cum.append(done / count)
        write_table(os.path.join(res, f"measured-{name}.tsv"), bins, cum, "\tanswered_share")
        peaks = []
        for k in KINDS:
            pb = max(x[k] for x in bins) * (1000 // BIN_MS)
            ps = max(per_second(bins, lead_bins, k) or [0])
            peaks.append(f"{ps} / {pb}")
        if name.startswith("b-"):
            # Only the daemons whose connection the kernel failed come back: recovery over them.
            recovery = f"{len(rec)} reconnected: " + " / ".join(
                fmt(percentile(list(rec.values()), p, len(rec))) for p in (0.5, 0.99, 1.0))
        else:
            recovery = " / ".join(fmt(percentile(list(rec.values()), p, closed)) for p in (0.5, 0.99, 1.0))
        last = max(reached.values()) / 1000 if reached else None
        say(f"| {name} | " + " | ".join(peaks) + f" | {recovery} | {len(reached)}/{count}, last {fmt(last)} s |")
    # Descriptors and threads over the whole run, once the fleet was up.
    settled = [p for p in procs if p[1][0] == count]
    if settled:
        first, last = settled[0][1], settled[-1][1]
        fd_lo = min(p[1][1] for p in settled)
        fd_hi = max(p[1][2] for p in settled)
        th_lo = min(p[1][4] for p in settled)
        th_hi = max(p[1][5] for p in settled)
        say("")
        say(f"Descriptors and threads of the {count} daemons, sampled once a second over "
            f"{(settled[-1][0] - settled[0][0]) // 1000} s with the whole fleet up: descriptors "
            f"per daemon {fd_lo}..{fd_hi} (sum {first[3]} at the first sample, {last[3]} at the "
            f"last), threads per daemon {th_lo}..{th_hi} (sum {first[6]} -> {last[6]}).")
        with open(os.path.join(res, "measured-proc.tsv"), "w") as f:
            f.write("# t_s\talive\tfd_min\tfd_max\tfd_sum\tthreads_min\tthreads_max\tthreads_sum\n")
            for t, v in procs:
                f.write(f"{(t - marks[0][0]) / 1000:.1f}\t" + "\t".join(map(str, v)) + "\n")
    if not a.model:
        print("\n".join(lines))
        return
    model_section(a, res, count, sc, measured, lead_bins, say, events)
    with open(os.path.join(res, "summary.md"), "w") as f:
        f.write("\n".join(lines) + "\n")
    print("\n".join(lines))


def model_section(a, res, count, sc, measured, lead_bins, say, events):
    model = a.model
    offset = mono_offset_ms(a.raw)
    receipts = connection_receipts(a.raw, read_marks(a.raw)[0][0])
    say("\n## The model against the measurement\n")
    say(f"The model replays each scenario for {count} daemons on one machine: the failure at "
        "the same sub-second phase of the wall clock (the back-off reads whole seconds), Qt's "
        f"rounding of the timers on the machine's monotonic clock (measured: {offset} ms ahead "
        "of the wall clock, modulo 1 s), timers 5 ms late, a slow status service's answers "
        "held on its own coarse timer, the kernel's keepalive and retransmission "
        "timers rounded by its timer wheel on the machine's tick counter; and as measured: when "
        "each daemon noticed a restart (its first status check), the closed connections of a "
        f"rolling restart noticed over {0.75 * count:g} ms (0.75 ms a daemon), the heartbeats "
        "of each daemon before a silent outage and everything it received on its connection "
        "(from which the keepalive timer is replayed). Per service: the share of the "
        "measured arrivals that the model puts into another second "
        "(half the L1 distance of the per-second counts; 0 % is a perfect match), and the "
        "busiest second measured / modelled. The seconds start midway between two points of "
        "the 500 ms grid on which the daemons' timers land.\n")
    say("| scenario | " + " | ".join(KINDS) + " | recovery p50 / p99 / p100 (s) measured | modelled |")
    say("|---|" + "---|" * len(KINDS) + "---|---|")
    for name, (bins, rec, _) in measured.items():
        s = sc[name]
        table = os.path.join(res, f"model-{name}.tsv")
        extra = []
        if name.startswith("b-"):
            # The heartbeat phases as they were: each daemon's last heartbeat before the hole, or
            # for a connection without one yet, the start of its heartbeat timer (1 s after the
            # query's answer); and the last thing it received (that heartbeat's echo, or the
            # answer). The model derives the keepalive probes from them.
            beat, answer = {}, {}
            for t, k, u in events:
                if u is None or t >= s["fail"]:
                    continue
                if k == "heartbeat":
                    beat[u] = t
                elif k == "answered":
                    answer[u] = t
            # And everything each daemon received on that connection since it was made, from
            # which the model replays the kernel's keepalive timer.
            hb = os.path.join(res, f"model-{name}-heartbeats.txt")
            rc = os.path.join(res, f"model-{name}-receipts.txt")
            with open(hb, "w") as f, open(rc, "w") as g:
                for u in sorted(set(beat) | set(answer)):
                    b, q = beat.get(u), answer.get(u)
                    if b is not None and (q is None or b > q):
                        start, received = b, b + 2
                    else:
                        start, received = q + 1000, q
                    f.write(f"{(start - s['fail']) / 1000.0:.3f} "
                            f"{(received - s['fail']) / 1000.0:.3f}\n")
                    made = [c for c in receipts.get(u, []) if c[0] < s["fail"]]
                    times = [made[-1][0]] + [t for t in made[-1][1] if t < s["fail"]] if made else []
                    g.write(" ".join(f"{(t - s['fail']) / 1000.0:.3f}" for t in times) + "\n")
            extra = ["--heartbeats", hb, "--receipts", rc]
        elif name != "c":
            # When each daemon noticed the closed connection, as its first status check shows:
            # two hundred daemons waking on two processors are too uneven a start to guess, and
            # the back-off's whole seconds and the timers' rounding tell apart a few milliseconds.
            first = [t for t, k, _ in events if k == "status" and s["fail"] <= t < s["fail"] + 2000]
            checks = os.path.join(res, f"model-{name}-first-checks.txt")
            with open(checks, "w") as f:
                for t in first[:count]:
                    f.write(f"{(t - s['fail']) / 1000.0:.3f}\n")
            extra = ["--first-checks", checks]
        summary = run_model(model, model_args(name, s, count, offset, a.raw) + extra
                            + ["--table", table])
        modelled = read_model_table(table)
        ag = agreement(bins, modelled, lead_bins, grid_shift(s["fail"], offset))
        cells = []
        for k in KINDS:
            if k not in ag:
                cells.append("-")
                continue
            total, mtotal, moved, pm, ps = ag[k]
            cells.append(f"{moved * 100:.0f} % ({pm}/{ps})")
        closed = count if not name.startswith("b-") else len(rec)
        meas = " / ".join(fmt(percentile(list(rec.values()), p, closed)) for p in (0.5, 0.99, 1.0))
        mod = " / ".join(fmt(float(summary[f"recovery_p{p}"])) if float(summary[f"recovery_p{p}"]) >= 0
                         else "-" for p in ("50", "99", "100"))
        if name.startswith("b-"):  # of the daemons whose connection failed
            meas = f"{closed} failed: {meas}"
            mod = f"{summary['closed']} failed: {mod}"
        say(f"| {name} | " + " | ".join(cells) + f" | {meas} | {mod} |")
        busy = [b for b, x in enumerate(bins) if any(x[k] for k in KINDS[:5])]
        last = (busy[-1] * BIN_MS - LEAD_MS) / 1000.0 if busy else 10
        chart(res, name, count, last + 3)

    if a.no_sweep:
        return
    # The fleet sizes the bench cannot reach.
    sizes = [10**4, 10**5] if a.quick else [10**4, 10**5, 10**6, 10**7]
    say("\n## Modelled for large fleets\n")
    say("Each desktop has its own processor and its own clock (Qt rounds the daemon's timers "
        "on it); the services answer in 3 ms (status, address) and 2 ms (push) whatever the "
        "load, so these are the arrivals the services must take, not what a saturated service "
        "would let through. Every service cell: requests in the busiest second / the busiest "
        "100 ms as a rate per second. Recovery p50 / p99 / p100 in seconds from the failure; for "
        "a silent outage (b), of the daemons whose connection the kernel failed.\n")
    say("| scenario | daemons | status | address | connect | login | query | recovery (s) |")
    say("|---|---|---|---|---|---|---|---|")
    plays = [("a-0", ["--kind", "restart", "--down", "0"]),
             ("a-10", ["--kind", "restart", "--down", "10"]),
             ("a-30", ["--kind", "restart", "--down", "30"]),
             ("a-60", ["--kind", "restart", "--down", "60", "--horizon", "120"]),
             ("b-10", ["--kind", "blackhole", "--down", "10", "--horizon", "140"]),
             ("b-30", ["--kind", "blackhole", "--down", "30", "--horizon", "140"]),
             ("b-60", ["--kind", "blackhole", "--down", "60", "--horizon", "140"]),
             ("c", ["--kind", "rolling", "--horizon", "120"]),
             ("d-slow", ["--kind", "restart", "--down", "10", "--status-slow", "3"]),
             ("d-failing", ["--kind", "restart", "--down", "10", "--status-fail", "0:30"])]
    big = {}
    for name, args in plays:
        for n in sizes:
            if n >= 10**7 and name not in ("a-10", "c"):
                continue
            r = run_model(model, args + ["--count", str(n), "--fail-ms", "500", "--own-clocks", "1",
                                        "--tick-ms", "4"])
            big[(name, n)] = r
            rec = " / ".join(fmt(float(r[f"recovery_p{p}"])) if float(r[f"recovery_p{p}"]) >= 0 else "-"
                             for p in ("50", "99", "100"))
            if name.startswith("b-"):  # only the daemons whose connection failed come back
                rec = f"{int(r['closed']) / n * 100:.0f} % failed: {rec}"
            say(f"| {name} | {n:,} | " + " | ".join(peak_cells(r, KINDS[:5])) + f" | {rec} |")

    # The spread of the moment each daemon notices the failure.
    n = 10**5 if a.quick else 10**6
    say(f"\n## Spread at the moment of failure ({n:,} daemons, restart with the port refusing 10 s)\n")
    say("The daemons notice the closed connection spread evenly over S seconds (a server that "
        "closes its connections over S seconds, or load balancers that notice at different "
        "times). Requests in the busiest second / the busiest 100 ms as a rate.\n")
    say("| spread S (s) | status | address | connect | login | query | recovery p50 / p99 / p100 (s) |")
    say("|---|---|---|---|---|---|---|")
    with open(os.path.join(res, "model-spread.tsv"), "w") as f:
        f.write("# spread_s\tstatus\taddress\tconnect\tlogin\tquery\tp50\tp99\tp100\n")
        for spread in (0, 0.5, 1, 2, 5, 10, 30, 60):
            r = run_model(model, ["--kind", "restart", "--down", "10", "--count", str(n),
                                  "--fail-ms", "500", "--spread", str(spread), "--horizon", "150",
                                  "--own-clocks", "1"])
            rec = [r[f"recovery_p{p}"] for p in ("50", "99", "100")]
            say(f"| {spread} | " + " | ".join(peak_cells(r, KINDS[:5])) + " | " + " / ".join(
                fmt(float(x)) if float(x) >= 0 else "-" for x in rec) + " |")
            f.write(f"{spread}\t" + "\t".join(r[k + "_peak_bin_per_s"] for k in KINDS[:5]) + "\t"
                    + "\t".join(rec) + "\n")

    say(f"\n## Admission limit at the push server ({n:,} daemons, restart with the port refusing 10 s)\n")
    say("The push server accepts at most R new connections a second and refuses the rest, which "
        "then take the daemon's back-off. Requests in the busiest second / the busiest 100 ms as a "
        "rate.\n")
    say("| admitted per second | status | address | connect | login | query | recovery p50 / p99 / p100 (s) |")
    say("|---|---|---|---|---|---|---|")
    for admit in (0, n // 2, n // 5, n // 10, n // 20):
        r = run_model(model, ["--kind", "restart", "--down", "10", "--count", str(n),
                              "--fail-ms", "500", "--admit", str(admit), "--horizon", "300",
                              "--own-clocks", "1"])
        cells = peak_cells(r, KINDS[:5])
        rec = " / ".join(fmt(float(r[f"recovery_p{p}"])) if float(r[f"recovery_p{p}"]) >= 0 else "-"
                         for p in ("50", "99", "100"))
        say(f"| {'none' if admit == 0 else f'{admit:,}'} | " + " | ".join(cells) + f" | {rec} |")

    # Waves of a long outage for the page: 10^6 daemons, port refusing or black-holed 60 s.
    waves = [("a-60", ["--kind", "restart"], "push port refusing for 60 s"),
             ("b-60", ["--kind", "blackhole", "--tick-ms", "4"], "push port black-holed for 60 s")]
    for name, kind, what in waves:
        table = os.path.join(res, f"model-1e6-{name}.tsv")
        run_model(model, kind + ["--down", "60", "--count", str(n), "--fail-ms", "500",
                                 "--horizon", "100", "--own-clocks", "1", "--table", table])
        gnuplot(f"""
set terminal svg size 900,420 dynamic font "sans,11"
set output "{res}/model-1e6-{name}.svg"
set title "Model: {n:,} daemons, {what} (requests per second, 100 ms bins)"
set xlabel "seconds since the push server failed"
set ylabel "requests per second"
set format y "%.0s%c"
set key right top
plot "{table}" using 1:($2*10) with steps title "status checks", \\
     "" using 1:($3*10) with steps title "address look-ups", \\
     "" using 1:($4*10) with steps title "push connections", \\
     "" using 1:($6*10) with steps title "queries"
""")


def chart(res, name, count, xmax):
    m = os.path.join(res, f"measured-{name}.tsv")
    s = os.path.join(res, f"model-{name}.tsv")
    gnuplot(f"""
set terminal svg size 900,520 dynamic font "sans,11"
set output "{res}/{name}.svg"
set multiplot layout 2,1 title "{name}: {count} daemons, arrivals per 100 ms (lines: measured, points: model)"
set xrange [-2:{xmax}]
set xlabel "seconds since the failure"
set key right top
set ylabel "status / address"
plot "{m}" using 1:2 with steps lc 1 title "status checks", \\
     "{s}" using ($1+0.05):($2>0?$2:1/0) with points pt 7 ps 0.3 lc 1 notitle, \\
     "{m}" using 1:3 with steps lc 2 title "address look-ups", \\
     "{s}" using ($1+0.05):($3>0?$3:1/0) with points pt 7 ps 0.3 lc 2 notitle
set ylabel "push"
set y2label "fleet answered"
set y2range [0:1.05]
set y2tics
set ytics nomirror
plot "{m}" using 1:4 with steps lc 3 title "connections", \\
     "{m}" using 1:6 with steps lc 4 title "queries", \\
     "{s}" using ($1+0.05):($6>0?$6:1/0) with points pt 7 ps 0.3 lc 4 notitle, \\
     "{m}" using 1:7 with steps lc 5 title "heartbeats", \\
     "{s}" using ($1+0.05):($7>0?$7:1/0) with points pt 7 ps 0.3 lc 5 notitle, \\
     "{m}" using 1:8 axes x1y2 with lines lc 7 title "share answered"
unset multiplot
""")


if __name__ == "__main__":
    sys.exit(main())
