// Checks the local service stand-ins themselves against real Qt clients on 127.0.0.1.

#include "ec627/ec627.h"
#include "httpstub.h"
#include "push/msg_client.h"
#include "pushstub.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QSslConfiguration>
#include <QTcpSocket>
#include <QtTest>
#include <lz4.h>

namespace {

// Waits (event driven) for a reply and returns it; the caller owns it.
QNetworkReply* finish(QNetworkReply* reply, int timeoutMs = 5000)
{
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished())
        finished.wait(timeoutMs);
    return reply;
}

class Jar : public QNetworkCookieJar
{
public:
    QList<QNetworkCookie> all() const { return allCookies(); }
};

// Reads one response frame ("JOOS" + 16-byte head) from `buffer` and opens its body the way a
// client does. Returns false while the frame is incomplete.
bool takeResponse(QByteArray& buffer, quint32& seq, bool& compressed, QByteArray& text)
{
    if (buffer.size() < 16 || !buffer.startsWith("JOOS"))
        return false;
    const int length = int(pushwire::readLe32(buffer, 12));
    if (buffer.size() < 16 + length)
        return false;
    seq = pushwire::readLe32(buffer, 4);
    compressed = buffer.at(8) != 0;
    const QByteArray body = buffer.mid(16, length);
    buffer.remove(0, 16 + length);
    QByteArray plain(body.size(), '\0');
    int plainLength = plain.size();
    if (ec627_decode(reinterpret_cast<const unsigned char*>(body.constData()), body.size(),
                     reinterpret_cast<unsigned char*>(plain.data()), &plainLength) != 0)
        return false;
    plain.resize(plainLength);
    if (!compressed) {
        text = plain;
        return true;
    }
    // The client's bound: 16 * sealed size + 1536.
    QByteArray out(16 * body.size() + 1536, '\0');
    const int size = LZ4_decompress_safe(plain.constData(), out.data(), plain.size(), out.size());
    if (size <= 0)
        return false;
    text = out.left(size);
    return true;
}

struct PushClient
{
    QTcpSocket socket;
    QByteArray buffer;
    bool connectTo(quint16 port)
    {
        socket.connectToHost(QHostAddress::LocalHost, port);
        return socket.waitForConnected(3000);
    }
    QByteArray read()
    {
        buffer += socket.readAll();
        return buffer;
    }
    // Waits (processing events) until a whole response frame is in and opens it.
    bool waitResponse(quint32& seq, bool& compressed, QByteArray& text, int timeoutMs = 5000)
    {
        QDeadlineTimer deadline(timeoutMs);
        read();
        while (!takeResponse(buffer, seq, compressed, text)) {
            if (deadline.hasExpired())
                return false;
            QTest::qWait(10);
            read();
        }
        return true;
    }
};

} // namespace

class TstStandins : public QObject
{
    Q_OBJECT
private slots:
    void httpCookiesAndKeepAlive();
    void httpPostBodySplitAcrossReads();
    void httpDelayedAnswerKeepsOrder();
    void httpUnknownPathAndDrop();
    void httpsWithSelfSignedCertificate();
    void pushLoginQueryAndHeartbeatInPieces();
    void pushCompressionWithinClientBound_data();
    void pushCompressionWithinClientBound();
    void pushNoticeSilenceAndDrop();
    void pushRejectsGarbageAndForgedBodies_data();
    void pushRejectsGarbageAndForgedBodies();
    void pushRefusesConnections();
    void pushRoundTripWithDaemonCodec();
};

void TstStandins::httpCookiesAndKeepAlive()
{
    HttpStub stub;
    QVERIFY(stub.listen());
    stub.route("/check", [](const HttpStubRequest& request) {
        HttpStubResponse response =
            HttpStubResponse::json("{\"state\":0,\"q\":\"" + request.queryItem("q") + "\"}");
        response.headers.append(
            qMakePair(QByteArray("Set-Cookie"), QByteArray("PHPSESSID=abc; path=/")));
        response.headers.append(
            qMakePair(QByteArray("Set-Cookie"), QByteArray("acw_tc=t1; path=/")));
        return response;
    });
    QSignalSpy seen(&stub, &HttpStub::requestSeen);

    QNetworkAccessManager manager;
    auto* jar = new Jar;
    manager.setCookieJar(jar);
    for (int i = 0; i < 2; ++i) {
        QNetworkRequest request(QUrl(stub.baseUrl() + "/check?q=a%20b"));
        request.setRawHeader("cookie", "USERSESSIONID=u;");
        request.setRawHeader("User-Agent", "ua/1");
        QScopedPointer<QNetworkReply> reply(finish(manager.get(request)));
        QCOMPARE(reply->error(), QNetworkReply::NoError);
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        QCOMPARE(reply->readAll(), QByteArray("{\"state\":0,\"q\":\"a b\"}"));
    }
    QCOMPARE(seen.count(), 2);
    QCOMPARE(stub.connectionCount(), 1); // the second request reused the connection
    const QList<QNetworkCookie> cookies = jar->all();
    QCOMPARE(cookies.size(), 2);
    QStringList names;
    for (const QNetworkCookie& cookie : cookies)
        names << QString::fromUtf8(cookie.name() + '=' + cookie.value());
    names.sort();
    QCOMPARE(names, QStringList({"PHPSESSID=abc", "acw_tc=t1"}));

    const HttpStubRequest first = stub.requests().first();
    QCOMPARE(first.method, QByteArray("GET"));
    QCOMPARE(first.path, QByteArray("/check"));
    QCOMPARE(first.query, QByteArray("q=a%20b"));
    QCOMPARE(first.header("User-Agent"), QByteArray("ua/1"));
    QVERIFY(first.header("cookie").contains("USERSESSIONID=u;"));
    stub.clearRequests();
    QVERIFY(stub.requests().isEmpty());
}

void TstStandins::httpPostBodySplitAcrossReads()
{
    HttpStub stub;
    QVERIFY(stub.listen());
    stub.route("/echo", [](const HttpStubRequest& request) {
        HttpStubResponse response;
        response.body = request.method + ':' + request.body;
        return response;
    });
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, stub.port());
    QVERIFY(socket.waitForConnected(3000));
    // Two pipelined requests, written in awkward pieces.
    const QByteArray raw = "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n0123456789"
                           "GET /echo HTTP/1.1\r\nHost: x\r\n\r\n";
    const QList<int> cuts = {5, 30, 52, 58, 70, raw.size()};
    int from = 0;
    for (int cut : cuts) {
        socket.write(raw.mid(from, cut - from));
        socket.flush();
        QTest::qWait(20);
        from = cut;
    }
    QByteArray received;
    QTRY_VERIFY_WITH_TIMEOUT((received += socket.readAll()).count("HTTP/1.1 200 OK") == 2, 3000);
    QVERIFY(received.contains("Content-Length: 15\r\n\r\nPOST:0123456789"));
    QVERIFY(received.endsWith("Content-Length: 4\r\n\r\nGET:"));
    QCOMPARE(stub.requests().size(), 2);
    QCOMPARE(stub.requests().at(0).body, QByteArray("0123456789"));
}

void TstStandins::httpDelayedAnswerKeepsOrder()
{
    HttpStub stub;
    QVERIFY(stub.listen());
    stub.route("/slow", [](const HttpStubRequest&) {
        HttpStubResponse response;
        response.body = "slow";
        response.delayMs = 300;
        return response;
    });
    stub.route("/fast", [](const HttpStubRequest&) {
        HttpStubResponse response;
        response.body = "fast";
        return response;
    });
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, stub.port());
    QVERIFY(socket.waitForConnected(3000));
    QElapsedTimer clock;
    clock.start();
    socket.write("GET /slow HTTP/1.1\r\n\r\nGET /fast HTTP/1.1\r\n\r\n");
    QByteArray received;
    QTRY_VERIFY_WITH_TIMEOUT((received += socket.readAll()).endsWith("fast"), 3000);
    QVERIFY(clock.elapsed() >= 250);
    QVERIFY(received.indexOf("slow") < received.indexOf("fast"));
}

void TstStandins::httpUnknownPathAndDrop()
{
    HttpStub stub;
    QVERIFY(stub.listen());
    stub.route("/drop", [](const HttpStubRequest&) {
        HttpStubResponse response;
        response.drop = true;
        return response;
    });
    stub.route("/fail",
               [](const HttpStubRequest&) { return HttpStubResponse::json("{\"error\":1}", 500); });
    QNetworkAccessManager manager;
    QScopedPointer<QNetworkReply> missing(
        finish(manager.get(QNetworkRequest(QUrl(stub.baseUrl() + "/nothing")))));
    QCOMPARE(missing->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 404);
    QScopedPointer<QNetworkReply> failed(
        finish(manager.post(QNetworkRequest(QUrl(stub.baseUrl() + "/fail")), QByteArray())));
    QCOMPARE(failed->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 500);
    QCOMPARE(failed->readAll(), QByteArray("{\"error\":1}"));
    QScopedPointer<QNetworkReply> dropped(
        finish(manager.get(QNetworkRequest(QUrl(stub.baseUrl() + "/drop")))));
    QVERIFY(dropped->isFinished());
    QVERIFY(dropped->error() != QNetworkReply::NoError);
    QVERIFY(!dropped->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid());
}

void TstStandins::httpsWithSelfSignedCertificate()
{
    HttpStub stub;
    QVERIFY(stub.listenTls());
    QVERIFY(stub.baseUrl().startsWith("https://127.0.0.1:"));
    stub.route("/x", [](const HttpStubRequest&) { return HttpStubResponse::json("{}"); });
    QNetworkAccessManager manager;
    QNetworkRequest request(QUrl(stub.baseUrl() + "/x"));
    QSslConfiguration ssl = request.sslConfiguration();
    ssl.setPeerVerifyMode(QSslSocket::VerifyNone);
    ssl.setProtocol(QSsl::TlsV1SslV3);
    request.setSslConfiguration(ssl);
    QScopedPointer<QNetworkReply> reply(finish(manager.get(request)));
    QCOMPARE(reply->error(), QNetworkReply::NoError);
    QCOMPARE(reply->readAll(), QByteArray("{}"));
}

void TstStandins::pushLoginQueryAndHeartbeatInPieces()
{
    PushStub stub;
    QVERIFY(stub.listen());
    QVERIFY(stub.address().startsWith("127.0.0.1:"));
    stub.setLoginAnswer("{\"code\":0,\"msg\":\"welcome\"}");
    stub.enqueueAnswer("{\"code\":0,\"data\":{\"list\":[{\"t\":1}]}}");
    QSignalSpy seen(&stub, &PushStub::frameReceived);

    PushClient client;
    QVERIFY(client.connectTo(stub.port()));
    const QByteArray login =
        pushwire::loginFrame(7, 0x1122334455667788ULL, 4242, 0, 0, "cookie=USERSESSIONID%3Du%26");
    QVERIFY(login.size() > 80);
    const QByteArray query = pushwire::requestFrame(
        1, pushwire::kQueryCommand, "{\"id\":\"0\", \"type\":627, \"max\":\"100\"}");
    // The login head arrives in two pieces, then the rest together with the query and a heartbeat.
    client.socket.write(login.left(30));
    client.socket.flush();
    QTest::qWait(30);
    QCOMPARE(seen.count(), 0);
    client.socket.write(login.mid(30, 60));
    client.socket.flush();
    QTest::qWait(30);
    client.socket.write(login.mid(90) + query + "GOOS");

    QTRY_COMPARE_WITH_TIMEOUT(seen.count(), 3, 3000);
    const QList<PushFrame> frames = stub.frames();
    QVERIFY(frames.at(0).isLogin());
    QVERIFY(frames.at(0).ok);
    QCOMPARE(frames.at(0).version, quint16(1));
    QCOMPARE(frames.at(0).clientType, quint8(7));
    QCOMPARE(frames.at(0).sessionId, 0x1122334455667788ULL);
    QCOMPARE(frames.at(0).userId, 4242u);
    QCOMPARE(frames.at(0).token.size(), 48);
    QCOMPARE(frames.at(0).text, QByteArray("cookie=USERSESSIONID%3Du%26"));
    QVERIFY(frames.at(1).isQuery());
    QCOMPARE(frames.at(1).seq, 1u);
    QCOMPARE(frames.at(1).requestIndex, 0);
    QCOMPARE(frames.at(1).text, QByteArray("{\"id\":\"0\", \"type\":627, \"max\":\"100\"}"));
    QVERIFY(frames.at(2).isHeartbeat());
    QVERIFY(frames.at(1).describe().contains("cmd=16781314 (query)"));

    quint32 seq = 99;
    bool compressed = true;
    QByteArray text;
    QVERIFY(client.waitResponse(seq, compressed, text));
    QCOMPARE(seq, 0u);
    QCOMPARE(text, QByteArray("{\"code\":0,\"msg\":\"welcome\"}"));
    QVERIFY(client.waitResponse(seq, compressed, text));
    QCOMPARE(seq, 1u);
    QVERIFY(!compressed);
    QCOMPARE(text, QByteArray("{\"code\":0,\"data\":{\"list\":[{\"t\":1}]}}"));
    QTRY_COMPARE_WITH_TIMEOUT(client.read(), QByteArray("GOOS"), 3000);

    // The queue is used up: the next query gets the default answer.
    client.buffer.clear();
    client.socket.write(pushwire::requestFrame(2, pushwire::kQueryCommand, "{}"));
    QVERIFY(client.waitResponse(seq, compressed, text));
    QCOMPARE(seq, 2u);
    QCOMPARE(text, PushStub::defaultQueryAnswer());
    QCOMPARE(stub.frames().last().requestIndex, 1);
}

void TstStandins::pushCompressionWithinClientBound_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("threshold");
    QTest::addColumn<bool>("expectCompressed");
    QByteArray moderate;
    for (int i = 0; i < 300; ++i)
        moderate += "{\"t\":599999,\"id\":" + QByteArray::number(i * 7919 % 100003) + "},";
    QTest::newRow("moderate ratio") << moderate << 1024 << true;
    QTest::newRow("below threshold") << QByteArray("{\"code\":0}") << 1024 << false;
    QTest::newRow("threshold 0") << QByteArray("{\"code\":0}") << 0 << true;
    QTest::newRow("never") << moderate << -1 << false;
    // 200000 equal bytes squeeze far beyond 16:1; the client could not unpack that.
    QTest::newRow("ratio beyond bound") << QByteArray(200000, 'a') << 0 << false;
}

void TstStandins::pushCompressionWithinClientBound()
{
    QFETCH(QByteArray, text);
    QFETCH(int, threshold);
    QFETCH(bool, expectCompressed);
    PushStub stub;
    QVERIFY(stub.listen());
    stub.setCompressThreshold(threshold);
    stub.setRequestHandler([text](const PushFrame&) { return text; });
    PushClient client;
    QVERIFY(client.connectTo(stub.port()));
    client.socket.write(pushwire::requestFrame(5, pushwire::kQueryCommand, "{}"));
    quint32 seq = 0;
    bool compressed = !expectCompressed;
    QByteArray received;
    QVERIFY(client.waitResponse(seq, compressed, received));
    QCOMPARE(seq, 5u);
    QCOMPARE(compressed, expectCompressed);
    QCOMPARE(received, text);
}

void TstStandins::pushNoticeSilenceAndDrop()
{
    PushStub stub;
    QVERIFY(stub.listen());
    QSignalSpy connected(&stub, &PushStub::clientConnected);
    QSignalSpy disconnected(&stub, &PushStub::clientDisconnected);
    PushClient client;
    QVERIFY(client.connectTo(stub.port()));
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, 3000);
    QCOMPARE(stub.openConnections(), 1);

    QCOMPARE(stub.sendNotice(42), 1);
    QByteArray expected = "LOOS";
    pushwire::appendLe32(expected, 42);
    pushwire::appendLe32(expected, 0);
    QTRY_COMPARE_WITH_TIMEOUT(client.read(), expected, 3000);
    client.buffer.clear();

    stub.setSilent(true);
    QSignalSpy seen(&stub, &PushStub::frameReceived);
    client.socket.write(pushwire::loginFrame(7, 1, 5, 0, 0, "x") + "GOOS" +
                        pushwire::requestFrame(1, pushwire::kQueryCommand, "{}"));
    QTRY_COMPARE_WITH_TIMEOUT(seen.count(), 3, 3000);
    QTest::qWait(150);
    QCOMPARE(client.read(), QByteArray()); // recorded, but nothing answered

    stub.setSilent(false);
    client.socket.write("GOOS");
    QTRY_COMPARE_WITH_TIMEOUT(client.read(), QByteArray("GOOS"), 3000);

    QCOMPARE(stub.dropConnections(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(client.socket.state(), QAbstractSocket::UnconnectedState, 3000);
    QTRY_COMPARE_WITH_TIMEOUT(disconnected.count(), 1, 3000);
    QCOMPARE(stub.openConnections(), 0);
    QCOMPARE(stub.sendNotice(1), 0);
}

void TstStandins::pushRejectsGarbageAndForgedBodies_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error");
    QByteArray forgedLogin = pushwire::loginFrame(7, 1, 77, 0, 0, "cookie=abc");
    forgedLogin[16] = 78; // another user id: the body was sealed for 77
    QByteArray tamperedRequest = pushwire::requestFrame(1, 1, "hello");
    tamperedRequest[tamperedRequest.size() - 1] =
        char(tamperedRequest.at(tamperedRequest.size() - 1) ^ 1);
    QByteArray hugeRequest = "IOOS";
    pushwire::appendLe32(hugeRequest, 1);
    pushwire::appendLe32(hugeRequest, 0);
    pushwire::appendLe32(hugeRequest, 0xFFFFFFF0u);
    QTest::newRow("unknown magic") << QByteArray("XYZW1234") << "unknown magic";
    QTest::newRow("push magic from a client")
        << QByteArray("KOOS") + QByteArray(12, '\0') << "unknown magic";
    QTest::newRow("forged login") << forgedLogin << "login body does not open";
    QTest::newRow("tampered request") << tamperedRequest << "request body does not open";
    QTest::newRow("huge length") << hugeRequest << "too large";
}

void TstStandins::pushRejectsGarbageAndForgedBodies()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);
    PushStub stub;
    QVERIFY(stub.listen());
    QSignalSpy seen(&stub, &PushStub::frameReceived);
    PushClient client;
    QVERIFY(client.connectTo(stub.port()));
    client.socket.write(bytes + "GOOS");
    QTRY_COMPARE_WITH_TIMEOUT(seen.count(), 1, 3000);
    const PushFrame frame = stub.frames().first();
    QVERIFY(!frame.ok);
    QVERIFY2(frame.error.contains(error), qPrintable(frame.error));
    QTRY_COMPARE_WITH_TIMEOUT(client.socket.state(), QAbstractSocket::UnconnectedState, 3000);
    QCOMPARE(client.read(), QByteArray()); // no answer, and the heartbeat behind it was not read
    QCOMPARE(stub.frames().size(), 1);
}

void TstStandins::pushRefusesConnections()
{
    PushStub stub;
    QVERIFY(stub.listen());
    stub.setRefuseConnections(true);
    PushClient client;
    QVERIFY(client.connectTo(stub.port()));
    QTRY_COMPARE_WITH_TIMEOUT(client.socket.state(), QAbstractSocket::UnconnectedState, 3000);
    QCOMPARE(stub.acceptedCount(), 1);

    const quint16 port = stub.port();
    stub.close();
    PushClient late;
    late.socket.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(!late.socket.waitForConnected(3000));
    QCOMPARE(late.socket.error(), QAbstractSocket::ConnectionRefusedError);
}

// The daemon's own encoders and decoder against the stub: both sides must agree byte for byte.
void TstStandins::pushRoundTripWithDaemonCodec()
{
    QCOMPARE(Msg_client::init(), 0);
    PushStub stub;
    QVERIFY(stub.listen());
    QByteArray large;
    for (int i = 0; i < 400; ++i)
        large += "{\"t\":599999,\"n\":" + QByteArray::number(i * 31337 % 99991) + "},";
    stub.setCompressThreshold(1024);
    stub.enqueueAnswer("{\"code\":0,\"data\":{\"list\":[" + large + "{}]}}");
    PushClient client;
    QVERIFY(client.connectTo(stub.port()));

    QByteArray login;
    QCOMPARE(Msg_client::first_req_encode(7, 0xABCDEF0123ULL, 31337, 0, 0,
                                          QString::fromUtf8("cookie=\u00e9t\u00e9"), login),
             0);
    QByteArray query;
    QCOMPARE(Msg_client::normal_req_encode(1, pushwire::kQueryCommand, "{\"id\":\"0\"}", query), 0);
    QByteArray heart;
    Msg_client::heartbeat_req(heart);
    client.socket.write(login + query + heart);
    QTRY_COMPARE_WITH_TIMEOUT(stub.frames().size(), 3, 3000);
    const QList<PushFrame> frames = stub.frames();
    QVERIFY(frames.at(0).ok && frames.at(1).ok && frames.at(2).ok);
    QCOMPARE(frames.at(0).sessionId, 0xABCDEF0123ULL);
    QCOMPARE(frames.at(0).userId, 31337u);
    QCOMPARE(frames.at(0).text, QString::fromUtf8("cookie=\u00e9t\u00e9").toUtf8());
    QVERIFY(frames.at(1).isQuery());
    QCOMPARE(frames.at(1).text, QByteArray("{\"id\":\"0\"}"));
    QVERIFY(frames.at(2).isHeartbeat());

    // Two responses (the second one compressed) and the heartbeat echo, opened by the daemon's
    // decoder.
    const QByteArray expected[] = {"{\"code\":0,\"msg\":\"login ok\"}",
                                   "{\"code\":0,\"data\":{\"list\":[" + large + "{}]}}"};
    for (int i = 0; i < 2; ++i) {
        QTRY_VERIFY_WITH_TIMEOUT(client.read().size() >= 16, 3000);
        const QByteArray head = client.buffer.left(16);
        const int length = int(pushwire::readLe32(head, 12));
        QTRY_VERIFY_WITH_TIMEOUT(client.read().size() >= 16 + length, 3000);
        QCOMPARE(head.at(8) != 0, i == 1);
        QByteArray text;
        QCOMPARE(Msg_client::decode(head, client.buffer.mid(16, length), text), 0);
        QCOMPARE(text, expected[i]);
        client.buffer.remove(0, 16 + length);
    }
    QTRY_COMPARE_WITH_TIMEOUT(client.read(), QByteArray("GOOS"), 3000);

    client.buffer.clear();
    stub.sendNotice(4242);
    QTRY_COMPARE_WITH_TIMEOUT(client.read().size(), 12, 3000);
    QByteArray notice;
    QCOMPARE(Msg_client::decode(client.buffer.left(4), client.buffer.mid(4), notice), 0);
    QVERIFY2(notice.contains("\"notice_id\":\"4242\""), notice.constData());
}

QTEST_GUILESS_MAIN(TstStandins)
#include "tst_standins.moc"
