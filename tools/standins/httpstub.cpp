// SPDX-License-Identifier: Apache-2.0
#include "httpstub.h"

#include <QDebug>
#include <QFile>
#include <QMutexLocker>
#include <QPointer>
#include <QProcess>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrl>
#include <sys/socket.h>

namespace {

const int kMaxHeadBytes = 64 * 1024;

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 204:
        return "No Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 500:
        return "Internal Server Error";
    case 501:
        return "Not Implemented";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

struct TlsIdentity
{
    QSslCertificate certificate;
    QSslKey key;
};

// Makes (once per process) a self-signed certificate for CN=localhost with the openssl tool.
// Runs at listen time only, never while requests are served.
const TlsIdentity* tlsIdentity()
{
    static QMutex mutex;
    static bool tried = false;
    static TlsIdentity identity;
    QMutexLocker lock(&mutex);
    if (!tried) {
        tried = true;
        QTemporaryDir dir;
        const QString keyPath = dir.filePath("key.pem");
        const QString certPath = dir.filePath("cert.pem");
        QProcess openssl;
        openssl.setProcessChannelMode(QProcess::MergedChannels);
        openssl.start("openssl", {"req", "-x509", "-newkey", "ec", "-pkeyopt",
                                  "ec_paramgen_curve:prime256v1", "-nodes", "-days", "1", "-subj",
                                  "/CN=localhost", "-keyout", keyPath, "-out", certPath});
        if (!openssl.waitForFinished(30000) || openssl.exitCode() != 0) {
            qWarning("HttpStub: openssl failed: %s", openssl.readAll().constData());
        } else {
            QFile keyFile(keyPath);
            QFile certFile(certPath);
            if (keyFile.open(QIODevice::ReadOnly) && certFile.open(QIODevice::ReadOnly)) {
                identity.key = QSslKey(keyFile.readAll(), QSsl::Ec, QSsl::Pem);
                identity.certificate = QSslCertificate(certFile.readAll(), QSsl::Pem);
            }
        }
    }
    if (identity.key.isNull() || identity.certificate.isNull())
        return nullptr;
    return &identity;
}

} // namespace

QByteArray HttpStubRequest::queryItem(const QByteArray& name) const
{
    for (const QByteArray& item : query.split('&')) {
        const int eq = item.indexOf('=');
        const QByteArray key = eq < 0 ? item : item.left(eq);
        if (QByteArray::fromPercentEncoding(QByteArray(key).replace('+', ' ')) != name)
            continue;
        if (eq < 0)
            return QByteArray();
        return QByteArray::fromPercentEncoding(item.mid(eq + 1).replace('+', ' '));
    }
    return QByteArray();
}

bool HttpStubRequest::hasQueryItem(const QByteArray& name) const
{
    for (const QByteArray& item : query.split('&')) {
        const int eq = item.indexOf('=');
        const QByteArray key = eq < 0 ? item : item.left(eq);
        if (!item.isEmpty() &&
            QByteArray::fromPercentEncoding(QByteArray(key).replace('+', ' ')) == name)
            return true;
    }
    return false;
}

HttpStubResponse HttpStubResponse::json(const QByteArray& body, int status)
{
    HttpStubResponse response;
    response.status = status;
    response.body = body;
    response.headers.append(qMakePair(QByteArray("Content-Type"), QByteArray("application/json")));
    return response;
}

// One accepted connection: its read buffer and whether an answer is still pending. Child of the
// socket, so it goes away with it.
struct HttpStub::Connection : public QObject
{
    explicit Connection(QTcpSocket* s) : QObject(s), socket(s) {}
    QTcpSocket* socket;
    QByteArray buffer;
    bool busy = false;    // an answer is delayed; later requests wait behind it
    bool closing = false; // the connection is being closed; ignore further input
};

// QTcpServer that, in TLS mode, hands out server-side QSslSocket objects.
class HttpStub::Server : public QTcpServer
{
public:
    explicit Server(QObject* parent) : QTcpServer(parent) {}
    const TlsIdentity* identity = nullptr;

protected:
    void incomingConnection(qintptr handle) override
    {
        if (!identity) {
            QTcpServer::incomingConnection(handle);
            return;
        }
        auto* socket = new QSslSocket(this);
        if (!socket->setSocketDescriptor(handle)) {
            delete socket;
            return;
        }
        socket->setLocalCertificate(identity->certificate);
        socket->setPrivateKey(identity->key);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        QObject::connect(socket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors),
                         socket, [socket](const QList<QSslError>&) { socket->ignoreSslErrors(); });
        socket->startServerEncryption();
        addPendingConnection(socket);
    }
};

HttpStub::HttpStub(QObject* parent) : QObject(parent)
{
    qRegisterMetaType<HttpStubRequest>("HttpStubRequest");
    m_fallback = [](const HttpStubRequest&) {
        HttpStubResponse response;
        response.status = 404;
        response.body = "not found";
        return response;
    };
}

HttpStub::~HttpStub()
{
    close();
}

bool HttpStub::listen(quint16 port)
{
    m_tls = false;
    return startListening(port);
}

bool HttpStub::listenTls(quint16 port)
{
    m_tls = true;
    return startListening(port);
}

bool HttpStub::startListening(quint16 port)
{
    close();
    m_server = new Server(this);
    if (m_tls) {
        m_server->identity = tlsIdentity();
        if (!m_server->identity) {
            qWarning("HttpStub: no TLS certificate, cannot listen with TLS");
            close();
            return false;
        }
    }
    if (!m_server->listen(QHostAddress::LocalHost, port)) {
        qWarning("HttpStub: cannot listen on 127.0.0.1:%u: %s", port,
                 qPrintable(m_server->errorString()));
        close();
        return false;
    }
    // Qt listens with a queue of 50 connections; a larger one is set on the socket itself.
    if (m_backlog > 0)
        ::listen(int(m_server->socketDescriptor()), m_backlog);
    connect(m_server, &QTcpServer::newConnection, this, &HttpStub::onNewConnection);
    return true;
}

void HttpStub::close()
{
    if (!m_server)
        return;
    m_server->close();
    // Sockets are children of the server; deleting it closes every open connection.
    delete m_server;
    m_server = nullptr;
}

quint16 HttpStub::port() const
{
    return m_server ? m_server->serverPort() : 0;
}

QByteArray HttpStub::baseUrl() const
{
    return (m_tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + QByteArray::number(port());
}

void HttpStub::route(const QByteArray& path, const Handler& handler)
{
    m_routes.insert(path, handler);
}

void HttpStub::setFallback(Handler handler)
{
    m_fallback = std::move(handler);
}

QList<HttpStubRequest> HttpStub::requests() const
{
    QMutexLocker lock(&m_mutex);
    return m_requests;
}

void HttpStub::clearRequests()
{
    QMutexLocker lock(&m_mutex);
    m_requests.clear();
}

void HttpStub::onNewConnection()
{
    while (m_server && m_server->hasPendingConnections()) {
        QTcpSocket* socket = m_server->nextPendingConnection();
        ++m_connectionCount;
        auto* connection = new Connection(socket);
        connect(socket, &QTcpSocket::readyRead, connection, [this, connection]() {
            if (connection->closing) {
                connection->socket->readAll();
                return;
            }
            connection->buffer.append(connection->socket->readAll());
            processBuffer(connection);
        });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        if (socket->bytesAvailable() > 0)
            emit socket->readyRead();
    }
}

// Takes every complete request out of the buffer, in order. A delayed answer holds back the
// requests behind it so that answers on one connection keep their order.
void HttpStub::processBuffer(Connection* connection)
{
    while (!connection->busy && !connection->closing) {
        QByteArray& buffer = connection->buffer;
        if (!m_tls && buffer.startsWith('\x16')) {
            // A TLS client hello: a plain answer makes the client's handshake fail at once.
            HttpStubResponse plain;
            plain.status = 400;
            plain.body = "plain HTTP only";
            connection->closing = true;
            answer(connection, HttpStubRequest(), plain);
            emit tlsRefused();
            return;
        }
        const int headEnd = buffer.indexOf("\r\n\r\n");
        if (headEnd < 0) {
            if (buffer.size() > kMaxHeadBytes) {
                HttpStubResponse tooLarge;
                tooLarge.status = 400;
                tooLarge.body = "request head too large";
                connection->closing = true;
                answer(connection, HttpStubRequest(), tooLarge);
            }
            return;
        }

        HttpStubRequest request;
        const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        bool bad = requestLine.size() != 3 || !requestLine.at(2).startsWith("HTTP/1.");
        QByteArray version;
        if (!bad) {
            request.method = requestLine.at(0);
            const QByteArray& target = requestLine.at(1);
            const int question = target.indexOf('?');
            request.path = question < 0 ? target : target.left(question);
            request.query = question < 0 ? QByteArray() : target.mid(question + 1);
            version = requestLine.at(2);
        }
        for (int i = 1; i < lines.size() && !bad; ++i) {
            const QByteArray line = lines.at(i).trimmed();
            if (line.isEmpty())
                continue;
            const int colon = line.indexOf(':');
            if (colon <= 0) {
                bad = true;
                break;
            }
            const QByteArray name = line.left(colon).trimmed().toLower();
            const QByteArray value = line.mid(colon + 1).trimmed();
            if (request.headers.contains(name))
                request.headers[name] += ", " + value;
            else
                request.headers.insert(name, value);
        }
        bool lengthOk = true;
        const qint64 length = request.headers.value("content-length", "0").toLongLong(&lengthOk);
        if (!bad && (!lengthOk || length < 0)) {
            bad = true;
        }
        // A request we cannot read ends the connection after one plain answer.
        const auto refuse = [&](int status, const QByteArray& text) {
            HttpStubResponse response;
            response.status = status;
            response.body = text;
            connection->closing = true;
            answer(connection, request, response);
        };
        if (!bad && request.headers.value("transfer-encoding").toLower().contains("chunked")) {
            refuse(501, "chunked request bodies are not supported");
            return;
        }
        if (bad) {
            refuse(400, "bad request");
            return;
        }
        const qint64 total = headEnd + 4 + length;
        if (buffer.size() < total)
            return; // the body is still on its way
        request.body = buffer.mid(headEnd + 4, static_cast<int>(length));
        buffer.remove(0, static_cast<int>(total));

        const QByteArray connectionHeader = request.headers.value("connection").toLower();
        if (connectionHeader.contains("close") ||
            (version == "HTTP/1.0" && !connectionHeader.contains("keep-alive")))
            connection->closing = true;

        {
            QMutexLocker lock(&m_mutex);
            m_requests.append(request);
        }
        emit requestSeen(request);
        const HttpStubResponse response = dispatch(request);
        if (response.delayMs > 0) {
            connection->busy = true;
            QTimer::singleShot(response.delayMs, connection,
                               [this, connection, request, response]() {
                                   connection->busy = false;
                                   answer(connection, request, response);
                                   processBuffer(connection);
                               });
            return;
        }
        answer(connection, request, response);
    }
}

HttpStubResponse HttpStub::dispatch(const HttpStubRequest& request)
{
    const auto it = m_routes.constFind(request.path);
    if (it != m_routes.constEnd() && it.value())
        return it.value()(request);
    return m_fallback(request);
}

void HttpStub::answer(Connection* connection, const HttpStubRequest& request,
                      const HttpStubResponse& response)
{
    QTcpSocket* socket = connection->socket;
    if (response.drop) {
        connection->closing = true;
        socket->disconnectFromHost();
        return;
    }
    QByteArray out = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' +
                     reasonPhrase(response.status) + "\r\n";
    for (const auto& header : response.headers)
        out += header.first + ": " + header.second + "\r\n";
    out += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    if (connection->closing)
        out += "Connection: close\r\n";
    out += "\r\n";
    if (request.method != "HEAD")
        out += response.body;
    socket->write(out);
    if (connection->closing)
        socket->disconnectFromHost(); // sends what is buffered, then closes
}
