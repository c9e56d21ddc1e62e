#pragma once
// SPDX-License-Identifier: Apache-2.0

#include "core/constants.h"
#include "push/client_netwatch.h"
#include "push/client_sleepwatch.h"
#include "push/msg_client.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>
#include <ctime>

class ClientTcpSocket;
class QTimer;
struct CLogoutInfor;
struct CUserInfor;

// Hardware address of the first interface that is up, running and not the loopback; empty when
// there is none. With `bremovecolon` the colons are dropped (twelve hexadecimal digits).
QString getMacAddress(bool bremovecolon);

// The push connection's intervals, as the daemon uses them.
constexpr int kStepDelayMs = 1000;       // from one process step to the next
constexpr int kHeartbeatPeriodS = 60;    // heartbeat period
constexpr int kHeartbeatAnswerS = 50;    // watchdog started after each heartbeat
constexpr int kAnswerWaitS = 600;        // watchdog started after the login and the query
constexpr int kNetErrorPeriodMs = 10000; // repeat of the status check while it fails
constexpr int kSocketWaitMs = 30000;     // blocking connect, write and disconnect waits
// A frame whose first bytes have come is read once it is whole; one still short this long after
// its first bytes is read as it is, and fails as a frame cut short.
constexpr int kFrameCompleteMs = 10000;
// A frame announcing a longer body is not waited for: it fails at once, as a corrupt head.
constexpr qint64 kMaxFrameBody = 16 * 1024 * 1024;

// Intervals of the push connection in milliseconds. The defaults are the daemon's values; tests
// pass smaller ones to MsgClient's constructor.
struct MsgClientTimes
{
    int stepMs = kStepDelayMs;
    int heartbeatMs = kHeartbeatPeriodS * kMsPerSecond;
    int heartbeatAnswerMs = kHeartbeatAnswerS * kMsPerSecond;
    int answerMs = kAnswerWaitS * kMsPerSecond;
    int netErrorMs = kNetErrorPeriodMs;
    int socketWaitMs = kSocketWaitMs;
    int frameCompleteMs = kFrameCompleteMs;
    PushSocketTimes pathTimes;          // how soon the kernel fails a connection whose path died
    int backoffSecondMs = kMsPerSecond; // length of one second of the reconnection back-off
};

// What readFromServer() read: a response, a push notice or a heartbeat echo (-1: a failure).
enum ServerFrame
{
    kFrameHeartbeat = 0,
    kFrameNotice = 1,
    kFrameResponse = 2
};

// The client type that the push login announces.
constexpr int kClientType = 7;

// The numbered steps of the push connection's process.
enum MsgClientStep
{
    kStepConnect = 0,
    kStepLogin = 1,
    kStepQuery = 2,
    kStepHeartbeat = 3,
    kStepRunning = 4
};

// Where the push connection stands: which connection the steps work on (a number that every
// restart and every step 0 bumps) and the process step (m_process). Work that waited in a nested
// event loop (an HTTP request, a blocking write that delivered socket signals) compares the point
// it started at with the current one, and acts only while they are equal.
struct LinkPoint
{
    quint64 connection = 0;
    int step = kStepConnect;
    bool operator==(const LinkPoint& other) const
    {
        return connection == other.connection && step == other.step;
    }
    bool operator!=(const LinkPoint& other) const { return !(*this == other); }
};

// The daemon's one TCP connection to the push server. It walks a numbered process
// (0 connect, 1 log in, 2 query the latest messages, 3 start the heartbeat, 4 running), one
// step per single-shot timer, reads every whole frame the socket holds, dispatches messages into
// the DataCenter, and on any failure emits checkstatus(true): the login-status check then either
// stores a logout or reconnects after a back-off.
//
// Thread: everything (socket, timers, HTTP requests in nested event loops) runs on the thread
// that created the object, the client thread in the daemon. All connections are direct.
//
// State: the step (m_process) and the connection number (m_connection) say where the connection
// is; the restart timer running means a restart waits for its back-off; m_statusCheck is the
// status check waiting for its answer. The HTTP requests wait in nested event loops, where socket
// signals and timers keep coming, so work overlaps. The rules that keep one chain of steps:
// - one step timer: a restart replaces the pending step of the chain before it;
// - a restart detaches the old socket, so its late signals reach nothing, and stops its
//   watchdog, its network-error timer and the wait for the rest of a frame;
// - a newer status check abandons the one still waiting and takes over its wish to reconnect, so
//   a status request that never answers holds nothing back;
// - one restart timer, re-armed by every confirmation to the newest back-off;
// - everything that waited (a step, a query, a heartbeat, a status check) acts only on the
//   connection and step it started with.
class MsgClient : public QObject
{
    Q_OBJECT
public:
    struct OneMessage
    {
        int type = 0;
        QString face;
        int mark = -1;
        qint64 expire = -1;
    };

    // Source of the back-off's "now" in whole seconds since the epoch; tests replace it.
    using Clock = qint64 (*)();

    explicit MsgClient(QObject* parent = nullptr, const MsgClientTimes& times = MsgClientTimes());
    ~MsgClient() override;

    // Service addresses; by default those compiled into the daemon (serviceurls.h).
    void setServiceUrls(const QString& pushAddressUrl, const QString& ssoStatusUrl);
    static void setBackoffClock(Clock clock);
    // The clocks that tell a suspend (the boot-time clock running ahead of the monotonic one);
    // tests replace them. Null: the system's.
    static void setSleepClocks(const ClockSource* clocks);

    // Read-only views of the connection state (for diagnostics and tests).
    int process() const { return m_process; }
    LinkPoint here() const { return {m_connection, m_process}; }
    const ClientTcpSocket* socket() const { return m_socket; }
    unsigned int sequence() const { return m_sequence; }
    unsigned int responseSeq() const { return m_responseSeq; }
    // Wait of the last reconnection computed by the status check, in milliseconds (0: none).
    int lastReconnectWaitMs() const { return m_lastReconnectWaitMs; }
    // A status check is waiting for its answer; a restart is waiting for its back-off.
    bool checking() const { return m_statusCheck != nullptr; }
    bool reconnectPending() const;
    // The network-error timer runs (the status check failed and is repeated).
    bool netCheckPending() const;

    // Process steps.
    int connect2Server();
    int login();
    // Text of the login request built from the login record's cookie map.
    static QString LoginText(const QMap<QString, QString>& cookies);
    int GetMaxId();
    int StartHeartTimer();
    void nextProcess();
    void startRunTimer();

    int writeCmd(const QByteArray& frame);
    int nread(char* buffer, int length);
    int readHead(tagTRANSPORT_PKG_HEAD_RSP& head);
    int readData(int length, QByteArray& out);
    int readFromServer(QByteArray& out);
    int SendHeart();

    // Timers. The answer watchdog takes seconds, or milliseconds through the Ms variant (which
    // the process uses, so that MsgClientTimes applies).
    void startCheckTime(int seconds);
    void startCheckTimeMs(int msec);
    void stopCheckTime();
    void startNetCheckTime();
    void stopNetCheckTime();
    void CloseSocket();
    // Puts `socket` (connected, or null) in place of the current one, wired like a fresh
    // connection, and hands the current one back detached from this object and still open.
    // Lets tests and fuzzing drive the frame reader on a socket of their own.
    ClientTcpSocket* setSocket(ClientTcpSocket* socket);

    quint64 GetSessionId();
    int GetClientType() { return kClientType; }

    // Push-server address lookup.
    int GetServerAddressList(QStringList& list);
    int ParseServerAddressResponse(const QByteArray& data, QStringList& list);
    int GetServerAddress(QString& ip, int& port);
    // The first entry of the form host:port; false when there is none.
    static bool ChooseServerAddress(const QStringList& list, QString& ip, int& port);

    // Messages.
    bool ParseMessage(QByteArray const& message, QVector<MsgClient::OneMessage>& out);
    void HandlerMessage(const QByteArray& message);
    bool HandleMaxIdMessage(int type, const QByteArray& message);
    int HandleMessageFormServer(int type, const QByteArray& message);
    int SendQuery(const QString& id);

    // Login status and user information.
    bool ParseCheckStatusResponse(const QByteArray& data, CLogoutInfor& out);
    int ParseUserInfor(const QByteArray& data, CUserInfor& out);

signals:
    void checkstatus(bool);
    void checkuserinfo();
    void handleMsg(QByteArray);
    void socketerror();

public slots:
    void onRun();
    void onReadyRead();
    void ondisconnected();
    void onsocketerror();
    void onSendHeartTimer();
    void onCheckTimer();
    void onNetError();
    void onFrameTimer();
    void onPathLost(const QString& reason);
    void onhandleMsg(const QByteArray& message);
    void oncheckstatus(bool bneedconnect);
    void oncheckUserInfor();

private:
    // A status check waiting for its answer (it lives on the stack of oncheckstatus).
    struct StatusCheck;

    // readHead that also hands back the 16 head bytes as received.
    int readHead(tagTRANSPORT_PKG_HEAD_RSP& head, QByteArray& headString);
    // Reads and handles one frame; false when the reading failed (reported as a check).
    bool readOneFrame();
    // The bytes the socket holds make a whole frame (or one that fails however long it waits).
    bool frameComplete() const;
    // Computes the next wait of the process-wide back-off and arms the restart with it, when the
    // confirmation is about the current connection or a restart is already waiting.
    void scheduleReconnect(bool current);
    // Ends the current connection through its disconnection (a status check, then a restart)
    // when its path is known to be gone: the kernel, the network or a suspend said so.
    void failConnection(const QString& reason);
    // Wires a connected socket's signals to this object; detachSocket() undoes it, and ends the
    // watch of the connection's path and the wait for the rest of a frame.
    void attachSocket(ClientTcpSocket* socket);
    void detachSocket();
    std::string scopeName(const char* function) const;
    QTimer* makeTimer(bool singleShot, const char* slot);
    // Frees the sockets closed while a socket signal was being delivered.
    void freeClosedSockets();

    // Held by the slots connected to a push socket's signals (readyRead, disconnected, timer)
    // and by writeCmd() for as long as they run; see CloseSocket().
    class SocketInUse;

    unsigned int m_sequence = 0;
    unsigned int m_responseSeq = 0;
    time_t m_lastQueryTime = 0;
    ClientTcpSocket* m_socket = nullptr;
    // Children of this object, made on its thread, started and stopped for its whole life.
    QTimer* m_checkTimer = nullptr;    // the answer watchdog, single-shot
    QTimer* m_netCheckTimer = nullptr; // repeats the status check while it fails
    QTimer* m_frameTimer = nullptr;    // bounds the wait for the rest of a frame, single-shot
    int m_process = kStepConnect;

    MsgClientTimes m_times;
    QString m_pushAddressUrl;
    QString m_ssoStatusUrl;
    int m_lastReconnectWaitMs = 0;
    QTimer* m_runTimer = nullptr;            // the pending step, single-shot
    QTimer* m_reconnectTimer = nullptr;      // the back-off before a restart, single-shot
    quint64 m_connection = 0;                // see LinkPoint
    StatusCheck* m_statusCheck = nullptr;    // the status check waiting for its answer, if any
    NetworkWatch* m_netWatch = nullptr;      // the current connection's address and link
    SleepWatch m_sleepWatch;                 // a suspend since the connection was made
    int m_socketUseDepth = 0;                // SocketInUse objects alive
    QList<ClientTcpSocket*> m_closedSockets; // closed inside a socket signal, freed after it
};
