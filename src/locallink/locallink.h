#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QtGlobal>

// What both ends of the local link must agree on: the name the daemon listens under and the
// check that the other end belongs to the same user. The daemon's link layer and d627-mainapp
// both use it; it needs nothing of the daemon.

// The daemon's fixed identifier. It names the local server the main application connects to,
// and the single-instance lock file.
constexpr const char* kInstanceId = "90f5b5e6317542f5aa4beb51d0b9abca2631d3ee";

// The user id of the process at the other end of a connected local socket (its credentials
// at connect time), or -1 when the descriptor does not tell.
qint64 GetPeerUserId(qintptr socketDescriptor);
