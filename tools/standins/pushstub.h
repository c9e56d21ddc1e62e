#pragma once
// SPDX-License-Identifier: Apache-2.0

// A stand-in push server on 127.0.0.1 that speaks the daemon's push wire protocol (see
// pushwire.h). It checks and records every frame a client sends, answers the login and the
// requests with response frames, echoes heartbeats, and can send notices, drop connections,
// stay silent or refuse clients, so that every reaction of the client can be provoked.
//
// Threads: the object and its sockets live on the thread that created it (or that it was moved
// to) and are purely event driven. The behaviour setters, frames() and clearFrames() may be
// called from any thread; the send/drop actions must be called on the owner thread (use
// QMetaObject::invokeMethod from elsewhere).

#include "pushwire.h"

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QMetaType>
#include <QMutex>
#include <QObject>
#include <QQueue>
#include <QString>
#include <functional>

class QTcpServer;
class QTcpSocket;

struct PushFrame
{
    QByteArray magic;      // "GOOS", "HOOS", "IOOS"; for an unknown magic its 4 raw bytes
    int connection = 0;    // 1-based number of the connection it came on
    int requestIndex = -1; // "IOOS" only: 0 for the first normal request of its connection
    quint16 version = 0;   // "HOOS" only
    quint8 clientType = 0; // "HOOS" only
    quint64 sessionId = 0; // "HOOS" only
    quint32 userId = 0;    // "HOOS" only
    quint32 seq = 0;       // "HOOS" and "IOOS"
    QByteArray token;      // "HOOS" only: the 48 token bytes
    quint32 command = 0;   // "IOOS": the command; "HOOS": the extra value
    QByteArray text;       // the body's text after its 4-byte value
    bool ok = true;        // false: the frame was malformed or its body did not open
    QString error;         // why ok is false

    bool isHeartbeat() const { return magic == "GOOS"; }
    bool isLogin() const { return magic == "HOOS"; }
    bool isRequest() const { return magic == "IOOS"; }
    bool isQuery() const { return isRequest() && command == pushwire::kQueryCommand; }
    // One readable line, e.g. `#1 IOOS seq=1 cmd=16781314 text={"id":"0", ...}`.
    QString describe() const;
};
Q_DECLARE_METATYPE(PushFrame)

class PushStub : public QObject
{
    Q_OBJECT
public:
    // Makes the answer text for a normal request; a null QByteArray means "do not answer".
    using RequestHandler = std::function<QByteArray(const PushFrame&)>;

    explicit PushStub(QObject* parent = nullptr);
    ~PushStub() override;

    // Listens on the host (127.0.0.1 unless set); 0 picks a free port.
    bool listen(quint16 port = 0);
    // Another IPv4 loopback address to listen on, e.g. one on an interface of a test's own
    // (127.0.0.0/8 only; false otherwise). Takes effect at the next listen().
    bool setHost(const QHostAddress& host);
    // Stops listening (new connections are refused) and drops every open connection.
    void close();
    // Length of the accept queue of the next listen (0: Qt's own, 50).
    void setListenBacklog(int backlog) { m_backlog = backlog; }
    quint16 port() const;
    // "<host>:<port>", e.g. "127.0.0.1:18628", the form the push-address service hands out.
    QByteArray address() const;

    // Behaviour; each takes effect from the next frame on.
    void setAnswerLogin(bool answer);       // default true
    void setAnswerRequests(bool answer);    // default true
    void setEchoHeartbeat(bool echo);       // default true
    void setSilent(bool silent);            // all three of the above off (true) or on (false)
    void setRefuseConnections(bool refuse); // accept and close at once; default false
    // Drops the connection once, at the next "login" (unanswered), "query" (unanswered) or
    // right after answering the next query ("answered"); empty clears it.
    void setDropOnce(const QByteArray& point);
    // Text of the answer to a login; default {"code":0,"msg":"login ok"}.
    void setLoginAnswer(const QByteArray& text);
    // Replaces the default request handler, which answers with the queued texts in order and,
    // when the queue is empty, with defaultQueryAnswer().
    void setRequestHandler(RequestHandler handler);
    void enqueueAnswer(const QByteArray& text);
    // Answers of at least `bytes` bytes are sent as LZ4 blocks when the client's decompression
    // bound allows it; 0 = compress every answer that fits, -1 = never. Default 1024.
    void setCompressThreshold(int bytes);
    static QByteArray defaultQueryAnswer(); // {"code":0,"data":{"list":[]}}

    // Actions on every open connection (owner thread only); each returns how many got it.
    int sendNotice(quint32 id, quint32 extra = 0);
    int sendResponse(quint32 seq, const QByteArray& text, bool compress = false,
                     quint32 magic = pushwire::kMagicRsp);
    int sendHeartbeat();
    int sendRaw(const QByteArray& bytes);
    int dropConnections();
    // Drops the `count` longest-open connections (the lowest numbers), as one slice of a rolling
    // restart.
    int dropOldest(int count);

    int openConnections() const;
    int acceptedCount() const { return m_accepted; }

    QList<PushFrame> frames() const;
    void clearFrames();

signals:
    void frameReceived(const PushFrame& frame);
    void clientConnected(int connection);
    void clientDisconnected(int connection);
    void answerSent(int connection, quint32 seq, const QByteArray& text, bool compressed);

private:
    struct Connection;

    void onNewConnection();
    void processBuffer(Connection* connection);
    // Parses one frame from the front of the buffer. Returns false when more bytes are needed.
    bool takeFrame(Connection* connection, PushFrame& frame);
    void handleFrame(Connection* connection, const PushFrame& frame);
    void answer(Connection* connection, quint32 seq, const QByteArray& text);
    void record(const PushFrame& frame);
    QList<Connection*> liveConnections() const;

    QHostAddress m_host = QHostAddress(QHostAddress::LocalHost);
    QTcpServer* m_server = nullptr;
    int m_backlog = 0;
    QHash<int, Connection*> m_connections; // open or closing clients by number
    int m_accepted = 0;

    mutable QMutex m_mutex; // guards everything below
    bool m_answerLogin = true;
    bool m_answerRequests = true;
    bool m_echoHeartbeat = true;
    bool m_refuse = false;
    QByteArray m_dropOnce;
    int m_compressThreshold = 1024;
    QByteArray m_loginAnswer;
    RequestHandler m_handler;
    QQueue<QByteArray> m_answers;
    QList<PushFrame> m_frames;
};
