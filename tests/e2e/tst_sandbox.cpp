// Runs the d627-sandbox executable and checks, from the daemon's side of each wire, that its
// control commands produce what the daemon needs to see: changes in the FIRST query answer of
// the next connection, dropped connections, and the scripted status answers.

#include "pushwire.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QtTest>

namespace {

struct HttpResult
{
    int status = 0;
    QByteArray body;
    QByteArray setCookie;
    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
};

// A push client built from the wire helpers: logs in, queries, reads answers.
class PushClient
{
public:
    bool connectTo(quint16 port)
    {
        m_socket.connectToHost(QHostAddress::LocalHost, port);
        return m_socket.waitForConnected(3000);
    }
    void send(const QByteArray& frame)
    {
        m_socket.write(frame);
        m_socket.flush(); // the test may wait on the sandbox process, not on an event loop
    }
    // Waits for one response frame and returns its text; empty on time-out.
    QByteArray answer(int timeoutMs = 3000)
    {
        QDeadlineTimer deadline(timeoutMs);
        while (!deadline.hasExpired()) {
            m_buffer += m_socket.readAll();
            if (m_buffer.size() >= 16 && m_buffer.startsWith("JOOS")) {
                const int length = int(pushwire::readLe32(m_buffer, 12));
                if (m_buffer.size() >= 16 + length) {
                    QByteArray plain;
                    const bool ok = pushwire::openRequestBody(m_buffer.mid(16, length), plain);
                    m_buffer.remove(0, 16 + length);
                    return ok ? plain : QByteArray();
                }
            }
            QTest::qWait(10);
        }
        return QByteArray();
    }
    QByteArray raw(int bytes, int timeoutMs = 3000)
    {
        QDeadlineTimer deadline(timeoutMs);
        while (m_buffer.size() < bytes && !deadline.hasExpired()) {
            QTest::qWait(10);
            m_buffer += m_socket.readAll();
        }
        QByteArray out = m_buffer.left(bytes);
        m_buffer.remove(0, bytes);
        return out;
    }
    // Logs in and sends the first query; returns the query answer's "list".
    QJsonArray loginAndQuery(quint32 userId = 10001)
    {
        send(pushwire::loginFrame(7, 1, userId, 0, 0, "cookie=x"));
        if (answer().isEmpty())
            return {{"no login answer"}};
        return query(1);
    }
    QJsonArray query(quint32 seq)
    {
        send(pushwire::requestFrame(seq, pushwire::kQueryCommand,
                                    "{\"id\":\"0\", \"type\":627, \"max\":\"100\"}"));
        return QJsonDocument::fromJson(answer()).object()["data"].toObject()["list"].toArray();
    }
    QTcpSocket& socket() { return m_socket; }

private:
    QTcpSocket m_socket;
    QByteArray m_buffer;
};

} // namespace

class TstSandbox : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void servicesAnswerFromScriptedState();
    void changesReachOnlyTheFirstQueryOfTheNextConnection();
    void noticeAndLogoutElsewhere();

private:
    HttpResult get(const QByteArray& path, const QByteArray& method = "GET");
    bool waitForLine(const QString& text, int timeoutMs = 3000);

    QProcess m_sandbox;
    QByteArray m_output;
    quint16 m_httpPort = 0;
    quint16 m_pushPort = 0;
    QNetworkAccessManager m_manager;
};

void TstSandbox::initTestCase()
{
    m_sandbox.setProgram(D627_BIN_DIR "/d627-sandbox");
    m_sandbox.setArguments(
        {"--http-port", "0", "--push-port", "0", "--cookie", "PHPSESSID=fresh; path=/"});
    m_sandbox.start();
    QVERIFY2(m_sandbox.waitForStarted(5000), qPrintable(m_sandbox.errorString()));
    QVERIFY(waitForLine("ready:"));
    const QRegularExpression ready("services at http://127\\.0\\.0\\.1:(\\d+), push server at "
                                   "127\\.0\\.0\\.1:(\\d+)");
    const QRegularExpressionMatch match = ready.match(QString::fromUtf8(m_output));
    QVERIFY(match.hasMatch());
    m_httpPort = quint16(match.captured(1).toUInt());
    m_pushPort = quint16(match.captured(2).toUInt());
    QVERIFY(m_httpPort != 0 && m_pushPort != 0);
}

void TstSandbox::cleanupTestCase()
{
    m_sandbox.write("quit\n");
    if (!m_sandbox.waitForFinished(3000))
        m_sandbox.kill();
    QCOMPARE(m_sandbox.exitCode(), 0);
}

bool TstSandbox::waitForLine(const QString& text, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!m_output.contains(text.toUtf8())) {
        if (deadline.hasExpired())
            return false;
        m_sandbox.waitForReadyRead(50);
        m_output += m_sandbox.readAllStandardOutput();
    }
    return true;
}

HttpResult TstSandbox::get(const QByteArray& path, const QByteArray& method)
{
    QNetworkRequest request(QUrl("http://127.0.0.1:" + QString::number(m_httpPort) + path));
    request.setRawHeader("cookie", "USERSESSIONID=u;");
    QNetworkReply* reply =
        method == "POST" ? m_manager.post(request, QByteArray()) : m_manager.get(request);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    finished.wait(8000);
    HttpResult result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    result.setCookie = reply->rawHeader("set-cookie");
    delete reply;
    return result;
}

void TstSandbox::servicesAnswerFromScriptedState()
{
    const QByteArray sso = "/app/1.0/linux/5.0.1/check/sso";
    HttpResult address = get("/get_tcp_server", "POST");
    QCOMPARE(address.status, 200);
    QCOMPARE(address.json()["state"].toInt(), 1);
    QCOMPARE(address.json()["data"].toObject()["server"].toArray(),
             QJsonArray({QString("127.0.0.1:%1").arg(m_pushPort)}));
    QVERIFY(waitForLine("http  POST /get_tcp_server"));

    HttpResult status = get(sso);
    QCOMPARE(status.status, 200);
    QCOMPARE(status.body, QByteArray("{\"state\":0}"));
    QCOMPARE(status.setCookie, QByteArray("PHPSESSID=fresh; path=/"));
    QVERIFY(waitForLine("cookie=[USERSESSIONID=u;]"));

    QCOMPARE(get("/control/sso?mode=error&status=503").status, 200);
    QCOMPARE(get(sso).status, 503);
    QCOMPARE(get("/control/sso?mode=slow&delay=400").status, 200);
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(get(sso).body, QByteArray("{\"state\":0}"));
    QVERIFY(clock.elapsed() >= 350);
    QCOMPARE(get("/control/sso?mode=ok").status, 200);

    QCOMPARE(get("/control/address?mode=state0").status, 200);
    QCOMPARE(get("/get_tcp_server", "POST").json()["state"].toInt(), 0);
    QCOMPARE(get("/control/address?mode=down").status, 200);
    QVERIFY(get("/get_tcp_server", "POST").status >= 500);
    QCOMPARE(get("/control/address?mode=bad").status, 200);
    QVERIFY(QJsonDocument::fromJson(get("/get_tcp_server", "POST").body).isNull());
    QCOMPARE(get("/control/address?mode=ok").status, 200);

    QCOMPARE(get("/control/address?mode=sideways").status, 400);
    QCOMPARE(get("/control/frobnicate").status, 400);
    QCOMPARE(get("/elsewhere").status, 404);
}

void TstSandbox::changesReachOnlyTheFirstQueryOfTheNextConnection()
{
    auto first = std::make_unique<PushClient>();
    QVERIFY(first->connectTo(m_pushPort));
    QCOMPARE(first->loginAndQuery(), QJsonArray());

    // An avatar change drops the connection and rides on the next connection's first query.
    QCOMPARE(get("/control/avatar?url=http%3A%2F%2F127.0.0.1%2Fa.png").status, 200);
    QTRY_COMPARE_WITH_TIMEOUT(first->socket().state(), QAbstractSocket::UnconnectedState, 3000);

    auto second = std::make_unique<PushClient>();
    QVERIFY(second->connectTo(m_pushPort));
    const QJsonArray list = second->loginAndQuery();
    QCOMPARE(list.size(), 1);
    QCOMPARE(list[0].toObject()["t"].toInt(), 599999);
    const QJsonObject face = list[0].toObject()["data"].toObject();
    QCOMPARE(face["t"].toInt(), 138);
    QCOMPARE(face["face_l"].toString(), QString("http://127.0.0.1/a.png"));

    // Queued from standard input without a drop: a later query on the open connection (which the
    // daemon does not read) must not use it up.
    m_sandbox.write("vip 5 1900000000 drop=0\n");
    QVERIFY(waitForLine("membership level 5 until 1900000000 queued"));
    QCOMPARE(second->query(2), QJsonArray());
    QCOMPARE(second->socket().state(), QAbstractSocket::ConnectedState);
    second.reset();

    PushClient third;
    QVERIFY(third.connectTo(m_pushPort));
    const QJsonArray vipList = third.loginAndQuery();
    QCOMPARE(vipList.size(), 1);
    const QJsonObject inner = vipList[0].toObject()["data"].toObject();
    QCOMPARE(inner["t"].toInt(), 138);
    QCOMPARE(inner["face_l"].toString(), QString());
    const QJsonObject vip =
        inner["data"].toObject()["vip_info"].toObject()["vip"].toArray()[0].toObject();
    QCOMPARE(vip["mark"].toInt(), 5);
    QCOMPARE(qint64(vip["expire"].toDouble()), Q_INT64_C(1900000000));

    // A status-check message type goes the same way.
    QCOMPARE(get("/control/message?t=149&drop=0").status, 200);
    PushClient fourth;
    QVERIFY(fourth.connectTo(m_pushPort));
    QCOMPARE(fourth.loginAndQuery()[0].toObject()["data"].toObject()["t"].toInt(), 149);
}

void TstSandbox::noticeAndLogoutElsewhere()
{
    PushClient client;
    QVERIFY(client.connectTo(m_pushPort));
    QCOMPARE(client.loginAndQuery(), QJsonArray());
    client.send("GOOS");
    QCOMPARE(client.raw(4), QByteArray("GOOS"));

    QCOMPARE(get("/control/notice?id=77").status, 200);
    const QByteArray notice = client.raw(12);
    QCOMPARE(notice.left(4), QByteArray("LOOS"));
    QCOMPARE(pushwire::readLe32(notice, 4), 77u);

    QCOMPARE(get("/control/logout?message=kicked%20out").status, 200);
    QTRY_COMPARE_WITH_TIMEOUT(client.socket().state(), QAbstractSocket::UnconnectedState, 3000);
    const HttpResult status = get("/app/1.0/linux/5.0.1/check/sso");
    QCOMPARE(status.json()["state"].toInt(), 1);
    QCOMPARE(status.json()["message"].toString(), QString("kicked out"));
    QCOMPARE(get("/control/sso?mode=ok").status, 200);

    // A silent push server records but does not answer; "refuse" closes new clients at once.
    QCOMPARE(get("/control/push?mode=silent").status, 200);
    PushClient quiet;
    QVERIFY(quiet.connectTo(m_pushPort));
    quiet.send(pushwire::loginFrame(7, 1, 20002, 0, 0, "cookie=x"));
    QVERIFY(waitForLine("user=20002 seq=0 extra=0 text=cookie=x"));
    QCOMPARE(quiet.answer(300), QByteArray());
    QCOMPARE(get("/control/push?mode=refuse").status, 200);
    PushClient refused;
    QVERIFY(refused.connectTo(m_pushPort));
    QTRY_COMPARE_WITH_TIMEOUT(refused.socket().state(), QAbstractSocket::UnconnectedState, 3000);
    QCOMPARE(get("/control/push?mode=normal").status, 200);
}

QTEST_GUILESS_MAIN(TstSandbox)
#include "tst_sandbox.moc"
