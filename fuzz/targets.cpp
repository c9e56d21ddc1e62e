// SPDX-License-Identifier: Apache-2.0
// Fuzz entry points: each feeds one input through the daemon's own code for one reader of
// outside bytes. fuzz_main.cpp turns one of them into a libFuzzer binary; replay.cpp runs the
// corpora through all of them in every test run. A broken invariant aborts, so that both count
// it as a finding. The cipher library is found through LD_LIBRARY_PATH (build/lib).
#include "targets.h"

#include "cipher/stringencrypt.h"
#include "core/data.h"
#include "core/datacenter.h"
#include "link/adapter.h"
#include "push/client.h"
#include "push/clienttcpsocket.h"
#include "push/msg_client.h"
#include "threads/clientthread.h"
#include "threads/threadmanager.h"
#include "web/requesthttps.h"

#include <QCoreApplication>
#include <QTcpServer>
#include <QtEndian>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void check(bool ok, const char* what)
{
    if (!ok) {
        std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
        std::abort();
    }
}

QByteArray bytes(const uint8_t* data, size_t size)
{
    return QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size));
}

// Once per process: an application object (sockets, timers), no debug output, the cipher
// library loaded. Per input: no session cookies, so that a status check triggered by a message
// returns at once instead of making a request, and logging off.
void setUp()
{
    static const bool done = [] {
        if (!QCoreApplication::instance()) {
            static int argc = 1;
            static char name[] = "d627-fuzz";
            static char* argv[] = {name, nullptr};
            new QCoreApplication(argc, argv);
        }
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        Msg_client::init();
        return true;
    }();
    (void)done;
    DataCenter::getInstance()->SetLoginInfor(CLoginInfor());
    DataCenter::getInstance()->SetLogLevel(0);
}

// Watchdogs that never come due while an input runs. No event loop runs either, so the next
// process step, scheduled after `stepMs`, never comes; with 0 it is a posted event that goes
// with the client instead of a timer object that outlives it.
MsgClient* newClient(int stepMs)
{
    MsgClientTimes times;
    times.stepMs = stepMs;
    times.answerMs = times.heartbeatMs = times.heartbeatAnswerMs = 1 << 30;
    times.socketWaitMs = 5000;
    return new MsgClient(nullptr, times);
}

MsgClient* sharedClient()
{
    static MsgClient* client = newClient(1 << 30);
    return client;
}

// Only letters, digits and "-._~", or "%" escapes.
bool percentEncoded(const QString& text)
{
    for (const QChar c : text) {
        const ushort u = c.unicode();
        if (u >= 0x80 || !(std::isalnum(u) || std::strchr("-._~%", u)))
            return false;
    }
    return true;
}

// Byte 0 bits 0-1 pick the head (0: 4 bytes, 1: 16 bytes as given, 2: 16 bytes made to match
// the body, first sealed by the cipher library so that the decryption succeeds and the LZ4 path
// sees arbitrary blocks, 3: odd size); bytes 1-16 head material; the rest is the body.
int frameDecode(const uint8_t* data, size_t size)
{
    setUp();
    if (size < 17)
        return 0;
    QByteArray head = bytes(data + 1, 16);
    QByteArray body = bytes(data + 17, size - 17);
    switch (data[0] & 3) {
    case 0:
        head.truncate(4);
        break;
    case 2: {
        QByteArray sealed;
        if (StringEncrypt::getInstance()->Ec627EncodeData(body, sealed) == 0)
            body = sealed;
        qToLittleEndian<quint32>(MAGIC_RSP, head.data());
        qToLittleEndian<quint32>(static_cast<quint32>(body.size()), head.data() + 12);
        break;
    }
    case 3:
        head.truncate(data[1] % 16);
        break;
    default:
        break;
    }
    QByteArray out("untouched");
    if (Msg_client::decode(head, body, out) != 0)
        check(out == "untouched" || out.isEmpty(), "a failed decode leaves its output alone");
    return 0;
}

// One loopback connection for the whole run: `peer` plays the push server.
struct Wire
{
    QTcpServer server;
    ClientTcpSocket client;
    QTcpSocket* peer = nullptr;
    Wire()
    {
        check(server.listen(QHostAddress::LocalHost, 0), "listen on 127.0.0.1");
        client.connectToHost(QHostAddress::LocalHost, server.serverPort());
        check(client.waitForConnected(5000) && server.waitForNewConnection(5000),
              "loopback connection");
        peer = server.nextPendingConnection();
        // Small chunks go out at once, without waiting for the peer's delayed acknowledgement.
        peer->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        client.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    }
    static void drain(QAbstractSocket& socket)
    {
        while (socket.waitForReadyRead(0))
            socket.readAll();
        socket.readAll();
    }
};

// Byte 0 picks the process step (0-4) of a fresh MsgClient; the rest is a series of chunks,
// each a length byte and that many bytes, that the server side sends one by one. Every chunk
// arrives as its own readyRead, so frames are split (or joined) where the input says.
int frameReader(const uint8_t* data, size_t size)
{
    setUp();
    if (size < 1)
        return 0;
    static Wire* wire = new Wire;
    MsgClient* client = newClient(0);
    for (int step = 0; step < data[0] % 5; ++step)
        client->nextProcess();
    client->setSocket(&wire->client);
    for (size_t at = 1; at < size;) {
        const size_t length = qMin<size_t>(data[at], size - at - 1);
        ++at;
        if (length == 0)
            continue;
        wire->peer->write(reinterpret_cast<const char*>(data + at), static_cast<qint64>(length));
        check(wire->peer->waitForBytesWritten(5000), "chunk sent");
        wire->client.waitForReadyRead(1000);
        at += length;
    }
    check(client->setSocket(nullptr) == &wire->client, "socket handed back");
    delete client;
    Wire::drain(wire->client);
    Wire::drain(*wire->peer);
    check(wire->client.state() == QAbstractSocket::ConnectedState, "connection kept");
    return 0;
}

// The answer to the message query, parsed and dispatched into the DataCenter.
int pushMessage(const uint8_t* data, size_t size)
{
    setUp();
    DataCenter* center = DataCenter::getInstance();
    center->SetUserFace(QString());
    const QByteArray message = bytes(data, size);
    QVector<MsgClient::OneMessage> parsed;
    const bool ok = sharedClient()->ParseMessage(message, parsed);
    check(ok || parsed.isEmpty(), "a refused document yields no messages");
    sharedClient()->onhandleMsg(message);
    QString face;
    for (const MsgClient::OneMessage& one : qAsConst(parsed)) {
        check(one.type == 138 || (one.face.isEmpty() && one.mark == -1 && one.expire == -1),
              "only type 138 carries profile fields");
        if (one.type == 138 && !one.face.isEmpty())
            face = one.face;
    }
    check(center->GetUserFace() == face, "the last new avatar is stored");
    return 0;
}

int pushAddress(const uint8_t* data, size_t size)
{
    setUp();
    QStringList list;
    const int ok = sharedClient()->ParseServerAddressResponse(bytes(data, size), list);
    check(ok == 1 || list.isEmpty(), "a refused answer yields no address");
    QString ip;
    int port = -1;
    if (MsgClient::ChooseServerAddress(list, ip, port))
        check(!ip.contains(':'), "a chosen host holds no colon");
    else
        check(port == -1, "nothing chosen, nothing written");
    return 0;
}

int statusAnswer(const uint8_t* data, size_t size)
{
    setUp();
    CLogoutInfor info;
    info.message = "untouched";
    if (!sharedClient()->ParseCheckStatusResponse(bytes(data, size), info))
        check(!info.isLogout && info.message == "untouched", "a refused answer changes nothing");
    return 0;
}

int userInfo(const uint8_t* data, size_t size)
{
    setUp();
    CUserInfor info;
    if (sharedClient()->ParseUserInfor(bytes(data, size), info) == 1)
        check(DataCenter::getInstance()->GetUserFace() == info.face, "the avatar is stored");
    return 0;
}

// The main application's messages. The adapter's client-thread request is refused, as for
// a repeated login, because a client thread already exists, parked before it ever looks at the
// login record; so no input reaches the network.
int adapterMessage(const uint8_t* data, size_t size)
{
    setUp();
    static Adapter* adapter = [] {
        auto* parked = qobject_cast<ClientThread*>(
            ThreadManager::GetInstance()->CreateThread(1, QVariant("LongConnect")));
        check(parked != nullptr, "client thread created");
        parked->setPollInterval(1UL << 30);
        while (parked->emptyPolls() < 1) // until a pause of that length has begun
            QThread::msleep(10);
        return new Adapter;
    }();
    adapter->onReadyRead(bytes(data, size));
    DataCenter::getInstance()->SetLogLevel(0);
    return 0;
}

// The login record's cookie string up to the first newline (no newline: an empty cookie map),
// then the Set-Cookie header.
int setCookie(const uint8_t* data, size_t size)
{
    setUp();
    static CRequestHttps* request = new CRequestHttps;
    const QByteArray input = bytes(data, size);
    const int cut = input.indexOf('\n');
    CLoginInfor before;
    before.userId = "1";
    if (cut >= 0)
        before.cookies.insert("cookie", QString::fromUtf8(input.left(cut)));
    DataCenter::getInstance()->SetLoginInfor(before);
    request->SetCookieBasedRelyHeader(QString::fromUtf8(input.mid(cut + 1)));
    CLoginInfor after;
    DataCenter::getInstance()->GetLoginInfor(after);
    check(after.userId == before.userId, "the user id is kept");
    if (after.cookies != before.cookies) {
        const QString cookie = after.cookies.value("cookie");
        check(!cookie.contains(";;") && cookie.endsWith(';'), "entries end with one ';'");
    }
    return 0;
}

// One cookie string through the login text, the login frame and the encoded form body.
int cookieEncoders(const uint8_t* data, size_t size)
{
    setUp();
    const QString cookie = QString::fromUtf8(bytes(data, size));
    QMap<QString, QString> cookies;
    cookies.insert("cookie", cookie);
    const QString text = MsgClient::LoginText(cookies);
    check(text.startsWith("cookie=") && percentEncoded(text.mid(7)), "login text encoded");
    QByteArray frame;
    if (Msg_client::first_req_encode(7, 1, 1, 0, 0, text, frame) == 0)
        check(frame.size() >= 80 && qFromLittleEndian<quint32>(frame.constData() + 76) ==
                                        static_cast<quint32>(frame.size() - 80),
              "login frame length");
    const QString body = get_m627_encode_at(cookie, 1700000000);
    check(body.isEmpty() || (body.startsWith("data=") && percentEncoded(body.mid(5))),
          "form body encoded");
    return 0;
}

const FuzzTarget kTargets[] = {
    {"frame_decode", frameDecode},       {"frame_reader", frameReader},
    {"push_message", pushMessage},       {"push_address", pushAddress},
    {"status_answer", statusAnswer},     {"user_info", userInfo},
    {"adapter_message", adapterMessage}, {"set_cookie", setCookie},
    {"cookie_encoders", cookieEncoders}, {nullptr, nullptr},
};

} // namespace

const FuzzTarget* fuzzTargets()
{
    return kTargets;
}

const FuzzTarget* findFuzzTarget(const char* name)
{
    for (const FuzzTarget* target = kTargets; target->name; ++target) {
        if (std::strcmp(target->name, name) == 0)
            return target;
    }
    return nullptr;
}
