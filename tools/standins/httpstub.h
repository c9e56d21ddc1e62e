#pragma once
// SPDX-License-Identifier: Apache-2.0

// A small HTTP/1.1 server on 127.0.0.1 for tests and for the sandbox. It is purely event driven
// (no blocking waits while serving), so it can share a thread with a client that waits for its
// answer in a nested event loop. All of it runs on the thread that owns the HttpStub object.

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QMutex>
#include <QObject>
#include <QPair>
#include <functional>

class QTcpServer;
class QTcpSocket;

struct HttpStubRequest
{
    QByteArray method;                    // "GET", "POST", ...
    QByteArray path;                      // without the query, e.g. "/get_tcp_server"
    QByteArray query;                     // text after '?', not decoded; empty if none
    QMap<QByteArray, QByteArray> headers; // lower-case names; repeated names joined by ", "
    QByteArray body;

    QByteArray header(const QByteArray& name) const { return headers.value(name.toLower()); }
    // Value of one query item, percent-decoded ('+' read as a blank); empty if absent.
    QByteArray queryItem(const QByteArray& name) const;
    bool hasQueryItem(const QByteArray& name) const;
};
Q_DECLARE_METATYPE(HttpStubRequest)

struct HttpStubResponse
{
    int status = 200;
    QByteArray body;
    // Extra headers in order; a name may repeat (several Set-Cookie lines). Content-Length is
    // always added by the server and must not be given here.
    QList<QPair<QByteArray, QByteArray>> headers;
    int delayMs = 0;   // answer this many milliseconds later (other work goes on meanwhile)
    bool drop = false; // close the connection instead of answering (after delayMs)

    static HttpStubResponse json(const QByteArray& body, int status = 200);
};

class HttpStub : public QObject
{
    Q_OBJECT
public:
    using Handler = std::function<HttpStubResponse(const HttpStubRequest&)>;

    explicit HttpStub(QObject* parent = nullptr);
    ~HttpStub() override;

    // Listens on 127.0.0.1; port 0 picks any free port. Returns false (and logs a warning)
    // when the port is taken or, for TLS, when no certificate could be made.
    bool listen(quint16 port = 0);
    // The same with TLS, using a throwaway self-signed certificate for CN=localhost that is
    // made once per process with the openssl command-line tool.
    bool listenTls(quint16 port = 0);
    void close();
    // Length of the accept queue of the next listen (0: Qt's own, 50).
    void setListenBacklog(int backlog) { m_backlog = backlog; }
    quint16 port() const;
    bool isTls() const { return m_tls; }
    // "http://127.0.0.1:<port>" or "https://127.0.0.1:<port>".
    QByteArray baseUrl() const;

    // Exact match on the path (without query). A later route for the same path replaces the
    // earlier one. Requests to paths without a route get the fallback handler, which answers
    // 404 unless replaced with setFallback().
    void route(const QByteArray& path, const Handler& handler);
    void setFallback(Handler handler);

    QList<HttpStubRequest> requests() const;
    void clearRequests();
    // Number of TCP connections accepted so far (shows keep-alive reuse).
    int connectionCount() const { return m_connectionCount; }

signals:
    void requestSeen(const HttpStubRequest& request);
    // A connection that opened with a TLS handshake on a plain HTTP port: it got a plain 400.
    void tlsRefused();

private:
    struct Connection;
    class Server;

    bool startListening(quint16 port);
    void onNewConnection();
    void processBuffer(Connection* connection);
    void answer(Connection* connection, const HttpStubRequest& request,
                const HttpStubResponse& response);
    HttpStubResponse dispatch(const HttpStubRequest& request);

    Server* m_server = nullptr;
    bool m_tls = false;
    int m_backlog = 0;
    QMap<QByteArray, Handler> m_routes;
    Handler m_fallback;
    mutable QMutex m_mutex; // guards m_requests (read from other threads by tests)
    QList<HttpStubRequest> m_requests;
    int m_connectionCount = 0;
};
