#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs one test in a network namespace of its own, with only the loopback device up, so that tests
# which bind the daemon's fixed service ports can run side by side and never reach another network.
# D627_NETNS names that namespace for the test (the only place where tests make network faults).
#
# Real-link profile, optional: D627_LINK_MTU=1500 gives loopback an Ethernet MTU (1448-byte TCP
# segments); D627_LINK_RATE=256kbit caps it with a token bucket (burst D627_LINK_BURST, default
# two segments, queue up to D627_LINK_LATENCY, default 2s).
set -euo pipefail
# shellcheck disable=SC2016  # expanded by the shell inside the namespace
exec unshare -n bash -c '
set -e
ip link set lo up
if [ -n "${D627_LINK_MTU:-}" ]; then
    ip link set lo mtu "$D627_LINK_MTU"
fi
if [ -n "${D627_LINK_RATE:-}" ]; then
    mtu=$(ip -o link show lo | sed -n "s/.* mtu \([0-9]*\).*/\1/p")
    tc qdisc add dev lo root tbf rate "$D627_LINK_RATE" burst "${D627_LINK_BURST:-$((2 * mtu))}" \
        latency "${D627_LINK_LATENCY:-2s}"
fi
D627_NETNS=$(readlink /proc/self/ns/net)
export D627_NETNS
exec "$@"' netns "$@"
