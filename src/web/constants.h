#pragma once
// SPDX-License-Identifier: Apache-2.0

// Numbers of the web services that the layers above share.

// Request method codes of CRequestHttps::SendRequest. Code 2 is left unassigned on purpose.
constexpr int kHttpGet = 0;
constexpr int kHttpPost = 1;
constexpr int kHttpHead = 3;   // the five-argument overload only
constexpr int kHttpDelete = 4; // the five-argument overload only

// The one HTTP status that counts as success.
constexpr int kHttpStatusOk = 200;

// What CRequestHttps::SendRequest returns when its wait was abandoned through Abort().
constexpr int kRequestAbandoned = 1;
