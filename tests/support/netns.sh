#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs one test in a network namespace of its own, with only the loopback device up, so that tests
# which bind the daemon's fixed service ports can run side by side and never reach another network.
set -euo pipefail
exec unshare -n bash -c 'ip link set lo up && exec "$@"' netns "$@"
