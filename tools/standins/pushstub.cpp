// SPDX-License-Identifier: Apache-2.0
#include "pushstub.h"

#include <QMutexLocker>
#include <QTcpServer>
#include <QTcpSocket>
#include <algorithm>
#include <sys/socket.h>

namespace {

// Bodies beyond this size are taken as garbage: no client of ours sends anything close.
const quint32 kMaxBodySize = 16 * 1024 * 1024;

// Marks a frame as malformed; true, since the frame has been taken all the same.
bool reject(PushFrame& frame, const QString& error)
{
    frame.ok = false;
    frame.error = error;
    return true;
}

QString printable(const QByteArray& text)
{
    QString out = QString::fromUtf8(text);
    for (QChar& c : out) {
        if (c.unicode() < 0x20)
            c = QLatin1Char('.');
    }
    return out;
}

} // namespace

QString PushFrame::describe() const
{
    QByteArray letters = magic;
    for (char& c : letters) {
        if (c < 0x20 || c > 0x7E)
            c = '?';
    }
    QString line = QStringLiteral("#%1 %2").arg(connection).arg(QString::fromLatin1(letters));
    if (isLogin()) {
        line += QStringLiteral(" login version=%1 client=%2 session=%3 user=%4 seq=%5 extra=%6 "
                               "text=%7")
                    .arg(version)
                    .arg(clientType)
                    .arg(sessionId)
                    .arg(userId)
                    .arg(seq)
                    .arg(command)
                    .arg(printable(text));
    } else if (isRequest()) {
        line += QStringLiteral(" request#%1 seq=%2 cmd=%3%4 text=%5")
                    .arg(requestIndex)
                    .arg(seq)
                    .arg(command)
                    .arg(isQuery() ? QStringLiteral(" (query)") : QString())
                    .arg(printable(text));
    } else if (isHeartbeat()) {
        line += QStringLiteral(" heartbeat");
    }
    if (!ok)
        line += QStringLiteral(" BAD: ") + error;
    return line;
}

// One accepted client: its read buffer and counters. Child of the socket.
struct PushStub::Connection : public QObject
{
    Connection(QTcpSocket* s, int n) : QObject(s), socket(s), number(n) {}
    QTcpSocket* socket;
    int number;
    QByteArray buffer;
    int requests = 0;     // normal requests seen so far
    bool closing = false; // dropped after a bad frame; ignore the rest
};

PushStub::PushStub(QObject* parent)
    : QObject(parent), m_loginAnswer("{\"code\":0,\"msg\":\"login ok\"}")
{
    qRegisterMetaType<PushFrame>("PushFrame");
}

PushStub::~PushStub()
{
    close();
}

bool PushStub::listen(quint16 port)
{
    close();
    m_server = new QTcpServer(this);
    if (!m_server->listen(m_host, port)) {
        qWarning("PushStub: cannot listen on %s:%u: %s", qPrintable(m_host.toString()), port,
                 qPrintable(m_server->errorString()));
        delete m_server;
        m_server = nullptr;
        return false;
    }
    // Qt listens with a queue of 50 connections; a larger one is set on the socket itself.
    if (m_backlog > 0)
        ::listen(int(m_server->socketDescriptor()), m_backlog);
    connect(m_server, &QTcpServer::newConnection, this, &PushStub::onNewConnection);
    return true;
}

void PushStub::close()
{
    if (!m_server)
        return;
    dropConnections();
    for (Connection* connection : qAsConst(m_connections))
        QObject::disconnect(connection->socket, nullptr, this, nullptr);
    m_server->close();
    delete m_server; // also deletes the sockets, which are its children
    m_server = nullptr;
    m_connections.clear();
}

quint16 PushStub::port() const
{
    return m_server ? m_server->serverPort() : 0;
}

QByteArray PushStub::address() const
{
    return m_host.toString().toLatin1() + ':' + QByteArray::number(port());
}

bool PushStub::setHost(const QHostAddress& host)
{
    if (!host.isLoopback() || host.protocol() != QAbstractSocket::IPv4Protocol)
        return false;
    m_host = host;
    return true;
}

void PushStub::setAnswerLogin(bool answer)
{
    QMutexLocker lock(&m_mutex);
    m_answerLogin = answer;
}

void PushStub::setAnswerRequests(bool answer)
{
    QMutexLocker lock(&m_mutex);
    m_answerRequests = answer;
}

void PushStub::setEchoHeartbeat(bool echo)
{
    QMutexLocker lock(&m_mutex);
    m_echoHeartbeat = echo;
}

void PushStub::setSilent(bool silent)
{
    QMutexLocker lock(&m_mutex);
    m_answerLogin = m_answerRequests = m_echoHeartbeat = !silent;
}

void PushStub::setRefuseConnections(bool refuse)
{
    QMutexLocker lock(&m_mutex);
    m_refuse = refuse;
}

void PushStub::setDropOnce(const QByteArray& point)
{
    QMutexLocker lock(&m_mutex);
    m_dropOnce = point;
}

void PushStub::setLoginAnswer(const QByteArray& text)
{
    QMutexLocker lock(&m_mutex);
    m_loginAnswer = text;
}

void PushStub::setRequestHandler(RequestHandler handler)
{
    QMutexLocker lock(&m_mutex);
    m_handler = std::move(handler);
}

void PushStub::enqueueAnswer(const QByteArray& text)
{
    QMutexLocker lock(&m_mutex);
    m_answers.enqueue(text);
}

void PushStub::setCompressThreshold(int bytes)
{
    QMutexLocker lock(&m_mutex);
    m_compressThreshold = bytes;
}

QByteArray PushStub::defaultQueryAnswer()
{
    return "{\"code\":0,\"data\":{\"list\":[]}}";
}

QList<PushFrame> PushStub::frames() const
{
    QMutexLocker lock(&m_mutex);
    return m_frames;
}

void PushStub::clearFrames()
{
    QMutexLocker lock(&m_mutex);
    m_frames.clear();
}

QList<PushStub::Connection*> PushStub::liveConnections() const
{
    QList<Connection*> out;
    for (Connection* connection : m_connections) {
        if (!connection->closing && connection->socket->state() == QAbstractSocket::ConnectedState)
            out.append(connection);
    }
    return out;
}

int PushStub::openConnections() const
{
    return liveConnections().size();
}

int PushStub::sendRaw(const QByteArray& bytes)
{
    const QList<Connection*> connections = liveConnections();
    for (Connection* connection : connections)
        connection->socket->write(bytes);
    return connections.size();
}

int PushStub::sendNotice(quint32 id, quint32 extra)
{
    return sendRaw(pushwire::noticeFrame(id, extra));
}

int PushStub::sendHeartbeat()
{
    return sendRaw(pushwire::heartbeatFrame());
}

int PushStub::sendResponse(quint32 seq, const QByteArray& text, bool compress, quint32 magic)
{
    const QByteArray frame = pushwire::responseFrame(seq, text, compress, magic);
    if (frame.isEmpty()) {
        qWarning("PushStub: cannot build a response frame");
        return 0;
    }
    const QList<Connection*> connections = liveConnections();
    for (Connection* connection : connections) {
        connection->socket->write(frame);
        emit answerSent(connection->number, seq, text, compress);
    }
    return connections.size();
}

int PushStub::dropConnections()
{
    const QList<Connection*> connections = liveConnections();
    for (Connection* connection : connections) {
        connection->closing = true;
        connection->socket->disconnectFromHost();
    }
    return connections.size();
}

int PushStub::dropOldest(int count)
{
    QList<Connection*> connections = liveConnections();
    std::sort(connections.begin(), connections.end(),
              [](const Connection* a, const Connection* b) { return a->number < b->number; });
    const int dropped = qBound(0, count, int(connections.size()));
    for (int i = 0; i < dropped; ++i) {
        connections.at(i)->closing = true;
        connections.at(i)->socket->disconnectFromHost();
    }
    return dropped;
}

void PushStub::onNewConnection()
{
    while (m_server && m_server->hasPendingConnections()) {
        QTcpSocket* socket = m_server->nextPendingConnection();
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        auto* connection = new Connection(socket, ++m_accepted);
        const int number = connection->number;
        m_connections.insert(number, connection);
        connect(socket, &QTcpSocket::disconnected, this, [this, socket, number]() {
            m_connections.remove(number);
            emit clientDisconnected(number);
            socket->deleteLater();
        });
        bool refuse;
        {
            QMutexLocker lock(&m_mutex);
            refuse = m_refuse;
        }
        emit clientConnected(number);
        if (refuse) {
            connection->closing = true;
            socket->disconnectFromHost();
            continue;
        }
        connect(socket, &QTcpSocket::readyRead, connection, [this, connection]() {
            const QByteArray data = connection->socket->readAll();
            if (connection->closing)
                return;
            connection->buffer.append(data);
            processBuffer(connection);
        });
        if (socket->bytesAvailable() > 0)
            emit socket->readyRead();
    }
}

void PushStub::processBuffer(Connection* connection)
{
    PushFrame frame;
    while (!connection->closing && takeFrame(connection, frame)) {
        record(frame);
        if (!frame.ok) {
            // A malformed frame leaves the stream out of step: drop the client, as a server would.
            connection->closing = true;
            connection->buffer.clear();
            connection->socket->disconnectFromHost();
            return;
        }
        handleFrame(connection, frame);
        frame = PushFrame();
    }
}

bool PushStub::takeFrame(Connection* connection, PushFrame& frame)
{
    QByteArray& buffer = connection->buffer;
    if (buffer.size() < 4)
        return false;
    frame.connection = connection->number;
    frame.magic = buffer.left(4);
    const quint32 magic = pushwire::readLe32(buffer, 0);

    if (magic == pushwire::kMagicHeart) {
        buffer.remove(0, 4);
        return true;
    }
    if (magic != pushwire::kMagicFirstReq && magic != pushwire::kMagicReq)
        return reject(frame,
                      QStringLiteral("unknown magic 0x%1").arg(magic, 8, 16, QLatin1Char('0')));

    // Both requests are a head that ends with the body length, then the sealed body.
    const bool login = magic == pushwire::kMagicFirstReq;
    const int headSize = login ? pushwire::kLoginHeadSize : pushwire::kHeadSize;
    if (buffer.size() < headSize)
        return false;
    const quint32 bodySize = pushwire::readLe32(buffer, headSize - 4);
    if (bodySize > kMaxBodySize)
        return reject(frame, QStringLiteral("body length %1 too large").arg(bodySize));
    if (buffer.size() < headSize + int(bodySize))
        return false;
    const QByteArray head = buffer.left(headSize);
    const QByteArray body = buffer.mid(headSize, int(bodySize));
    buffer.remove(0, headSize + int(bodySize));

    QByteArray plain;
    bool opened = false;
    if (login) {
        frame.version = pushwire::readLe16(head, 4);
        frame.clientType = static_cast<quint8>(head.at(6));
        frame.sessionId = pushwire::readLe64(head, 8);
        frame.userId = pushwire::readLe32(head, 16);
        frame.seq = pushwire::readLe32(head, 20);
        frame.token = head.mid(pushwire::kTokenOffset, pushwire::kTokenSize);
        opened = pushwire::openLoginBody(frame.userId, frame.token, body, plain);
    } else {
        frame.seq = pushwire::readLe32(head, 4);
        frame.requestIndex = connection->requests++;
        opened = pushwire::openRequestBody(body, plain);
    }
    if (!opened || plain.size() < 4) {
        return reject(frame, QStringLiteral("%1 body does not open (%2 bytes)")
                                 .arg(login ? "login" : "request")
                                 .arg(body.size()));
    }
    frame.command = pushwire::readLe32(plain, 0);
    frame.text = plain.mid(4);
    if (login && frame.version != 1)
        reject(frame, QStringLiteral("login version %1, expected 1").arg(frame.version));
    return true;
}

void PushStub::record(const PushFrame& frame)
{
    {
        QMutexLocker lock(&m_mutex);
        m_frames.append(frame);
    }
    emit frameReceived(frame);
}

void PushStub::handleFrame(Connection* connection, const PushFrame& frame)
{
    QMutexLocker lock(&m_mutex);
    const auto dropHere = [&](const char* point) {
        if (m_dropOnce != point)
            return false;
        m_dropOnce.clear();
        connection->closing = true;
        connection->socket->disconnectFromHost();
        return true;
    };
    if ((frame.isLogin() && dropHere("login")) || (frame.isQuery() && dropHere("query")))
        return;
    const bool dropAfter = frame.isQuery() && m_dropOnce == "answered";
    if (frame.isHeartbeat()) {
        if (m_echoHeartbeat)
            connection->socket->write(pushwire::heartbeatFrame());
        return;
    }
    if (frame.isLogin()) {
        if (!m_answerLogin)
            return;
        const QByteArray text = m_loginAnswer;
        lock.unlock();
        answer(connection, frame.seq, text);
        return;
    }
    if (!m_answerRequests)
        return;
    QByteArray text;
    if (m_handler) {
        const RequestHandler handler = m_handler;
        lock.unlock();
        text = handler(frame); // may call back into the setters
    } else {
        text = m_answers.isEmpty() ? defaultQueryAnswer() : m_answers.dequeue();
        lock.unlock();
    }
    if (!text.isNull())
        answer(connection, frame.seq, text);
    if (dropAfter) {
        lock.relock();
        dropHere("answered");
    }
}

void PushStub::answer(Connection* connection, quint32 seq, const QByteArray& text)
{
    int threshold;
    {
        QMutexLocker lock(&m_mutex);
        threshold = m_compressThreshold;
    }
    bool compress = false;
    if (threshold >= 0 && text.size() >= threshold && !text.isEmpty()) {
        const QByteArray block = pushwire::lz4Block(text);
        compress = !block.isEmpty() && pushwire::fitsDecompressBound(text.size(), block.size());
    }
    const QByteArray frame = pushwire::responseFrame(seq, text, compress);
    if (frame.isEmpty()) {
        qWarning("PushStub: cannot build a response frame");
        return;
    }
    connection->socket->write(frame);
    emit answerSent(connection->number, seq, text, compress);
}
