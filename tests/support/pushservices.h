#pragma once
// SPDX-License-Identifier: Apache-2.0

// The services a MsgClient talks to, all on free loopback ports: the push server and the two HTTP
// services (push-server address and login status). The address service fails `addressFailures`
// times (503), then gives `addressBody` (this push server by default); the status service gives
// `sso` and counts its answers.

#include "httpstub.h"
#include "push/client.h"
#include "pushstub.h"
#include "pushwire.h"

#include <QList>
#include <QStringList>
#include <atomic>
#include <memory>

inline const QByteArray kAddress = "/get_tcp_server";
inline const QByteArray kSso = "/app/1.0/linux/5.0.1/check/sso";
inline const QByteArray kSsoValid = R"({"state":0,"message":""})";
inline const QByteArray kSsoKicked = R"({"state":1,"message":"kicked"})";

// Steps, checks and back-off seconds in milliseconds; the heartbeat keeps its production period
// unless a test is about it, so that a slow echo never sets off its watchdog.
MsgClientTimes fastTimes(int stepMs = 20);
// An address-service answer with these "host:port" entries.
QByteArray addressAnswer(const QStringList& servers);

struct PushServices
{
    int addressFailures = 0;
    QByteArray addressBody;
    HttpStubResponse sso = HttpStubResponse::json(kSsoValid);
    HttpStub http;
    PushStub push;

    bool start();
    std::unique_ptr<MsgClient> client(const MsgClientTimes& times = fastTimes());
    // A client at its running step; a test that waits for it in vain has failed.
    std::unique_ptr<MsgClient> running(const MsgClientTimes& times = fastTimes());
    // Requests received on this path since the last http.clearRequests().
    int requestsTo(const QByteArray& path) const;
    // Status answers given since start(), cleared requests included.
    int statusChecks() const { return m_statusChecks; }
    QList<PushFrame> frames(bool (PushFrame::*test)() const) const;

private:
    std::atomic<int> m_statusChecks{0};
};
