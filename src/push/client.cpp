// SPDX-License-Identifier: Apache-2.0
// MsgClient: construction, the numbered process, the timers and closing the socket.
// The frame reader, message dispatch and the service calls live in client_*.cpp.
#include "client.h"

#include "client_p.h"
#include "clienttcpsocket.h"
#include "core/data.h"
#include "core/datacenter.h"
#include "core/serviceurls.h"

#include <QDateTime>
#include <QRandomGenerator>
#include <QTimer>
#include <utility>

using msgclient_detail::logger;

namespace {
// Milliseconds of 2018-01-01 00:00:00 (UTC+8) since the epoch: the base of session ids.
constexpr qint64 kSessionEpochMs = 1514736000000LL;
// Layout of a session id: milliseconds in the top bits, then the device part, then a random part
// scaled to 12 bits. The device part is the last digits of the hardware address read in base 2.
constexpr int kSessionTimeShift = 22;
constexpr int kSessionDeviceShift = 12;
constexpr quint64 kSessionRandomScale = 4095;
constexpr int kSessionRandomShift = 32;
constexpr int kDeviceAddressBase = 2;
constexpr int kDeviceDigits = 10;

const ClockSource* g_sleepClocks = nullptr; // null: the system's
} // namespace

MsgClient::MsgClient(QObject* parent, const MsgClientTimes& times)
    : QObject(parent), m_times(times), m_pushAddressUrl(serviceurls::kPushAddressUrl),
      m_ssoStatusUrl(serviceurls::kSsoStatusUrl),
      m_sleepWatch(g_sleepClocks ? g_sleepClocks : ClockSource::system())
{
    Msg_client::init();
    connect(this, SIGNAL(handleMsg(QByteArray)), this, SLOT(onhandleMsg(QByteArray)));
    connect(this, SIGNAL(checkstatus(bool)), this, SLOT(oncheckstatus(bool)));
    connect(this, SIGNAL(checkuserinfo()), this, SLOT(oncheckUserInfor()));
    connect(this, SIGNAL(socketerror()), this, SLOT(onsocketerror()));
    // Children of this object, made on its thread, started and stopped for its whole life.
    m_runTimer = makeTimer(true, SLOT(onRun()));
    m_reconnectTimer = makeTimer(true, SLOT(onsocketerror()));
    m_checkTimer = makeTimer(true, SLOT(onCheckTimer()));
    m_frameTimer = makeTimer(true, SLOT(onFrameTimer()));
    m_netCheckTimer = makeTimer(false, SLOT(onNetError()));
    m_netCheckTimer->setInterval(m_times.netErrorMs);
    m_netWatch = new NetworkWatch(this);
    connect(m_netWatch, SIGNAL(pathLost(QString)), this, SLOT(onPathLost(QString)));
    m_process = kStepConnect;
    startRunTimer();
}

QTimer* MsgClient::makeTimer(bool singleShot, const char* slot)
{
    auto* timer = new QTimer(this);
    timer->setSingleShot(singleShot);
    connect(timer, SIGNAL(timeout()), this, slot);
    return timer;
}

MsgClient::~MsgClient()
{
    // The sockets closed earlier are children of this object and go with it. The open one must
    // not report its disconnection to an object being destroyed.
    if (m_socket)
        m_socket->disconnect(this);
    delete m_socket;
    m_socket = nullptr;
}

void MsgClient::setSleepClocks(const ClockSource* clocks)
{
    g_sleepClocks = clocks;
}

void MsgClient::setServiceUrls(const QString& pushAddressUrl, const QString& ssoStatusUrl)
{
    m_pushAddressUrl = pushAddressUrl;
    m_ssoStatusUrl = ssoStatusUrl;
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
        m_runTimer->stop();
        logger()->Msg(kLogProgress, "MsgClient::startRunTimer user is logout!");
        return;
    }
    // Starting the one step timer again replaces a step still pending: a restart voids the
    // chain before it.
    m_runTimer->start(m_times.stepMs);
}

void MsgClient::onRun()
{
    logger()->Msg(kLogProgress, "MsgClient::onRun current process is %d!", m_process);
    int ret = 0;
    switch (m_process) {
    case kStepConnect:
        ret = connect2Server();
        break;
    case kStepLogin:
        ret = login();
        break;
    case kStepQuery:
        ret = GetMaxId();
        break;
    case kStepHeartbeat:
        ret = StartHeartTimer();
        break;
    default:
        break;
    }
    if (ret != 0 && m_process < kStepRunning) {
        logger()->Msg(kLogProgress, "MsgClient::onRun ret is not 0, would check login status!");
        emit checkstatus(true);
    }
}

int MsgClient::connect2Server()
{
    Infor tracer(kLogTrace, scopeName("connect2Server"));
    stopCheckTime();
    stopNetCheckTime();
    CloseSocket();
    // The address lookup waits in a nested event loop, where a restart can run another step 0.
    // The newer one connects; this one then leaves the connection to it.
    const quint64 connection = ++m_connection;

    QString host;
    int port = 0;
    const bool found = GetServerAddress(host, port) != 0;
    if (connection != m_connection)
        return 0;
    if (!found) {
        logger()->Msg(kLogError, "MsgClient::connect2Server GetServerAddress failed!");
        return -1;
    }

    m_socket = new ClientTcpSocket;
    m_socket->connectToHost(host, static_cast<quint16>(port), QIODevice::ReadWrite,
                            QAbstractSocket::AnyIPProtocol);
    m_socket->waitForConnected(m_times.socketWaitMs);
    if (m_socket->state() != QAbstractSocket::ConnectedState) {
        logger()->Msg(kLogError, "MsgClient::connect2Server connect to server failed!");
        return -1;
    }
    attachSocket(m_socket);
    // A path that dies in silence fails the connection within the kernel's bounds; a lost
    // address or link, or a suspend, fails it at once. Without them it still works as before.
    setPushSocketOptions(m_socket->socketDescriptor(), m_times.pathTimes);
    m_netWatch->watch(m_socket->localAddress());
    m_sleepWatch.reset();
    nextProcess();
    return 0;
}

int MsgClient::login()
{
    Infor tracer(kLogTrace, scopeName("login"));
    m_sequence = 0;
    m_responseSeq = 0;
    m_lastQueryTime = 0;

    CLoginInfor info;
    DataCenter::getInstance()->GetLoginInfor(info);
    QByteArray frame;
    if (Msg_client::first_req_encode(GetClientType(), GetSessionId(), info.userId.toUInt(),
                                     m_sequence, 0, LoginText(info.cookies), frame) != 0) {
        logger()->Msg(kLogError, "client login first_req_encode failed!");
        return -1;
    }
    const LinkPoint at = here();
    if (writeCmd(frame) != 0)
        logger()->Msg(kLogError, "client login write cmd(%s) failed!", frame.constData());
    logger()->Msg(kLogProgress, "LoginIMServer first_req_encode out is %s", frame.constData());
    // A failed write reports the failure, and its status check may restart the steps: then the
    // login belongs to a connection that is gone.
    if (here() != at)
        return 0;
    m_sequence += 1;
    startCheckTimeMs(m_times.answerMs);
    return 0;
}

QString MsgClient::LoginText(const QMap<QString, QString>& cookies)
{
    // Each cookie entry goes out as key=value with the value's ";" turned into "&" and then
    // percent-encoded; the entries follow each other without a separator.
    QString text;
    for (auto it = cookies.constBegin(); it != cookies.constEnd(); ++it) {
        QString value = it.value();
        value.replace(";", "&");
        text +=
            QString("%1=%2").arg(it.key(), QString::fromLatin1(value.toUtf8().toPercentEncoding()));
    }
    return text;
}

int MsgClient::GetMaxId()
{
    Infor tracer(kLogTrace, scopeName("GetMaxId"));
    logger()->Msg(kLogProgress, "3.1: get max_id.");
    const LinkPoint at = here();
    SendQuery("0");
    if (here() == at)
        startCheckTimeMs(m_times.answerMs);
    return 0;
}

int MsgClient::StartHeartTimer()
{
    Infor tracer(kLogTrace, scopeName("StartHeartTimer"));
    if (!m_socket)
        return -1;
    m_socket->startTimeMs(m_times.heartbeatMs);
    connect(m_socket, SIGNAL(timer()), this, SLOT(onSendHeartTimer()));
    nextProcess();
    return 0;
}

void MsgClient::onsocketerror()
{
    logger()->Msg(kLogError, "socket error");
    // The chain before this restart is over: its socket's late signals reach nothing, its
    // watchdog and network-error timer are stopped and its pending step is replaced below.
    // Step 0 closes that socket.
    detachSocket();
    m_reconnectTimer->stop();
    stopCheckTime();
    stopNetCheckTime();
    ++m_connection;
    m_process = kStepConnect;
    startRunTimer();
}

void MsgClient::attachSocket(ClientTcpSocket* socket)
{
    connect(socket, SIGNAL(readyRead()), this, SLOT(onReadyRead()));
    connect(socket, SIGNAL(disconnected()), this, SLOT(ondisconnected()));
}

void MsgClient::onPathLost(const QString& reason)
{
    const SocketInUse inUse(this);
    failConnection(reason);
}

void MsgClient::failConnection(const QString& reason)
{
    logger()->Msg(kLogImportant, "push connection path lost: %s", reason.toUtf8().constData());
    // Aborting the socket reports its disconnection, which checks the status and reconnects.
    if (m_socket && m_socket->state() == QAbstractSocket::ConnectedState)
        m_socket->abort();
}

void MsgClient::detachSocket()
{
    // Neither the watch of its path nor the wait for the rest of a frame outlives a connection.
    m_netWatch->unwatch();
    m_frameTimer->stop();
    if (!m_socket)
        return;
    disconnect(m_socket, SIGNAL(readyRead()), this, SLOT(onReadyRead()));
    disconnect(m_socket, SIGNAL(disconnected()), this, SLOT(ondisconnected()));
    // The heartbeat belongs to this connection only, also when the peer has already gone.
    disconnect(m_socket, SIGNAL(timer()), this, SLOT(onSendHeartTimer()));
}

quint64 MsgClient::GetSessionId()
{
    const quint64 t = static_cast<quint64>(QDateTime::currentMSecsSinceEpoch() - kSessionEpochMs);
    // The address is read in base 2 on purpose: a hexadecimal address almost always gives 0.
    const quint64 macNumber = getMacAddress(true).toULongLong(nullptr, kDeviceAddressBase);
    const quint32 m = QString::number(macNumber).right(kDeviceDigits).toUInt();
    const quint32 r = QRandomGenerator::global()->generate();
    return (t << kSessionTimeShift) |
           ((static_cast<quint64>(r) * kSessionRandomScale) >> kSessionRandomShift) |
           static_cast<quint64>(static_cast<quint32>(m << kSessionDeviceShift));
}

void MsgClient::CloseSocket()
{
    if (!m_socket)
        return;
    detachSocket();
    m_socket->stopTime();
    if (m_socket->isOpen()) {
        m_socket->disconnectFromHost();
        if (m_socket->state() != QAbstractSocket::UnconnectedState)
            m_socket->waitForDisconnected(m_times.socketWaitMs);
    }
    m_socket->close();
    // A close that could not finish within the wait (data that cannot be flushed, a connection
    // attempt still under way) leaves the connection open in the kernel; the next connection
    // must not come up beside it.
    if (m_socket->state() != QAbstractSocket::UnconnectedState)
        m_socket->abort();
    // Nothing is connected to the closed socket any more, so only code that is still inside one
    // of its signals can reach it: an outer frame when this runs in a nested event loop of a
    // slot connected to it. It is freed once that slot has returned, or at once (deleteLater)
    // when no such slot runs. Until then it is a child of this object and goes with it.
    m_socket->setParent(this);
    if (m_socketUseDepth > 0)
        m_closedSockets.append(m_socket);
    else
        m_socket->deleteLater();
    m_socket = nullptr;
}

void MsgClient::freeClosedSockets()
{
    const QList<ClientTcpSocket*> closed = std::exchange(m_closedSockets, {});
    for (ClientTcpSocket* closedSocket : closed)
        closedSocket->deleteLater();
}

// ---------------------------------------------------------------------------------------------
// Timers

void MsgClient::onSendHeartTimer()
{
    Infor tracer(kLogTrace, scopeName("onSendHeartTimer"));
    const SocketInUse inUse(this);
    // The heartbeat runs on the boot-time clock, so it comes at once after a resume. A
    // connection that slept is renewed rather than probed: its path has most likely changed.
    const qint64 slept = m_sleepWatch.sleptMsSinceLast();
    if (slept >= SleepWatch::kMinSleepMs) {
        failConnection(QString("the machine slept %1 ms").arg(slept));
        return;
    }
    const LinkPoint at = here();
    const int ret = SendHeart();
    // The write may have waited while the connection was replaced: the watchdog and the check
    // belong to this heartbeat's own connection.
    if (here() != at)
        return;
    if (ret == 0)
        startCheckTimeMs(m_times.heartbeatAnswerMs);
    else
        emit checkstatus(true);
}

void MsgClient::startCheckTime(int seconds)
{
    startCheckTimeMs(seconds * kMsPerSecond);
}

void MsgClient::startCheckTimeMs(int msec)
{
    m_checkTimer->start(msec);
}

void MsgClient::stopCheckTime()
{
    m_checkTimer->stop();
}

void MsgClient::onCheckTimer()
{
    logger()->Msg(kLogImportant, "check timer is timeout, would check status!");
    stopCheckTime();
    emit checkstatus(false);
}

void MsgClient::startNetCheckTime()
{
    if (!m_netCheckTimer->isActive())
        m_netCheckTimer->start();
}

void MsgClient::stopNetCheckTime()
{
    m_netCheckTimer->stop();
}

bool MsgClient::netCheckPending() const
{
    return m_netCheckTimer->isActive();
}

void MsgClient::onNetError()
{
    logger()->Msg(kLogError, "net error, so check status");
    emit checkstatus(true);
}
