#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QtGlobal>

// Numbers of the process core that the layers above share.

constexpr int kMsPerSecond = 1000;

// Levels of LogManager::Msg and Infor. A line is written when the threshold that the main
// application sends is not kLogOff and not greater than the line's level.
constexpr int kLogTrace = 0; // the scope tracers and a few trace lines
constexpr int kLogProgress = 1;
constexpr int kLogImportant = 3; // logout, main application gone, thread start, quit
constexpr int kLogError = 4;
constexpr int kLogOff = 0; // the threshold that writes nothing, until the first login message

// Bits of the "setting" value in the main application's login message.
constexpr int kSettingRcEnvironment = 1;
constexpr int kSettingHttps = 2;
constexpr int kSettingEncryptRequest = 4; // stored, read by nobody

// The main application's process id before it has announced one.
constexpr int kNoMainAppId = 0;

// A pending membership change of -1 and -1 means that there is nothing to send.
constexpr int kNoVipLevel = -1;
constexpr qint64 kNoExpireTime = -1;
