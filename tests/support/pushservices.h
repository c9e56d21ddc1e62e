#pragma once

// The push server and the two HTTP services of a MsgClient, all local stand-ins on 127.0.0.1
// ports picked by the system, and clients wired to them with scaled-down intervals.

#include "core/data.h"
#include "core/datacenter.h"
#include "httpstub.h"
#include "push/client.h"
#include "pushstub.h"

#include <QStringList>
#include <QtTest>
#include <memory>

// The login record with a user id and these cookies; the logout record; the pending membership.
inline void setLogin(const QMap<QString, QString>& cookies)
{
    CLoginInfor info;
    info.cookies = cookies;
    info.userId = "4242";
    DataCenter::getInstance()->SetLoginInfor(info);
}
inline CLogoutInfor logoutRecord()
{
    CLogoutInfor info;
    DataCenter::getInstance()->GetLogoutInfor(info);
    return info;
}
inline QPair<int, qint64> vipInfor()
{
    int level = 0;
    qint64 expire = 0;
    DataCenter::getInstance()->GetVipInfor(level, expire);
    return {level, expire};
}

class PushServices
{
public:
    static inline const QByteArray kAddressPath = "/get_tcp_server";
    static inline const QByteArray kSsoPath = "/app/1.0/linux/5.0.1/check/sso";
    static inline const QByteArray kSsoValid = R"({"state":0,"message":""})";
    static inline const QByteArray kSsoKicked = R"({"state":1,"message":"kicked"})";

    // Steps, checks and back-off seconds in milliseconds; the heartbeat keeps its production
    // period unless a test is about it, so that a slow echo never sets off its watchdog.
    static MsgClientTimes fastTimes()
    {
        MsgClientTimes times;
        times.stepMs = 20;
        times.netErrorMs = 100;
        times.socketWaitMs = 5000;
        times.backoffSecondMs = 10;
        return times;
    }
    // A client whose process never gets past its first scheduled step within a test.
    static MsgClientTimes idleTimes()
    {
        MsgClientTimes times = fastTimes();
        times.stepMs = 3600 * 1000;
        return times;
    }
    static QByteArray addressAnswer(const QStringList& servers)
    {
        const QString list = servers.isEmpty() ? QString() : "\"" + servers.join("\",\"") + "\"";
        return R"({"state":1,"data":{"server":[)" + list.toUtf8() + "]}}";
    }

    // Answers: the address service fails with 503 `addressFailures` times, then gives
    // `addressBody` (this push server by default); the status service gives `sso`.
    int addressFailures = 0;
    QByteArray addressBody;
    HttpStubResponse sso = HttpStubResponse::json(kSsoValid);
    HttpStub http;
    PushStub push;

    bool start()
    {
        if (!push.listen(0) || !http.listen(0))
            return false;
        addressBody = addressAnswer({QString::fromLatin1(push.address())});
        http.route(kAddressPath, [this](const HttpStubRequest&) {
            if (addressFailures-- > 0)
                return HttpStubResponse::json("unavailable", 503);
            return HttpStubResponse::json(addressBody);
        });
        http.route(kSsoPath, [this](const HttpStubRequest&) { return sso; });
        return true;
    }
    std::unique_ptr<MsgClient> client(const MsgClientTimes& times = fastTimes())
    {
        std::unique_ptr<MsgClient> client(new MsgClient(nullptr, times));
        client->setServiceUrls(http.baseUrl() + kAddressPath, http.baseUrl() + kSsoPath);
        return client;
    }
    // A client at its running step; a test that waits for it in vain has failed.
    std::unique_ptr<MsgClient> running(const MsgClientTimes& times = fastTimes())
    {
        std::unique_ptr<MsgClient> started = client(times);
        [&] { QTRY_COMPARE_WITH_TIMEOUT(started->process(), 4, 10000); }();
        return started;
    }
    int requestsTo(const QByteArray& path) const
    {
        int count = 0;
        for (const HttpStubRequest& request : http.requests())
            count += request.path == path ? 1 : 0;
        return count;
    }
    QList<PushFrame> frames(bool (PushFrame::*test)() const) const
    {
        QList<PushFrame> result;
        for (const PushFrame& frame : push.frames()) {
            if ((frame.*test)())
                result.append(frame);
        }
        return result;
    }
};
