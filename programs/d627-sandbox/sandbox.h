#pragma once
// SPDX-License-Identifier: Apache-2.0

// The sandbox: the push-address service, the single-sign-on status service and a push server in
// one process on 127.0.0.1, with a scripted state that a person or a script changes through
// control commands (standard input lines or /control/... paths on the HTTP port). Every request,
// frame and change is printed as one line on standard output.
//
// How a change reaches the main application through the daemon:
// - avatar and membership: the daemon reads them only from the answer to the FIRST query after
//   each login. A change is queued for that answer; the open connection is then dropped, the
//   daemon checks the status (valid), reconnects after its back-off, logs in, queries, and the
//   answer carries the change.
// - notice: in the running state the daemon answers a notice with a query; the answer to that
//   query makes it check the status and mark a membership refresh (level 100, expiry 100).
// - logout elsewhere: the status service is switched to "logged out" and the connection dropped;
//   the daemon's status check then reports the logout and the daemon exits.
//
// Everything runs on the main thread's event loop.

#include "httpstub.h"
#include "pushstub.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QMap>
#include <QObject>

class Sandbox : public QObject
{
    Q_OBJECT
public:
    using Params = QMap<QByteArray, QByteArray>;

    explicit Sandbox(QObject* parent = nullptr);

    // Starts both servers; false (after a printed line) when a port is taken.
    bool start(quint16 httpPort, quint16 pushPort, bool tls);
    // Runs one control command and returns its answer as a compact JSON object with "ok".
    QByteArray control(const QByteArray& command, const Params& params);
    // Turns a standard-input line ("avatar http://x/a.png", "vip 5 1900000000",
    // "sso mode=error status=503", "logout kicked by another device") into a command.
    QByteArray controlLine(const QByteArray& line);
    void setCookie(const QByteArray& setCookieValue) { m_cookie = setCookieValue; }
    // Accept queue of both servers (0: Qt's own, 50 connections).
    void setListenBacklog(int backlog)
    {
        m_http.setListenBacklog(backlog);
        m_push.setListenBacklog(backlog);
    }

    static void say(const QString& text); // one timestamped, flushed line on stdout

signals:
    void quitRequested();

private:
    enum class SsoMode
    {
        Ok,
        Logout,
        Error,
        Slow,
        Drop
    };
    enum class AddressMode
    {
        Ok,
        Down,
        State0,
        Bad,
        Drop,
        Refused
    };

    HttpStubResponse onAddress(const HttpStubRequest& request);
    HttpStubResponse onSso(const HttpStubRequest& request);
    HttpStubResponse onControl(const HttpStubRequest& request);
    QByteArray onPushRequest(const PushFrame& frame);
    // Fault commands: raw bytes and hand-made response frames on the push link, answer
    // overrides and the listener of the HTTP services.
    QByteArray faultControl(const QByteArray& command, const Params& params);
    HttpStubResponse answerFor(const HttpStubRequest& request,
                               const std::function<HttpStubResponse()>& normal);
    // Queues one inner message for the next first query and, unless told not to, drops the
    // connection so that a new login happens soon.
    QByteArray queueChange(const QJsonObject& inner, const Params& params, const QString& what);
    QJsonObject status() const;
    void logHttp(const HttpStubRequest& request, const HttpStubResponse& response);

    HttpStub m_http;
    PushStub m_push;
    SsoMode m_ssoMode = SsoMode::Ok;
    QString m_logoutMessage;
    int m_ssoErrorStatus = 500;
    int m_ssoDelayMs = 5000;
    AddressMode m_addressMode = AddressMode::Ok;
    QByteArray m_cookie;   // Set-Cookie value sent with every status answer; empty: none
    QJsonArray m_pending;  // items for the next first query answer
    QJsonArray m_everyone; // items for the first query answer of every connection ("every=1")
    int m_padTo = 0;       // bytes that answer is filled to (pad=N); 0: not filled
    quint32 m_nextNoticeId = 1;
    QMap<QByteArray, HttpStubResponse> m_overrides; // by path
    quint16 m_httpPort = 0;
    quint16 m_pushPort = 0;
    bool m_tls = false;
    quint16 m_refusedPort = 0; // a port on 127.0.0.1 that nobody listens on
};
