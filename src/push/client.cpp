#include "client.h"

#include "clienttcpsocket.h"
#include "core/data.h"
#include "core/datacenter.h"
#include "core/log.h"
#include "serviceurls.h"
#include "web/requesthttps.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QNetworkInterface>
#include <QRandomGenerator>
#include <QScopedValueRollback>
#include <QTimer>
#include <QVariant>
#include <cerrno>
#include <cstring>

namespace {

// Command of the "latest messages" query.
constexpr unsigned int kQueryCommand = 16781314;
// Milliseconds of 2018-01-01 00:00:00 (UTC+8) since the epoch: the base of session ids.
constexpr qint64 kSessionEpochMs = 1514736000000LL;
// Message types.
constexpr int kWrappedItemType = 599999;
constexpr int kProfileChangeType = 138;
constexpr int kCheckLoginType = 149;
constexpr int kCheckLoginType2 = 601010;

qint64 systemSeconds()
{
    return QDateTime::currentSecsSinceEpoch();
}

// Reconnection back-off, shared by the whole process. Only the client thread touches it.
MsgClient::Clock g_backoffClock = systemSeconds;
int g_lastTime = 0;
int g_delay = 1;

LogManager* logger()
{
    return LogManager::getInstance();
}

// A message type: an integer, or a JSON string holding a decimal number.
int readType(const QJsonValue& value)
{
    if (value.isString())
        return value.toString().toInt();
    return value.toInt();
}

// A level given either as a number or as a numeric string.
int readLevel(const QJsonValue& value)
{
    int level = value.toInt();
    if (level == 0) {
        const QString text = value.toString();
        if (!text.isEmpty())
            level = text.toInt();
    }
    return level;
}

quint32 readLe32(const char* bytes)
{
    quint32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(bytes[i]);
    return value;
}

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

MsgClient::MsgClient(QObject* parent, const MsgClientTimes& times)
    : QObject(parent), m_times(times), m_pushAddressUrl(serviceurls::kPushAddressUrl),
      m_ssoStatusUrl(serviceurls::kSsoStatusUrl)
{
    Msg_client::init();
    connect(this, SIGNAL(handleMsg(QByteArray)), this, SLOT(onhandleMsg(QByteArray)));
    connect(this, SIGNAL(checkstatus(bool)), this, SLOT(oncheckstatus(bool)));
    connect(this, SIGNAL(checkuserinfo()), this, SLOT(oncheckUserInfor()));
    connect(this, SIGNAL(socketerror()), this, SLOT(onsocketerror()));
    m_process = 0;
    startRunTimer();
}

MsgClient::~MsgClient()
{
    stopCheckTime();
    stopNetCheckTime();
    // The sockets closed earlier are children of this object and go with it. The open one must
    // not report its disconnection to an object being destroyed.
    if (m_socket)
        m_socket->disconnect(this);
    delete m_socket;
    m_socket = nullptr;
}

void MsgClient::setServiceUrls(const QString& pushAddressUrl, const QString& ssoStatusUrl)
{
    m_pushAddressUrl = pushAddressUrl;
    m_ssoStatusUrl = ssoStatusUrl;
}

void MsgClient::setBackoffClock(Clock clock)
{
    g_backoffClock = clock ? clock : systemSeconds;
}

std::string MsgClient::scopeName(const char* function) const
{
    return std::string(metaObject()->className()) + "_" + function;
}

// ---------------------------------------------------------------------------------------------
// Process

void MsgClient::nextProcess()
{
    m_process += 1;
    startRunTimer();
}

void MsgClient::startRunTimer()
{
    CLogoutInfor logout;
    DataCenter::getInstance()->GetLogoutInfor(logout);
    if (logout.isLogout) {
        logger()->Msg(1, "MsgClient::startRunTimer user is logout!");
        return;
    }
    QTimer::singleShot(m_times.stepMs, this, SLOT(onRun()));
}

void MsgClient::onRun()
{
    logger()->Msg(1, "MsgClient::onRun current process is %d!", m_process);
    int ret = 0;
    switch (m_process) {
    case 0:
        ret = connect2Server();
        break;
    case 1:
        ret = login();
        break;
    case 2:
        ret = GetMaxId();
        break;
    case 3:
        ret = StartHeartTimer();
        break;
    default:
        break;
    }
    if (ret != 0 && m_process < 4) {
        logger()->Msg(1, "MsgClient::onRun ret is not 0, would check login status!");
        emit checkstatus(true);
    }
}

int MsgClient::connect2Server()
{
    Infor tracer(0, scopeName("connect2Server"));
    // The address lookup waits in a nested event loop, where another scheduled step 0 can run.
    // Connecting from there as well would leave the first socket connected to this object and
    // advance the process twice, so the inner call leaves the step to the outer one.
    if (m_connecting)
        return 0;
    const QScopedValueRollback<bool> connecting(m_connecting, true);
    stopCheckTime();
    stopNetCheckTime();
    CloseSocket();

    QString host;
    int port = 0;
    if (!GetServerAddress(host, port)) {
        logger()->Msg(4, "MsgClient::connect2Server GetServerAddress failed!");
        return -1;
    }

    m_socket = new ClientTcpSocket;
    m_socket->connectToHost(host, static_cast<quint16>(port), QIODevice::ReadWrite,
                            QAbstractSocket::AnyIPProtocol);
    m_socket->waitForConnected(m_times.socketWaitMs);
    if (m_socket->state() != QAbstractSocket::ConnectedState) {
        logger()->Msg(4, "MsgClient::connect2Server connect to server failed!");
        return -1;
    }
    connect(m_socket, SIGNAL(readyRead()), this, SLOT(onReadyRead()));
    connect(m_socket, SIGNAL(disconnected()), this, SLOT(ondisconnected()));
    nextProcess();
    return 0;
}

int MsgClient::login()
{
    Infor tracer(0, scopeName("login"));
    m_sequence = 0;
    m_responseSeq = 0;
    m_lastQueryTime = 0;

    CLoginInfor info;
    DataCenter::getInstance()->GetLoginInfor(info);
    // Each cookie entry goes out as key=value with the value's ";" turned into "&" and then
    // percent-encoded; the entries follow each other without a separator.
    QString text;
    for (auto it = info.cookies.constBegin(); it != info.cookies.constEnd(); ++it) {
        QString value = it.value();
        value.replace(";", "&");
        text +=
            QString("%1=%2").arg(it.key(), QString::fromLatin1(value.toUtf8().toPercentEncoding()));
    }

    QByteArray frame;
    if (Msg_client::first_req_encode(GetClientType(), GetSessionId(), info.userId.toUInt(),
                                     m_sequence, 0, text, frame) != 0) {
        logger()->Msg(4, "client login first_req_encode failed!");
        return -1;
    }
    if (writeCmd(frame) != 0)
        logger()->Msg(4, "client login write cmd(%s) failed!", frame.constData());
    logger()->Msg(1, "LoginIMServer first_req_encode out is %s", frame.constData());
    m_sequence += 1;
    startCheckTimeMs(m_times.answerMs);
    return 0;
}

int MsgClient::GetMaxId()
{
    Infor tracer(0, scopeName("GetMaxId"));
    logger()->Msg(1, "3.1: get max_id.");
    SendQuery("0");
    startCheckTimeMs(m_times.answerMs);
    return 0;
}

int MsgClient::StartHeartTimer()
{
    Infor tracer(0, scopeName("StartHeartTimer"));
    if (!m_socket)
        return -1;
    m_socket->startTimeMs(m_times.heartbeatMs);
    connect(m_socket, SIGNAL(timer()), this, SLOT(onSendHeartTimer()));
    nextProcess();
    return 0;
}

void MsgClient::onsocketerror()
{
    logger()->Msg(4, "socket error");
    m_process = 0;
    startRunTimer();
}

quint64 MsgClient::GetSessionId()
{
    const quint64 t = static_cast<quint64>(QDateTime::currentMSecsSinceEpoch() - kSessionEpochMs);
    // The address is read in base 2 on purpose: a hexadecimal address almost always gives 0.
    const quint64 macNumber = getMacAddress(true).toULongLong(nullptr, 2);
    const quint32 m = QString::number(macNumber).right(10).toUInt();
    const quint32 r = QRandomGenerator::global()->generate();
    return (t << 22) | ((static_cast<quint64>(r) * 4095) >> 32) |
           static_cast<quint64>(static_cast<quint32>(m << 12));
}

// ---------------------------------------------------------------------------------------------
// Socket I/O

int MsgClient::writeCmd(const QByteArray& frame)
{
    if (!m_socket || m_socket->write(frame) != frame.size()) {
        logger()->Msg(4, "write to server failed!");
        return -1;
    }
    m_socket->waitForBytesWritten(m_times.socketWaitMs);
    return 0;
}

int MsgClient::SendHeart()
{
    Infor tracer(0, scopeName("SendHeart"));
    QByteArray frame;
    Msg_client::heartbeat_req(frame);
    return writeCmd(frame);
}

int MsgClient::nread(char* buffer, int length)
{
    const qint64 available = m_socket ? m_socket->bytesAvailable() : 0;
    if (length <= 0 || length > available) {
        logger()->Msg(3, "nread failed! len is %d, available bytes is %lld", length,
                      static_cast<long long>(available));
        return -1;
    }
    int got = 0;
    while (got < length) {
        errno = 0;
        const qint64 n = m_socket->read(buffer + got, length - got);
        if (n == 0)
            return -1;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        got += static_cast<int>(n);
    }
    return 0;
}

int MsgClient::readHead(tagTRANSPORT_PKG_HEAD_RSP& head)
{
    QByteArray headString;
    return readHead(head, headString);
}

int MsgClient::readHead(tagTRANSPORT_PKG_HEAD_RSP& head, QByteArray& headString)
{
    char rest[Msg_client::kMsgHeadSize - 4];
    std::memset(rest, 0, sizeof(rest));
    if (nread(rest, sizeof(rest)) != 0) {
        logger()->Msg(4, "read head failed!");
        return -1;
    }
    headString.clear();
    for (int i = 0; i < 4; ++i)
        headString.append(static_cast<char>((head.magic_quote >> (8 * i)) & 0xFF));
    headString.append(rest, sizeof(rest));
    Msg_client::parseHead(headString, head);
    return 0;
}

int MsgClient::readData(int length, QByteArray& out)
{
    if (length < 1)
        return -1;
    // The length comes from the peer. nread turns down more than the socket holds, so the
    // buffer is sized by what is available: a corrupt head length must not be allocated first.
    const qint64 available = m_socket ? m_socket->bytesAvailable() : 0;
    QByteArray buffer(static_cast<int>(qMin<qint64>(length, available)) + 1, '\0');
    const int ret = nread(buffer.data(), length);
    if (ret == 0)
        out = buffer.left(length);
    return ret;
}

int MsgClient::readFromServer(QByteArray& out)
{
    if (!m_socket || !m_socket->isOpen())
        return -1;

    char magicBytes[4] = {0, 0, 0, 0};
    if (nread(magicBytes, 4) != 0) {
        logger()->Msg(3, "nread false! client read from server failed!");
        return -1;
    }
    const quint32 magic = readLe32(magicBytes);
    logger()->Msg(1, "nread ok! client read from server success!");
    logger()->Msg(3, "magic is %d!", static_cast<int>(magic));

    if (magic == MAGIC_HEART) {
        logger()->Msg(1, "current msg is heart beart!");
        return 0;
    }
    if (magic == MAGIC_RSP) {
        tagTRANSPORT_PKG_HEAD_RSP head;
        head.magic_quote = magic;
        QByteArray headString;
        QByteArray body;
        if (readHead(head, headString) != 0 || readData(static_cast<int>(head.length), body) != 0) {
            logger()->Msg(3, "read false! read head or data failed!");
            return -1;
        }
        logger()->Msg(1, "headstring : %s", headString.constData());
        if (Msg_client::decode(headString, body, out) != 0) {
            logger()->Msg(4, "decode failed! decode headstring is %s!response is %s",
                          headString.constData(), body.constData());
            return -1;
        }
        m_responseSeq = head.seq;
        return 2;
    }
    if (magic == MAGIC_NOTICE) {
        QByteArray body;
        if (readData(Msg_client::kNoticeBodySize, body) != 0) {
            logger()->Msg(4, "read response err!");
            return -1;
        }
        if (Msg_client::decode(QByteArray(magicBytes, 4), body, out) != 0) {
            logger()->Msg(4, "decode response failed! response is %s!", body.constData());
            return -1;
        }
        return 1;
    }
    logger()->Msg(1, "false magic:%d!", static_cast<int>(magic));
    return -1;
}

void MsgClient::onReadyRead()
{
    Infor tracer(0, scopeName("onReadyRead"));
    QByteArray message;
    const int rc = readFromServer(message);
    if (rc < 0) {
        logger()->Msg(3,
                      "read from server result is -1, so check connect status! current process "
                      "is %d",
                      m_process);
        emit checkstatus(true);
        return;
    }
    logger()->Msg(1, "client read from server message is %s", message.constData());
    switch (m_process) {
    case 1:
        // Whatever the login answer holds, it moves the process on.
        stopCheckTime();
        nextProcess();
        break;
    case 2:
        if (HandleMaxIdMessage(rc, message))
            stopCheckTime();
        break;
    case 4:
        if (HandleMessageFormServer(rc, message) != 0) {
            emit checkstatus(true);
            emit checkuserinfo();
        }
        break;
    default:
        break;
    }
}

void MsgClient::ondisconnected()
{
    Infor tracer(0, scopeName("ondisconnected"));
    const QString error = m_socket ? m_socket->errorString() : QString();
    logger()->Msg(4, "server disconnect to socket, error is %s", error.toUtf8().constData());
    emit checkstatus(true);
}

void MsgClient::CloseSocket()
{
    if (!m_socket)
        return;
    disconnect(m_socket, SIGNAL(readyRead()), this, SLOT(onReadyRead()));
    disconnect(m_socket, SIGNAL(disconnected()), this, SLOT(ondisconnected()));
    // The heartbeat belongs to this connection only, also when the peer has already gone.
    disconnect(m_socket, SIGNAL(timer()), this, SLOT(onSendHeartTimer()));
    m_socket->stopTime();
    if (m_socket->isOpen()) {
        m_socket->disconnectFromHost();
        if (m_socket->state() != QAbstractSocket::UnconnectedState)
            m_socket->waitForDisconnected(m_times.socketWaitMs);
    }
    m_socket->close();
    // The closed socket is kept, not freed: this may run in a nested event loop while an outer
    // frame is still inside one of its signals. It goes with this object.
    m_socket->setParent(this);
    m_socket = nullptr;
}

// ---------------------------------------------------------------------------------------------
// Timers

void MsgClient::onSendHeartTimer()
{
    Infor tracer(0, scopeName("onSendHeartTimer"));
    if (SendHeart() == 0)
        startCheckTimeMs(m_times.heartbeatAnswerMs);
    else
        emit checkstatus(true);
}

void MsgClient::startCheckTime(int seconds)
{
    startCheckTimeMs(seconds * 1000);
}

void MsgClient::startCheckTimeMs(int msec)
{
    stopCheckTime();
    m_checkTimer = new QTimer;
    m_checkTimer->setInterval(msec);
    connect(m_checkTimer, SIGNAL(timeout()), this, SLOT(onCheckTimer()));
    m_checkTimer->start();
}

void MsgClient::stopCheckTime()
{
    delete m_checkTimer;
    m_checkTimer = nullptr;
}

void MsgClient::onCheckTimer()
{
    logger()->Msg(3, "check timer is timeout, would check status!");
    stopCheckTime();
    emit checkstatus(false);
}

void MsgClient::startNetCheckTime()
{
    if (m_netCheckTimer)
        return;
    m_netCheckTimer = new QTimer;
    m_netCheckTimer->setInterval(m_times.netErrorMs);
    connect(m_netCheckTimer, SIGNAL(timeout()), this, SLOT(onNetError()));
    m_netCheckTimer->start();
}

void MsgClient::stopNetCheckTime()
{
    delete m_netCheckTimer;
    m_netCheckTimer = nullptr;
}

void MsgClient::onNetError()
{
    logger()->Msg(4, "net error, so check status");
    emit checkstatus(true);
}

// ---------------------------------------------------------------------------------------------
// Push-server address lookup

int MsgClient::GetServerAddressList(QStringList& list)
{
    QMap<QString, QString> headers;
    headers["Content-Type"] = "application/x-www-form-urlencoded;charset=UTF-8";
    CRequestHttps request;
    for (int attempt = 0; attempt < 2; ++attempt) {
        QByteArray reply;
        const int ret = request.SendRequest(m_pushAddressUrl, 1, headers, QByteArray(), reply);
        logger()->Msg(1, "MsgClient::GetServerAddressList response is %s", reply.constData());
        if (ret != 0) {
            logger()->Msg(4, "get server address error is %s", reply.constData());
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
        logger()->Msg(4, "parse server address failed! because state is 0");
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
        logger()->Msg(4, "get server address failed!");
        return 0;
    }
    if (list.isEmpty()) {
        logger()->Msg(4, "server address list num is 0!");
        return 0;
    }
    // The service's order decides: the first entry of the form host:port wins.
    for (const QString& entry : qAsConst(list)) {
        const QStringList parts = entry.split(":", Qt::KeepEmptyParts);
        if (parts.size() != 2)
            continue;
        ip = parts.at(0);
        port = parts.at(1).toInt(nullptr, 10);
        logger()->Msg(1, "connect server success!, ip is %s, port is %d",
                      entry.toUtf8().constData(), port);
        return ret;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Messages

int MsgClient::SendQuery(const QString& id)
{
    const QString text = QString("{\"id\":\"%1\", \"type\":627, \"max\":\"100\"}").arg(id);
    logger()->Msg(3, "SendQuery id is %s, send squence id is %lu", id.toUtf8().constData(),
                  static_cast<unsigned long>(m_sequence));
    QByteArray frame;
    if (Msg_client::normal_req_encode(m_sequence, kQueryCommand, text, frame) != 0) {
        logger()->Msg(4, "mclient.normal_req_encode fail");
        return -1;
    }
    if (writeCmd(frame) != 0)
        logger()->Msg(4, "write data failed");
    m_sequence += 1;
    m_lastQueryTime = time(nullptr);
    return 0;
}

bool MsgClient::ParseMessage(QByteArray const& message, QVector<MsgClient::OneMessage>& out)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(message, &error);
    if (error.error != QJsonParseError::NoError) {
        logger()->Msg(3, "parse message failed : %s", error.errorString().toUtf8().constData());
        return false;
    }
    const QJsonObject root = document.object();
    if (root.value("code").toInt() != 0)
        return false;

    const QJsonArray items = root.value("data").toObject().value("list").toArray();
    for (const QJsonValue& itemValue : items) {
        const QJsonObject item = itemValue.toObject();
        if (readType(item.value("t")) != kWrappedItemType)
            continue;
        const QJsonObject inner = item.value("data").toObject();
        OneMessage one;
        one.type = readType(inner.value("t"));
        if (one.type == kProfileChangeType) {
            one.face = inner.value("face_l").toString();
            const QJsonArray vip =
                inner.value("data").toObject().value("vip_info").toObject().value("vip").toArray();
            if (!vip.isEmpty()) {
                const QJsonObject first = vip.at(0).toObject();
                one.mark = readLevel(first.value("mark"));
                one.expire = static_cast<qint64>(first.value("expire").toDouble());
            }
        }
        out.append(one);
    }
    return true;
}

void MsgClient::onhandleMsg(const QByteArray& message)
{
    logger()->Msg(1, "handle msg ,and message is %s", message.constData());
    QVector<OneMessage> messages;
    if (!ParseMessage(message, messages)) {
        logger()->Msg(3, "MsgClient::onhandleMsg parse message failed!");
        return;
    }
    for (const OneMessage& one : qAsConst(messages)) {
        if (one.type == kCheckLoginType || one.type == kCheckLoginType2) {
            logger()->Msg(1, "MsgClient::onhandleMsg type is %d, check login status", one.type);
            emit checkstatus(false);
        } else if (one.type == kProfileChangeType) {
            if (!one.face.isEmpty()) {
                logger()->Msg(1, "MsgClient::onhandleMsg type is 138, change face");
                DataCenter::getInstance()->SetUserFace(one.face);
            } else {
                logger()->Msg(1, "MsgClient::onhandleMsg type is 138, vip level change");
                DataCenter::getInstance()->SetVipInfor(one.mark, one.expire);
            }
        }
    }
}

void MsgClient::HandlerMessage(const QByteArray& message)
{
    logger()->Msg(1, "MsgClient::HandlerMessage msg is %s", message.constData());
    onhandleMsg(message);
}

bool MsgClient::HandleMaxIdMessage(int, const QByteArray& message)
{
    HandlerMessage(message);
    nextProcess();
    return true;
}

int MsgClient::HandleMessageFormServer(int type, const QByteArray& message)
{
    Infor tracer(0, scopeName("HandleMessageFormServer"));
    logger()->Msg(1, "MsgClient::HandleMessageFormServer type is %d, message is %s", type,
                  message.constData());
    switch (type) {
    case 2:
        // An answer in the running step is not parsed: it prompts a status and profile check.
        if (!message.isEmpty()) {
            emit checkstatus(false);
            emit checkuserinfo();
        }
        return 0;
    case 1: {
        const time_t now = time(nullptr);
        if (m_responseSeq + 1 < m_sequence) {
            // Answers are missing: check instead of asking again.
            emit checkstatus(false);
            emit checkuserinfo();
            return 0;
        }
        if (now - m_lastQueryTime > 3 || m_responseSeq + 1 == m_sequence) {
            if (SendQuery("0") == -1) {
                logger()->Msg(3, "send query is -1, so check login status");
                return -1;
            }
        }
        return 0;
    }
    case 0:
        stopCheckTime();
        return 0;
    default:
        return 0;
    }
}

// ---------------------------------------------------------------------------------------------
// Login status and user information

void MsgClient::oncheckstatus(bool bneedconnect)
{
    Infor tracer(0, scopeName("oncheckstatus"));
    DataCenter* data = DataCenter::getInstance();
    CLogoutInfor logout;
    data->GetLogoutInfor(logout);
    if (logout.isLogout)
        return;
    CLoginInfor loginInfo;
    data->GetLoginInfor(loginInfo);
    if (loginInfo.cookies.isEmpty())
        return;

    // The device id is the body of a GET, so it never reaches the service; kept as it is.
    const QString body = QString("device_id=%1").arg(getMacAddress(true));
    CRequestHttps request;
    QByteArray reply;
    const int ret = request.SendRequest(m_ssoStatusUrl, 0, loginInfo.cookies, body.toUtf8(), reply);
    logger()->Msg(1, "check status result is %s", reply.constData());

    CLogoutInfor info;
    if (ret == 0 && ParseCheckStatusResponse(reply, info)) {
        stopNetCheckTime();
        if (info.isLogout) {
            logger()->Msg(1, "check status is login out");
            data->SetLogoutInfor(info);
            return;
        }
        if (bneedconnect) {
            logger()->Msg(1, "check status is login, would reconnect server");
            scheduleReconnect();
        }
        return;
    }
    logger()->Msg(4, "request or parse failed, request return:%d", ret);
    startNetCheckTime();
}

void MsgClient::scheduleReconnect()
{
    const int now = static_cast<int>(g_backoffClock());
    // Signed 32-bit difference, computed without overflow.
    const qint32 elapsed =
        static_cast<qint32>(static_cast<quint32>(now) - static_cast<quint32>(g_lastTime));
    if (elapsed > 5) {
        g_delay = 1;
    } else {
        g_delay *= 2;
        if (g_delay > 10)
            g_delay = 10;
    }
    g_lastTime = now;
    m_lastReconnectWaitMs = g_delay * m_times.backoffSecondMs;
    QTimer::singleShot(m_lastReconnectWaitMs, this, SLOT(onsocketerror()));
}

bool MsgClient::ParseCheckStatusResponse(const QByteArray& data, CLogoutInfor& out)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError) {
        logger()->Msg(3, "ParseCheckStatusResponse failed!parser error is %s",
                      error.errorString().toUtf8().constData());
        return false;
    }
    const QJsonObject root = document.object();
    if (root.value("state").toInt() != 1) {
        out.isLogout = false;
        return true;
    }
    out.isLogout = true;
    out.message = root.value("message").toString();
    logger()->Msg(1, "user is logout, message is %s", out.message.toUtf8().constData());
    return true;
}

void MsgClient::oncheckUserInfor()
{
    Infor tracer(0, scopeName("oncheckUserInfor"));
    // A fixed pair that marks a pending membership change for the main application.
    DataCenter::getInstance()->SetVipInfor(100, 100);
}

int MsgClient::ParseUserInfor(const QByteArray& data, CUserInfor& out)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError)
        return -1;
    const QJsonObject root = document.object();
    if (!root.value("state").toBool()) {
        logger()->Msg(1, "userinfor:%s", root.value("message").toString().toUtf8().constData());
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
    out.byteSizeRemain = static_cast<qint64>(space.value("byte_size_remain").toDouble());
    out.sizeUsedPercent = space.value("size_used_percent").toString().toDouble() / 100.0;

    logger()->Msg(1, "ParseUserInfor ------------------>>");
    DataCenter::getInstance()->SetUserFace(out.face);
    DataCenter::getInstance()->SetVipInfor(out.vipMark, out.expire);
    return 1;
}
