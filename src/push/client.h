#pragma once
// SPDX-License-Identifier: Apache-2.0

#include "push/msg_client.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>
#include <ctime>
#include <optional>

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
constexpr int kMsPerSecond = 1000;

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

// The daemon's one TCP connection to the push server. It walks a numbered process
// (0 connect, 1 log in, 2 query the latest messages, 3 start the heartbeat, 4 running), one
// step per single-shot timer, reads one frame per readyRead, dispatches messages into the
// DataCenter, and on any failure emits checkstatus(true): the login-status check then either
// stores a logout or reconnects after a back-off.
//
// Thread: everything (socket, timers, HTTP requests in nested event loops) runs on the thread
// that created the object, the client thread in the daemon. All connections are direct.
//
// One chain of steps at a time. The HTTP requests wait in nested event loops, where socket
// signals and timers of this object keep coming, so failures can overlap:
// - one step timer: a restart replaces the pending step of the chain before it;
// - a restart also detaches the old socket, so its late signals reach nothing;
// - a status check asked for while one is under way is merged into it (with a reconnection if
//   any merged request asked for one), and a reconnection is scheduled only for the chain that
//   is current and only once per failure episode (none while one is pending);
// - a handler that waited in a nested loop moves the steps on only if the chain (m_chain) and
//   the step are still the ones it started with.
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

    // Read-only views of the connection state (for diagnostics and tests).
    int process() const { return m_process; }
    unsigned int sequence() const { return m_sequence; }
    unsigned int responseSeq() const { return m_responseSeq; }
    // Wait of the last reconnection scheduled by the status check, in milliseconds (0: none).
    int lastReconnectWaitMs() const { return m_lastReconnectWaitMs; }
    // A status check is waiting for its answer; a reconnection is waiting for its back-off.
    bool checking() const { return m_checking; }
    bool reconnectPending() const;

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
    void onhandleMsg(const QByteArray& message);
    void oncheckstatus(bool bneedconnect);
    void oncheckUserInfor();

private:
    // readHead that also hands back the 16 head bytes as received.
    int readHead(tagTRANSPORT_PKG_HEAD_RSP& head, QByteArray& headString);
    // Schedules onsocketerror() after the process-wide back-off.
    void scheduleReconnect();
    // Disconnects the current socket's signals from this object, leaving it open.
    void detachSocket();
    // Stops a timer and deletes it once control is back in the event loop: the timer may be the
    // one whose timeout() is being delivered.
    static void retireTimer(QTimer*& timer);
    std::string scopeName(const char* function) const;
    // Frees the sockets closed while a socket signal was being delivered.
    void freeClosedSockets();

    // Held by the slots connected to a push socket's signals (readyRead, disconnected, timer)
    // for as long as they run; see CloseSocket().
    class SocketSignalScope;

    unsigned int m_sequence = 0;
    unsigned int m_responseSeq = 0;
    time_t m_lastQueryTime = 0;
    ClientTcpSocket* m_socket = nullptr;
    QTimer* m_checkTimer = nullptr;
    QTimer* m_netCheckTimer = nullptr;
    int m_process = 0;

    MsgClientTimes m_times;
    QString m_pushAddressUrl;
    QString m_ssoStatusUrl;
    int m_lastReconnectWaitMs = 0;
    QTimer* m_runTimer = nullptr;       // the pending step, single-shot
    QTimer* m_reconnectTimer = nullptr; // the back-off before a restart, single-shot
    // Bumped by every restart, disconnection and closed socket: what a nested wait compares.
    quint64 m_chain = 0;
    bool m_checking = false; // a status check waits for its answer
    // m_chain when the check under way (or one merged into it) last asked to reconnect.
    std::optional<quint64> m_reconnectFor;
    bool m_connecting = false;   // connect2Server() is running (possibly in a nested event loop)
    int m_socketSignalDepth = 0; // SocketSignalScope objects alive
    QList<ClientTcpSocket*> m_closedSockets; // closed inside a socket signal, freed after it
};
