// SPDX-License-Identifier: Apache-2.0
#include "pushservices.h"

#include <QtTest>

MsgClientTimes fastTimes(int stepMs)
{
    MsgClientTimes times;
    times.stepMs = stepMs;
    times.netErrorMs = 100;
    times.socketWaitMs = 5000;
    times.frameCompleteMs = 300;
    times.backoffSecondMs = 10;
    return times;
}

QByteArray addressAnswer(const QStringList& servers)
{
    const QString list = servers.isEmpty() ? QString() : "\"" + servers.join("\",\"") + "\"";
    return R"({"state":1,"data":{"server":[)" + list.toUtf8() + "]}}";
}

bool PushServices::start()
{
    if (!push.listen(0) || !http.listen(0))
        return false;
    addressBody = addressAnswer({QString::fromLatin1(push.address())});
    http.route(kAddress, [this](const HttpStubRequest&) {
        if (addressFailures-- > 0)
            return HttpStubResponse::json("unavailable", 503);
        return HttpStubResponse::json(addressBody);
    });
    http.route(kSso, [this](const HttpStubRequest&) {
        ++m_statusChecks;
        return sso;
    });
    return true;
}

std::unique_ptr<MsgClient> PushServices::client(const MsgClientTimes& times)
{
    std::unique_ptr<MsgClient> client(new MsgClient(nullptr, times));
    client->setServiceUrls(http.baseUrl() + kAddress, http.baseUrl() + kSso);
    return client;
}

std::unique_ptr<MsgClient> PushServices::running(const MsgClientTimes& times)
{
    std::unique_ptr<MsgClient> started = client(times);
    [&] { QTRY_COMPARE_WITH_TIMEOUT(started->process(), 4, 10000); }();
    return started;
}

int PushServices::requestsTo(const QByteArray& path) const
{
    int count = 0;
    for (const HttpStubRequest& request : http.requests())
        count += request.path == path ? 1 : 0;
    return count;
}

QList<PushFrame> PushServices::frames(bool (PushFrame::*test)() const) const
{
    QList<PushFrame> result;
    for (const PushFrame& frame : push.frames()) {
        if ((frame.*test)())
            result.append(frame);
    }
    return result;
}
