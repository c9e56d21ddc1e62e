#pragma once
// SPDX-License-Identifier: Apache-2.0

// Numbers and tags of the worker threads that the layers above share.

// Type numbers of ThreadManager::CreateThread: single bits, so that IsExist can test a mask.
constexpr int kThreadClient = 1;        // ClientThread, the push connection
constexpr int kThreadNetworkDetect = 2; // CNetWorkDetectThread, requested by nobody
constexpr int kThreadMainAppDetect = 4; // CMainAppDetectThread, the watchdog

// The tags that the adapter gives them.
constexpr const char* kClientThreadTag = "LongConnect";
constexpr const char* kMainAppDetectTag = "MainAppDetect";
