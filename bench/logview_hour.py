#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How fast d627-logview reads one hour of a busy daemon log at threshold -1.

Makes the hour from a real log (by default the one the logview tests keep of a dropped and
re-made connection at threshold -1): its lines are repeated back to back, each copy shifted by
the story's length, until an hour is full; then times d627-logview on it (best of three) and
prints lines per second.

    bench/logview_hour.py [build-dir] [source.log]
    HOURS=10 bench/logview_hour.py ...   ten hours in one file, for a steadier lines/s
"""
import datetime
import glob
import os
import re
import subprocess
import sys
import tempfile
import time

build = sys.argv[1] if len(sys.argv) > 1 else "build"
sources = sys.argv[2:] or glob.glob(
    os.path.join(build, "test-logs/tst_logview/stories-drop_and_reconnection_tracing/*.log"))
if not sources:
    sys.exit("no source log: run `ctest -R tst_logview` first, or name a log of threshold -1")

stamp = re.compile(rb"^(\[\d+\])(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})(.*)$", re.S)
lines = []
for line in open(sources[0], "rb").read().split(b"\n"):
    match = stamp.match(line)
    if match:
        at = datetime.datetime.strptime(match.group(2).decode(), "%Y-%m-%d %H:%M:%S.%f")
        lines.append((match.group(1), at, match.group(3)))
    elif lines and line and not line.endswith(b"!!!"):
        lines[-1] = (lines[-1][0], lines[-1][1], lines[-1][2] + b"\n" + line)
start, end = lines[0][1], max(at for _, at, _ in lines)
story = end - start + datetime.timedelta(seconds=1)

out = [b"1!!!"]
shift = datetime.timedelta(0)
hours = float(os.environ.get("HOURS", "1"))
while shift < datetime.timedelta(hours=hours):
    for thread, at, text in lines:
        out.append(thread + (at + shift).strftime("%Y-%m-%d %H:%M:%S.%f")[:-3].encode() + text)
    shift += story
folder = tempfile.mkdtemp()
path = os.path.join(folder, start.strftime("%m%d_%H%M%S") + "_4242_627.log")
with open(path, "wb") as f:
    f.write(b"\n".join(out) + b"\n")
count = len(out) - 1

best = None
for _ in range(3):
    began = time.perf_counter()
    result = subprocess.run([os.path.join(build, "bin/d627-logview"), "--json", path],
                            stdout=subprocess.DEVNULL, check=True)
    took = time.perf_counter() - began
    best = took if best is None else min(best, took)
print("%g hour(s) at threshold -1: %d lines, %.1f MB, %d copies of a %.1f s story" %
      (hours, count, os.path.getsize(path) / 1e6, len(out) // len(lines), story.total_seconds()))
print("d627-logview --json: %.3f s, %.0f lines/s (best of 3)" % (best, count / best))
os.remove(path)
os.rmdir(folder)
