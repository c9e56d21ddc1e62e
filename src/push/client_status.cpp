// SPDX-License-Identifier: Apache-2.0
// MsgClient: the push-server address lookup, the login-status check with its reconnection
// back-off, the user-information parser, and the device's hardware address.
#include "client.h"
#include "client_p.h"
#include "core/data.h"
#include "core/datacenter.h"
#include "web/constants.h"
#include "web/requesthttps.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkInterface>
#include <QTimer>
#include <QVariant>

using msgclient_detail::logger;
using msgclient_detail::readLevel;
using msgclient_detail::truncateToInt64;

namespace {
// Reconnection back-off, in seconds: the first wait, and after a quiet spell longer than
// kBackoffQuietS; each wait in quick succession doubles, up to kBackoffMaxS.
constexpr int kBackoffFirstS = 1;
constexpr int kBackoffQuietS = 5;
constexpr int kBackoffMaxS = 10;
// The address service is asked twice before the lookup fails.
constexpr int kAddressAttempts = 2;
// An address entry is "host:port", the port in decimal.
constexpr int kHostPortParts = 2;
constexpr int kDecimal = 10;
// Each quick wait is this many times the one before.
constexpr int kBackoffFactor = 2;
// "size_used_percent" is a percentage; the record holds a fraction.
constexpr double kPercent = 100.0;
// "state" of a status answer that means the user was logged out.
constexpr int kStateLoggedOut = 1;
// The membership pair that marks a pending refresh for the main application.
constexpr int kVipRefreshLevel = 100;
constexpr qint64 kVipRefreshExpire = 100;

qint64 systemSeconds()
{
    return QDateTime::currentSecsSinceEpoch();
}

// Reconnection back-off, shared by the whole process. Only the client thread touches it.
MsgClient::Clock g_backoffClock = systemSeconds;
int g_lastTime = 0;
int g_delay = kBackoffFirstS;
} // namespace

QString getMacAddress(bool bremovecolon)
{
    QString address;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& iface : interfaces) {
        const QNetworkInterface::InterfaceFlags flags = iface.flags();
        if ((flags & QNetworkInterface::IsUp) && (flags & QNetworkInterface::IsRunning) &&
            !(flags & QNetworkInterface::IsLoopBack)) {
            address = iface.hardwareAddress();
            break;
        }
    }
    if (bremovecolon)
        address.remove(":");
    return address;
}

void MsgClient::setBackoffClock(Clock clock)
{
    g_backoffClock = clock ? clock : systemSeconds;
}

int MsgClient::GetServerAddressList(QStringList& list)
{
    QMap<QString, QString> headers;
    headers["Content-Type"] = "application/x-www-form-urlencoded;charset=UTF-8";
    CRequestHttps request;
    for (int attempt = 0; attempt < kAddressAttempts; ++attempt) {
        QByteArray reply;
        const int ret =
            request.SendRequest(m_pushAddressUrl, kHttpPost, headers, QByteArray(), reply);
        logger()->Msg(kLogProgress, "MsgClient::GetServerAddressList response is %s",
                      reply.constData());
        if (ret != 0) {
            logger()->Msg(kLogError, "get server address error is %s", reply.constData());
            continue;
        }
        return ParseServerAddressResponse(reply, list);
    }
    return 0;
}

int MsgClient::ParseServerAddressResponse(const QByteArray& data, QStringList& list)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError)
        return 0;
    const QJsonObject root = document.object();
    if (root.value("state").toInt() == 0) {
        logger()->Msg(kLogError, "parse server address failed! because state is 0");
        return 0;
    }
    const QJsonArray servers = root.value("data").toObject().value("server").toArray();
    for (const QJsonValue& server : servers)
        list.append(server.toString());
    return 1;
}

int MsgClient::GetServerAddress(QString& ip, int& port)
{
    QStringList list;
    const int ret = GetServerAddressList(list);
    if (!ret) {
        logger()->Msg(kLogError, "get server address failed!");
        return 0;
    }
    if (list.isEmpty()) {
        logger()->Msg(kLogError, "server address list num is 0!");
        return 0;
    }
    return ChooseServerAddress(list, ip, port) ? ret : 0;
}

bool MsgClient::ChooseServerAddress(const QStringList& list, QString& ip, int& port)
{
    // The service's order decides: the first entry of the form host:port wins.
    for (const QString& entry : list) {
        const QStringList parts = entry.split(":", Qt::KeepEmptyParts);
        if (parts.size() != kHostPortParts)
            continue;
        ip = parts.at(0);
        port = parts.at(1).toInt(nullptr, kDecimal);
        logger()->Msg(kLogProgress, "connect server success!, ip is %s, port is %d",
                      entry.toUtf8().constData(), port);
        return true;
    }
    return false;
}

struct MsgClient::StatusCheck
{
    CRequestHttps request;
    bool needConnect = false;
    quint64 connection = 0;
};

void MsgClient::oncheckstatus(bool bneedconnect)
{
    Infor tracer(kLogTrace, scopeName("oncheckstatus"));
    DataCenter* data = DataCenter::getInstance();
    CLogoutInfor logout;
    data->GetLogoutInfor(logout);
    if (logout.isLogout)
        return;
    CLoginInfor loginInfo;
    data->GetLoginInfor(loginInfo);
    if (loginInfo.cookies.isEmpty())
        return;

    // The request waits in a nested event loop, where more failures can be reported. Each sends
    // a request of its own: an older check still waiting (on the stack below this one) is
    // abandoned, and its wish to reconnect passes to this one if its connection is still the
    // current one. A status request that never answers thus holds back no reconnection.
    StatusCheck check;
    check.needConnect = bneedconnect;
    check.connection = m_connection;
    if (m_statusCheck) {
        m_statusCheck->request.Abort();
        check.needConnect |=
            m_statusCheck->needConnect && m_statusCheck->connection == m_connection;
    }
    m_statusCheck = &check;

    // The device id is the body of a GET, so it never reaches the service; kept as it is.
    const QString body = QString("device_id=%1").arg(getMacAddress(true));
    QByteArray reply;
    const int ret = check.request.SendRequest(m_ssoStatusUrl, kHttpGet, loginInfo.cookies,
                                              body.toUtf8(), reply);
    if (m_statusCheck == &check)
        m_statusCheck = nullptr;
    logger()->Msg(kLogProgress, "check status result is %s", reply.constData());

    // Abandoned for a newer check, which decides in its place.
    if (ret == kRequestAbandoned) {
        logger()->Msg(kLogError, "request or parse failed, request return:%d", ret);
        return;
    }
    // The network-error timer is about the connection this check started on: a restart during
    // the wait stopped it, and it is not started again for the connection made since.
    const bool current = check.connection == m_connection;
    CLogoutInfor info;
    if (ret == 0 && ParseCheckStatusResponse(reply, info)) {
        if (current)
            stopNetCheckTime();
        if (info.isLogout) {
            logger()->Msg(kLogProgress, "check status is login out");
            data->SetLogoutInfor(info);
            return;
        }
        if (check.needConnect) {
            logger()->Msg(kLogProgress, "check status is login, would reconnect server");
            scheduleReconnect(current);
        }
        return;
    }
    logger()->Msg(kLogError, "request or parse failed, request return:%d", ret);
    if (current)
        startNetCheckTime();
}

void MsgClient::scheduleReconnect(bool current)
{
    const int now = static_cast<int>(g_backoffClock());
    // Signed 32-bit difference, computed without overflow.
    const qint32 elapsed =
        static_cast<qint32>(static_cast<quint32>(now) - static_cast<quint32>(g_lastTime));
    if (elapsed > kBackoffQuietS) {
        g_delay = kBackoffFirstS;
    } else {
        g_delay *= kBackoffFactor;
        if (g_delay > kBackoffMaxS)
            g_delay = kBackoffMaxS;
    }
    g_lastTime = now;
    m_lastReconnectWaitMs = g_delay * m_times.backoffSecondMs;
    // One restart at a time, re-armed to the newest wait. A confirmation about a connection that
    // a restart has replaced since asked for that restart: it re-arms one still waiting, but
    // does not restart the connection made after it.
    if (current || m_reconnectTimer->isActive())
        m_reconnectTimer->start(m_lastReconnectWaitMs);
}

bool MsgClient::reconnectPending() const
{
    return m_reconnectTimer->isActive();
}

bool MsgClient::ParseCheckStatusResponse(const QByteArray& data, CLogoutInfor& out)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError) {
        logger()->Msg(kLogImportant, "ParseCheckStatusResponse failed!parser error is %s",
                      error.errorString().toUtf8().constData());
        return false;
    }
    const QJsonObject root = document.object();
    if (root.value("state").toInt() != kStateLoggedOut) {
        out.isLogout = false;
        return true;
    }
    out.isLogout = true;
    out.message = root.value("message").toString();
    logger()->Msg(kLogProgress, "user is logout, message is %s", out.message.toUtf8().constData());
    return true;
}

void MsgClient::oncheckUserInfor()
{
    Infor tracer(kLogTrace, scopeName("oncheckUserInfor"));
    // A fixed pair that marks a pending membership change for the main application.
    DataCenter::getInstance()->SetVipInfor(kVipRefreshLevel, kVipRefreshExpire);
}

int MsgClient::ParseUserInfor(const QByteArray& data, CUserInfor& out)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError)
        return -1;
    const QJsonObject root = document.object();
    if (!root.value("state").toBool()) {
        logger()->Msg(kLogProgress, "userinfor:%s",
                      root.value("message").toString().toUtf8().constData());
        return -1;
    }
    const QJsonObject d = root.value("data").toObject();
    out.userName = d.value("user_name").toString();
    out.face = d.value("face").toString();
    out.vipMark = readLevel(d.value("mark"));
    out.expire = static_cast<qint64>(d.value("expire").toVariant().toULongLong());
    out.mobile = d.value("mobile").toString();

    // "sapce" is the service's spelling.
    const QJsonObject space = d.value("sapce").toObject().value("1").toObject();
    out.sizeTotal = space.value("size_total").toString();
    out.sizeUsed = space.value("size_used").toString();
    out.byteSizeRemain = truncateToInt64(space.value("byte_size_remain").toDouble());
    out.sizeUsedPercent = space.value("size_used_percent").toString().toDouble() / kPercent;

    logger()->Msg(kLogProgress, "ParseUserInfor ------------------>>");
    DataCenter::getInstance()->SetUserFace(out.face);
    DataCenter::getInstance()->SetVipInfor(out.vipMark, out.expire);
    return 1;
}
