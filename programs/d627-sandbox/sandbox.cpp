// SPDX-License-Identifier: Apache-2.0
#include "sandbox.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTimer>
#include <cstdio>
#include <utility>

namespace {

const QByteArray kAddressPath = "/get_tcp_server";
const QByteArray kSsoPath = "/app/1.0/linux/5.0.1/check/sso";
const QByteArray kControlPrefix = "/control/";

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray failure(const QString& error)
{
    return compact({{"ok", false}, {"error", error}});
}

// Long answers: at most one segment-rich 64 kB answer, as the push server sends for a long list.
constexpr int kMaxLongAnswer = 65536;
constexpr int kFillerItemChars = 1024;

// Text that no compressor shrinks much: random letters, digits, "-" and "_" (safe in URLs).
QString randomText(int size)
{
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    QString text(size, QLatin1Char('x'));
    for (QChar& c : text)
        c = QLatin1Char(kAlphabet[QRandomGenerator::global()->bounded(64)]);
    return text;
}

// The length asked for by `name` (0 when absent), or -1 when it is not a number up to 64 kB.
int longLength(const Sandbox::Params& params, const QByteArray& name)
{
    bool ok = true;
    const int length = params.contains(name) ? params.value(name).toInt(&ok) : 0;
    return ok && length >= 0 && length <= kMaxLongAnswer ? length : -1;
}

bool wantsDrop(const Sandbox::Params& params)
{
    const QByteArray drop = params.value("drop", "1");
    return drop != "0" && drop != "false" && drop != "no";
}

QString oneLine(const QByteArray& text)
{
    QString out = QString::fromUtf8(text.left(160));
    if (text.size() > 160)
        out += QStringLiteral("... (%1 bytes)").arg(text.size());
    for (QChar& c : out) {
        if (c.unicode() < 0x20)
            c = QLatin1Char(' ');
    }
    return out;
}

// Positional arguments of the standard-input commands, in order.
QList<QByteArray> positionalNames(const QByteArray& command)
{
    if (command == "avatar")
        return {"url", "drop"};
    if (command == "vip")
        return {"level", "expire", "drop"};
    if (command == "message")
        return {"t", "drop"};
    if (command == "notice")
        return {"id"};
    if (command == "raw")
        return {"hex", "split"};
    if (command == "sso" || command == "address" || command == "push")
        return {"mode"};
    return {};
}

} // namespace

Sandbox::Sandbox(QObject* parent) : QObject(parent)
{
    m_http.route(kAddressPath, [this](const HttpStubRequest& r) {
        return answerFor(r, [&]() { return onAddress(r); });
    });
    m_http.route(kSsoPath, [this](const HttpStubRequest& r) {
        return answerFor(r, [&]() { return onSso(r); });
    });
    connect(&m_http, &HttpStub::tlsRefused, this,
            []() { say(QStringLiteral("http  TLS handshake refused: plain HTTP only")); });
    m_http.setFallback([this](const HttpStubRequest& r) {
        if (r.path.startsWith(kControlPrefix))
            return onControl(r);
        HttpStubResponse response;
        response.status = 404;
        response.body = "not found";
        logHttp(r, response);
        return response;
    });

    m_push.setRequestHandler([this](const PushFrame& frame) { return onPushRequest(frame); });
    connect(&m_push, &PushStub::clientConnected, this,
            [](int n) { say(QStringLiteral("push  #%1 client connected").arg(n)); });
    connect(&m_push, &PushStub::clientDisconnected, this,
            [](int n) { say(QStringLiteral("push  #%1 client disconnected").arg(n)); });
    connect(&m_push, &PushStub::frameReceived, this,
            [](const PushFrame& frame) { say(QStringLiteral("push  ") + frame.describe()); });
    connect(&m_push, &PushStub::answerSent, this,
            [](int n, quint32 seq, const QByteArray& text, bool compressed) {
                say(QStringLiteral("push  #%1 answer seq=%2%3 %4")
                        .arg(n)
                        .arg(seq)
                        .arg(compressed ? QStringLiteral(" lz4") : QString())
                        .arg(oneLine(text)));
            });
}

void Sandbox::say(const QString& text)
{
    const QString stamp = QTime::currentTime().toString("hh:mm:ss.zzz");
    std::printf("[%s] sandbox: %s\n", qPrintable(stamp), text.toUtf8().constData());
    std::fflush(stdout);
}

bool Sandbox::start(quint16 httpPort, quint16 pushPort, bool tls)
{
    m_httpPort = httpPort;
    m_pushPort = pushPort;
    m_tls = tls;
    {
        QTcpServer probe; // a port that was free a moment ago and is closed again
        if (probe.listen(QHostAddress::LocalHost))
            m_refusedPort = probe.serverPort();
    }
    if (!m_push.listen(pushPort)) {
        say(QStringLiteral("cannot listen for push clients on port %1").arg(pushPort));
        return false;
    }
    if (!(tls ? m_http.listenTls(httpPort) : m_http.listen(httpPort))) {
        say(QStringLiteral("cannot serve %1 on 127.0.0.1:%2")
                .arg(tls ? QStringLiteral("https") : QStringLiteral("http"))
                .arg(httpPort));
        return false;
    }
    say(QStringLiteral("ready: services at %1, push server at %2")
            .arg(QString::fromLatin1(m_http.baseUrl()), QString::fromLatin1(m_push.address())));
    return true;
}

void Sandbox::logHttp(const HttpStubRequest& request, const HttpStubResponse& response)
{
    QString line = QStringLiteral("http  %1 %2")
                       .arg(QString::fromLatin1(request.method), QString::fromLatin1(request.path));
    if (!request.query.isEmpty())
        line += '?' + QString::fromLatin1(request.query);
    if (request.headers.contains("cookie"))
        line += QStringLiteral(" cookie=[%1]").arg(oneLine(request.header("cookie")));
    if (request.headers.contains("user-agent"))
        line += QStringLiteral(" ua=[%1]").arg(oneLine(request.header("user-agent")));
    if (!request.body.isEmpty())
        line += QStringLiteral(" body=[%1]").arg(oneLine(request.body));
    if (response.drop) {
        line += QStringLiteral(" -> connection dropped");
    } else {
        line += QStringLiteral(" -> %1 %2").arg(response.status).arg(oneLine(response.body));
        for (const auto& header : response.headers) {
            if (header.first.toLower() == "set-cookie")
                line += QStringLiteral(" set-cookie=[%1]").arg(oneLine(header.second));
        }
    }
    if (response.delayMs > 0)
        line += QStringLiteral(" (in %1 ms)").arg(response.delayMs);
    say(line);
}

HttpStubResponse Sandbox::onAddress(const HttpStubRequest& request)
{
    HttpStubResponse response;
    switch (m_addressMode) {
    case AddressMode::Ok:
        response = HttpStubResponse::json("{\"state\":1,\"data\":{\"server\":[\"" +
                                          m_push.address() + "\"]}}");
        break;
    case AddressMode::Down:
        response = HttpStubResponse::json("{\"error\":\"service unavailable\"}", 503);
        break;
    case AddressMode::State0:
        response = HttpStubResponse::json("{\"state\":0,\"message\":\"no push server\"}");
        break;
    case AddressMode::Bad:
        response.body = "<html>not json</html>";
        break;
    case AddressMode::Drop:
        response.drop = true;
        break;
    case AddressMode::Refused:
        response = HttpStubResponse::json("{\"state\":1,\"data\":{\"server\":[\"127.0.0.1:" +
                                          QByteArray::number(m_refusedPort) + "\"]}}");
        break;
    }
    logHttp(request, response);
    return response;
}

HttpStubResponse Sandbox::onSso(const HttpStubRequest& request)
{
    HttpStubResponse response;
    switch (m_ssoMode) {
    case SsoMode::Ok:
        response = HttpStubResponse::json("{\"state\":0}");
        break;
    case SsoMode::Slow:
        response = HttpStubResponse::json("{\"state\":0}");
        response.delayMs = m_ssoDelayMs;
        break;
    case SsoMode::Logout:
        response = HttpStubResponse::json(compact({{"state", 1}, {"message", m_logoutMessage}}));
        break;
    case SsoMode::Error:
        response = HttpStubResponse::json("{\"error\":\"internal error\"}", m_ssoErrorStatus);
        break;
    case SsoMode::Drop:
        response.drop = true;
        break;
    }
    if (!m_cookie.isEmpty() && !response.drop)
        response.headers.append(qMakePair(QByteArray("Set-Cookie"), m_cookie));
    logHttp(request, response);
    return response;
}

HttpStubResponse Sandbox::onControl(const HttpStubRequest& request)
{
    Params params;
    for (const QByteArray& item : request.query.split('&')) {
        if (item.isEmpty())
            continue;
        const int eq = item.indexOf('=');
        const QByteArray name = QByteArray::fromPercentEncoding(
            QByteArray(eq < 0 ? item : item.left(eq)).replace('+', ' '));
        params.insert(name, request.queryItem(name));
    }
    const QByteArray command = request.path.mid(kControlPrefix.size());
    const QByteArray reply = control(command, params);
    const bool ok = QJsonDocument::fromJson(reply).object().value("ok").toBool();
    return HttpStubResponse::json(reply, ok ? 200 : 400);
}

QByteArray Sandbox::controlLine(const QByteArray& rawLine)
{
    const QByteArray line = rawLine.trimmed();
    if (line.isEmpty() || line.startsWith('#'))
        return QByteArray();
    const int space = line.indexOf(' ');
    const QByteArray command = space < 0 ? line : line.left(space);
    const QByteArray rest = space < 0 ? QByteArray() : line.mid(space + 1).trimmed();
    Params params;
    if (command == "logout") {
        if (!rest.isEmpty())
            params.insert("message", rest);
    } else if (command == "cookie") {
        params.insert("value", rest);
    } else {
        const QList<QByteArray> names = positionalNames(command);
        int position = 0;
        for (const QByteArray& word : rest.split(' ')) {
            if (word.isEmpty())
                continue;
            const int eq = word.indexOf('=');
            if (eq > 0)
                params.insert(word.left(eq), word.mid(eq + 1));
            else if (position < names.size())
                params.insert(names.at(position++), word);
        }
    }
    return control(command, params);
}

QByteArray Sandbox::queueChange(const QJsonObject& inner, const Params& params, const QString& what)
{
    const int pad = longLength(params, "pad");
    if (pad < 0)
        return failure("pad=N asks for an answer of N bytes, up to 65536");
    m_padTo = qMax(m_padTo, pad);
    // every=1: the change goes to the first query of every connection from now on (until
    // "clear"), so that a whole fleet of daemons gets it.
    const bool everyone = params.value("every") == "1";
    (everyone ? m_everyone : m_pending).append(QJsonObject{{"t", 599999}, {"data", inner}});
    const bool drop = wantsDrop(params);
    const int dropped = drop ? m_push.dropConnections() : 0;
    say(QStringLiteral("ctl   %1 queued for the first query after the next login%2")
            .arg(what, dropped
                           ? QStringLiteral("; connection dropped so that the daemon logs in again")
                           : QString()));
    return compact({{"ok", true},
                    {"queued", m_pending.size()},
                    {"every", m_everyone.size()},
                    {"dropped", dropped}});
}

QByteArray Sandbox::control(const QByteArray& command, const Params& params)
{
    QStringList shown;
    for (auto it = params.constBegin(); it != params.constEnd(); ++it)
        shown << QString::fromUtf8(it.key() + '=' + it.value());
    say(QStringLiteral("ctl   %1 %2").arg(QString::fromUtf8(command), shown.join(' ')));

    if (command == "avatar") {
        QString url = QString::fromUtf8(params.value("url"));
        const int size = longLength(params, "size");
        if (url.isEmpty() || size < 0)
            return failure("avatar needs url (and size=N up to 65536 for a long one)");
        // size=N: the address grows to N characters with a random query value.
        const QString join = url.contains('?') ? QStringLiteral("&p=") : QStringLiteral("?p=");
        if (size > url.size() + join.size())
            url += join + randomText(size - url.size() - join.size());
        return queueChange({{"t", 138}, {"face_l", url}}, params, "avatar " + url);
    }
    if (command == "vip") {
        bool levelOk = false;
        bool expireOk = false;
        const int level = params.value("level").toInt(&levelOk);
        const qint64 expire = params.value("expire", "1900000000").toLongLong(&expireOk);
        if (!levelOk || !expireOk)
            return failure("vip needs level=N and optionally expire=SECONDS");
        const QJsonObject vip{{"mark", level}, {"expire", double(expire)}};
        const QJsonObject inner{
            {"t", 138},
            {"face_l", ""},
            {"data", QJsonObject{{"vip_info", QJsonObject{{"vip", QJsonArray{vip}}}}}}};
        return queueChange(inner, params,
                           QStringLiteral("membership level %1 until %2").arg(level).arg(expire));
    }
    if (command == "message") {
        bool ok = false;
        const int type = params.value("t").toInt(&ok);
        if (!ok)
            return failure("message needs t=TYPE (149 or 601010 make the daemon check its status)");
        return queueChange({{"t", type}}, params, QStringLiteral("message of type %1").arg(type));
    }
    if (command == "notice") {
        quint32 id = m_nextNoticeId;
        if (params.contains("id"))
            id = params.value("id").toUInt();
        m_nextNoticeId = id + 1;
        const int sent = m_push.sendNotice(id);
        say(QStringLiteral("push  notice %1 sent to %2 client(s)").arg(id).arg(sent));
        return compact({{"ok", true}, {"sent", sent}, {"id", double(id)}});
    }
    if (command == "drop") {
        // count=K drops only the K longest-open connections.
        const int dropped = params.contains("count")
                                ? m_push.dropOldest(params.value("count").toInt())
                                : m_push.dropConnections();
        say(QStringLiteral("push  dropped %1 connection(s)").arg(dropped));
        return compact({{"ok", true}, {"dropped", dropped}});
    }
    if (command == "logout") {
        m_ssoMode = SsoMode::Logout;
        m_logoutMessage = QString::fromUtf8(
            params.value("message", "your account was signed in on another device"));
        const int dropped = wantsDrop(params) ? m_push.dropConnections() : 0;
        say(QStringLiteral("ctl   status service now says: logged out (%1)%2")
                .arg(m_logoutMessage,
                     dropped ? QStringLiteral("; connection dropped so that the daemon checks")
                             : QString()));
        return compact({{"ok", true}, {"dropped", dropped}});
    }
    if (command == "sso") {
        const QByteArray mode = params.value("mode");
        if (mode == "ok") {
            m_ssoMode = SsoMode::Ok;
        } else if (mode == "logout") {
            m_ssoMode = SsoMode::Logout;
            m_logoutMessage = QString::fromUtf8(params.value("message", "logged out"));
        } else if (mode == "error") {
            m_ssoMode = SsoMode::Error;
            m_ssoErrorStatus = params.value("status", "500").toInt();
        } else if (mode == "slow") {
            m_ssoMode = SsoMode::Slow;
            m_ssoDelayMs = params.value("delay", "5000").toInt();
        } else if (mode == "drop") {
            m_ssoMode = SsoMode::Drop;
        } else {
            return failure("sso mode is ok, logout, error, slow or drop");
        }
        return compact({{"ok", true}, {"status", status()}});
    }
    if (command == "address") {
        const QByteArray mode = params.value("mode");
        if (mode == "ok")
            m_addressMode = AddressMode::Ok;
        else if (mode == "down")
            m_addressMode = AddressMode::Down;
        else if (mode == "state0")
            m_addressMode = AddressMode::State0;
        else if (mode == "bad")
            m_addressMode = AddressMode::Bad;
        else if (mode == "drop")
            m_addressMode = AddressMode::Drop;
        else if (mode == "refused")
            m_addressMode = AddressMode::Refused;
        else
            return failure("address mode is ok, down, state0, bad, drop or refused");
        return compact({{"ok", true}, {"status", status()}});
    }
    if (command == "push") {
        const QByteArray mode = params.value("mode");
        if (params.contains("host")) {
            // Another loopback address for the push server (same port); the address service
            // hands it out from now on. Open connections are dropped.
            if (!m_push.setHost(QHostAddress(QString::fromLatin1(params.value("host")))) ||
                !m_push.listen(m_push.port()))
                return failure("push host is an address of 127.0.0.0/8 with the port free");
        } else if (params.contains("listen")) {
            // listen=0: the server is gone (every connection closed, the port refusing);
            // listen=1: it is back on the same port.
            if (params.value("listen") == "0")
                m_push.close();
            else if (!m_push.listen(m_pushPort))
                return failure("cannot listen again");
        } else if (params.contains("once")) {
            m_push.setDropOnce(params.value("once"));
        } else if (mode == "normal") {
            m_push.setSilent(false);
            m_push.setRefuseConnections(false);
        } else if (mode == "silent") {
            m_push.setSilent(true);
        } else if (mode == "refuse") {
            m_push.setRefuseConnections(true);
        } else {
            return failure("push mode is normal, silent or refuse, once=login|query|answered, "
                           "host=127.0.0.N or listen=0|1");
        }
        return compact({{"ok", true}});
    }
    if (command == "raw" || command == "rsp" || command == "http")
        return faultControl(command, params);
    if (command == "cookie") {
        m_cookie = params.value("value");
        return compact({{"ok", true}, {"status", status()}});
    }
    if (command == "clear") {
        m_pending = QJsonArray();
        m_everyone = QJsonArray();
        return compact({{"ok", true}, {"status", status()}});
    }
    if (command == "status")
        return compact({{"ok", true}, {"status", status()}});
    if (command == "quit") {
        emit quitRequested();
        return compact({{"ok", true}});
    }
    if (command == "help") {
        return compact(
            {{"ok", true},
             {"commands",
              "avatar url=U [size=N] | vip level=N expire=S | message t=T | notice [id=N] | "
              "drop [count=K] | logout [message] | "
              "sso mode=ok|logout|error|slow|drop [message= status= delay=] | "
              "address mode=ok|down|state0|bad|drop|refused | push mode=normal|silent|refuse | "
              "push once=login|query|answered | push host=127.0.0.N | push listen=0|1 | "
              "raw hex=H [split=N] | "
              "rsp [magic=KOOS] [seq=N] [z=1] [text=T|hex=H] [seal=0] [len=N|+N|-N] | "
              "http path=P [status=S] [body=text|empty|drop|hang|size:N] (neither: back to "
              "normal) | http listen=0|1 | "
              "cookie [Set-Cookie value] | clear | status | quit. avatar, vip, message and logout "
              "drop the push connection unless drop=0; with every=1 avatar, vip and message go to "
              "the first query of every connection until clear. Long answers (up to 65536): size=N "
              "makes the avatar address N characters long, pad=N on avatar, vip or message fills "
              "the answer that carries it to N bytes with items the daemon skips; both of random "
              "text."}});
    }
    return failure("unknown command " + QString::fromUtf8(command) + " (try help)");
}

QJsonObject Sandbox::status() const
{
    static const char* const ssoNames[] = {"ok", "logout", "error", "slow", "drop"};
    static const char* const addressNames[] = {"ok", "down", "state0", "bad", "drop", "refused"};
    return {{"sso", ssoNames[int(m_ssoMode)]},
            {"logout_message", m_logoutMessage},
            {"sso_error_status", m_ssoErrorStatus},
            {"sso_delay_ms", m_ssoDelayMs},
            {"address", addressNames[int(m_addressMode)]},
            {"cookie", QString::fromUtf8(m_cookie)},
            {"pending", m_pending.size()},
            {"every", m_everyone.size()},
            {"push_clients", m_push.openConnections()}};
}

QByteArray Sandbox::onPushRequest(const PushFrame& frame)
{
    QJsonArray list;
    // Only the first query of a connection is read by the daemon; later ones just need an answer.
    if (frame.isQuery() && frame.requestIndex == 0) {
        list = m_pending;
        m_pending = QJsonArray();
        for (const QJsonValue& item : qAsConst(m_everyone))
            list.append(item);
        // pad=N: items of a type the daemon skips, of random text, until the answer holds N bytes.
        const int padTo = std::exchange(m_padTo, 0);
        int size = int(compact({{"code", 0}, {"data", QJsonObject{{"list", list}}}}).size());
        const int itemOverhead = int(compact({{"t", 1}, {"text", ""}}).size()) + 1;
        while (size < padTo) {
            const int chars = qBound(1, padTo - size - itemOverhead, kFillerItemChars);
            list.append(QJsonObject{{"t", 1}, {"text", randomText(chars)}});
            size += chars + itemOverhead;
        }
    }
    return compact({{"code", 0}, {"data", QJsonObject{{"list", list}}}});
}

HttpStubResponse Sandbox::answerFor(const HttpStubRequest& request,
                                    const std::function<HttpStubResponse()>& normal)
{
    if (!m_overrides.contains(request.path))
        return normal();
    HttpStubResponse response = m_overrides.value(request.path);
    logHttp(request, response);
    return response;
}

QByteArray Sandbox::faultControl(const QByteArray& command, const Params& params)
{
    if (command == "http" && params.contains("listen")) {
        if (params.value("listen") == "0")
            m_http.close();
        else if (!(m_tls ? m_http.listenTls(m_httpPort) : m_http.listen(m_httpPort)))
            return failure("cannot listen again");
        return compact({{"ok", true}});
    }
    if (command == "http") {
        const QByteArray path = params.value("path");
        if (!params.contains("status") && !params.contains("body")) {
            m_overrides.remove(path);
            return compact({{"ok", true}, {"overrides", m_overrides.size()}});
        }
        HttpStubResponse response;
        response.status = params.value("status", "200").toInt();
        const QByteArray body = params.value("body");
        if (body == "drop")
            response.drop = true;
        else if (body == "hang")
            response.delayMs = 3600 * 1000;
        else if (body.startsWith("size:"))
            response.body = QByteArray(body.mid(5).toInt(), 'x');
        else if (body != "empty")
            response.body = body;
        m_overrides.insert(path, response);
        return compact({{"ok", true}, {"overrides", m_overrides.size()}});
    }
    QByteArray bytes;
    if (command == "raw") {
        bytes = QByteArray::fromHex(params.value("hex"));
    } else {
        // A response frame made by hand: optionally LZ4 (z=1; a hex body is then the block
        // itself), sealed unless seal=0, with the head's length set or shifted by len.
        const bool z = params.value("z") == "1";
        QByteArray plain = params.contains("hex") ? QByteArray::fromHex(params.value("hex"))
                                                  : params.value("text");
        if (z && !params.contains("hex"))
            plain = pushwire::lz4Block(plain);
        QByteArray body = plain;
        if (params.value("seal") != "0" && !pushwire::seal(plain, body))
            return failure("cannot seal");
        const QByteArray len = params.value("len");
        qint64 length = body.size();
        if (len.startsWith('+') || len.startsWith('-'))
            length += len.toLongLong();
        else if (!len.isEmpty())
            length = len.toLongLong();
        const QByteArray magic = params.value("magic", "JOOS");
        if (magic.size() != 4)
            return failure("magic is four letters, e.g. JOOS or KOOS");
        pushwire::appendLe32(bytes, pushwire::readLe32(magic, 0));
        pushwire::appendLe32(bytes, params.value("seq", "1").toUInt());
        bytes.append(char(z ? 1 : 0)).append(3, '\0');
        pushwire::appendLe32(bytes, quint32(length));
        bytes += body;
    }
    // split=N writes the bytes in N pieces, 300 ms apart, so that each is read on its own.
    const int pieces = qBound(1, params.value("split", "1").toInt(), qMax(1, bytes.size()));
    const int step = (bytes.size() + pieces - 1) / pieces;
    for (int i = 0; i < pieces; ++i) {
        const QByteArray piece = bytes.mid(i * step, step);
        QTimer::singleShot(300 * i, this, [this, piece]() { m_push.sendRaw(piece); });
    }
    say(QStringLiteral("push  raw %1 bytes in %2 write(s): %3")
            .arg(bytes.size())
            .arg(pieces)
            .arg(QString::fromLatin1(bytes.left(24).toHex())));
    return compact({{"ok", true}, {"clients", m_push.openConnections()}});
}
