// MsgClient against a real push server (PushStub) and real HTTP services (HttpStub), all on
// 127.0.0.1 and on the test thread. Intervals are shrunk through MsgClientTimes and the
// back-off's clock is a variable of this file.

#include "core/data.h"
#include "core/datacenter.h"
#include "core/log.h"
#include "httpstub.h"
#include "logcapture.h"
#include "push/client.h"
#include "pushstub.h"
#include "pushwire.h"

#include <QDateTime>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {
const QByteArray kAddressPath = "/get_tcp_server";
const QByteArray kSsoPath = "/app/1.0/linux/5.0.1/check/sso";
const QByteArray kRecordCookie = "USERSESSIONID=u;PHPSESSID=p;";
const QByteArray kQueryText = R"({"id":"0", "type":627, "max":"100"})";
const QByteArray kSsoValid = R"({"state":0,"message":""})";
const QByteArray kSsoKicked = R"({"state":1,"message":"kicked"})";
constexpr qint64 kSessionEpochMs = 1514736000000LL;

qint64 g_now = 1700000000;
qint64 fakeNow()
{
    return g_now;
}

MsgClientTimes fastTimes()
{
    MsgClientTimes times;
    // The heartbeat keeps its production period unless a test is about it, so that a slow
    // echo cannot set off its watchdog in other tests.
    times.stepMs = 20;
    times.netErrorMs = 100;
    times.socketWaitMs = 2000;
    times.backoffSecondMs = 10;
    return times;
}

// A client whose process never gets past its first scheduled step within a test.
MsgClientTimes idleTimes()
{
    MsgClientTimes times = fastTimes();
    times.stepMs = 3600 * 1000;
    return times;
}

quint16 refusedPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost, 0);
    const quint16 port = server.serverPort();
    server.close();
    return port;
}

QByteArray addressAnswer(const QStringList& servers)
{
    QByteArray list;
    for (const QString& server : servers)
        list += (list.isEmpty() ? "\"" : ",\"") + server.toUtf8() + "\"";
    return R"({"state":1,"data":{"server":[)" + list + "]}}";
}

void setLogin(const QMap<QString, QString>& cookies, const QString& userId)
{
    CLoginInfor info;
    info.cookies = cookies;
    info.userId = userId;
    DataCenter::getInstance()->SetLoginInfor(info);
}

CLogoutInfor logoutRecord()
{
    CLogoutInfor info;
    DataCenter::getInstance()->GetLogoutInfor(info);
    return info;
}

QPair<int, qint64> vipInfor()
{
    int level = 0;
    qint64 expire = 0;
    DataCenter::getInstance()->GetVipInfor(level, expire);
    return {level, expire};
}
} // namespace

class TestMsgClient : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void processWalksToRunning();
    void heartbeatKeepsConnectionQuiet();
    void queryAnswerUpdatesProfile();
    void messages_data();
    void messages();
    void noticeTriggersQuery();
    void noticeWithMissingAnswerChecksStatus();
    void serverAddress_data();
    void serverAddress();
    void addressServiceRetriedOnce();
    void connectFailures_data();
    void connectFailures();
    void restartDuringAddressLookup();
    void droppedConnectionReconnects();
    void partialFrameChecksStatus_data();
    void partialFrameChecksStatus();
    void unansweredHeartbeatChecksStatus();
    void unansweredLoginFiresWatchdog();
    void statusLoggedOut();
    void statusSkippedWithoutCookies();
    void statusRequestCarriesSession();
    void statusBackoffSequence();
    void statusValidWithoutReconnect();
    void statusFailureRestartsNetTimer();
    void statusUnparsableAnswer();
    void logoutStopsProcess();
    void userInfor_data();
    void userInfor();
    void sessionIdAndMacAddress();

private:
    std::unique_ptr<MsgClient> makeClient(const MsgClientTimes& times);
    // Brings a fresh client to the running step.
    std::unique_ptr<MsgClient> runningClient();
    int requestsTo(const QByteArray& path) const;
    QList<PushFrame> framesWhere(bool (PushFrame::*test)() const) const;

    QTemporaryDir m_home;
    LogCapture m_log;
    std::unique_ptr<HttpStub> m_http;
    std::unique_ptr<PushStub> m_push;
    HttpStubResponse m_ssoResponse;
    int m_addressFailuresLeft = 0;
    QByteArray m_addressBody;
};

void TestMsgClient::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("HOME", m_home.path().toUtf8());
    DataCenter::getInstance()->SetLogLevel(1);
    LogManager::getInstance()->init();
    QVERIFY(!LogManager::getInstance()->fileName().isEmpty());
    MsgClient::setBackoffClock(fakeNow);
    DataCenter::getInstance()->SetUserAgent("d627-test");
}

void TestMsgClient::init()
{
    // A quiet spell before every test, so the back-off starts at one second.
    g_now += 100;
    DataCenter* data = DataCenter::getInstance();
    data->SetLogoutInfor(CLogoutInfor());
    data->SetUserFace(QString());
    data->SetVipInfor(-1, -1);
    data->SetSetting(0);
    setLogin({{"cookie", kRecordCookie}}, "4242");

    m_push.reset(new PushStub);
    QVERIFY(m_push->listen(0));
    m_http.reset(new HttpStub);
    QVERIFY(m_http->listen(0));

    m_addressFailuresLeft = 0;
    m_addressBody = addressAnswer({QString::fromLatin1(m_push->address())});
    m_http->route(kAddressPath, [this](const HttpStubRequest&) {
        if (m_addressFailuresLeft > 0) {
            --m_addressFailuresLeft;
            HttpStubResponse down;
            down.status = 503;
            down.body = "unavailable";
            return down;
        }
        return HttpStubResponse::json(m_addressBody);
    });
    m_ssoResponse = HttpStubResponse::json(kSsoValid);
    m_http->route(kSsoPath, [this](const HttpStubRequest&) { return m_ssoResponse; });
    m_log.mark();
}

void TestMsgClient::cleanup()
{
    m_http.reset();
    m_push.reset();
}

std::unique_ptr<MsgClient> TestMsgClient::makeClient(const MsgClientTimes& times)
{
    std::unique_ptr<MsgClient> client(new MsgClient(nullptr, times));
    client->setServiceUrls(m_http->baseUrl() + kAddressPath, m_http->baseUrl() + kSsoPath);
    return client;
}

std::unique_ptr<MsgClient> TestMsgClient::runningClient()
{
    std::unique_ptr<MsgClient> client = makeClient(fastTimes());
    // Callers check process() themselves, so a failure shows which step was not reached.
    (void)QTest::qWaitFor([&] { return client->process() == 4; }, 5000);
    return client;
}

int TestMsgClient::requestsTo(const QByteArray& path) const
{
    int count = 0;
    for (const HttpStubRequest& request : m_http->requests())
        count += request.path == path ? 1 : 0;
    return count;
}

QList<PushFrame> TestMsgClient::framesWhere(bool (PushFrame::*test)() const) const
{
    QList<PushFrame> result;
    for (const PushFrame& frame : m_push->frames()) {
        if ((frame.*test)())
            result.append(frame);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// The numbered process

void TestMsgClient::processWalksToRunning()
{
    setLogin({{"cookie", kRecordCookie}, {"aux", "v;1 2"}}, "4242");
    const qint64 before = QDateTime::currentMSecsSinceEpoch() - kSessionEpochMs;
    std::unique_ptr<MsgClient> client = makeClient(fastTimes());
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));
    QCOMPARE(client->process(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 5000);
    const qint64 after = QDateTime::currentMSecsSinceEpoch() - kSessionEpochMs;

    // Steps ran in order, each from its own timer.
    const QString log = m_log.since();
    int last = -1;
    for (int step = 0; step < 4; ++step) {
        const int at = log.indexOf(QString("MsgClient::onRun current process is %1!").arg(step));
        QVERIFY2(at > last, qPrintable(QString("step %1 out of order").arg(step)));
        last = at;
    }
    QVERIFY(log.contains("LoginIMServer first_req_encode out is HOOS"));
    QVERIFY(log.contains("3.1: get max_id."));
    QVERIFY(log.contains("SendQuery id is 0, send squence id is 1"));

    const QList<PushFrame> frames = m_push->frames();
    QVERIFY(frames.size() >= 2);
    const PushFrame& login = frames.at(0);
    QVERIFY2(login.isLogin() && login.ok, qPrintable(login.describe() + login.error));
    QCOMPARE(login.version, quint16(1));
    QCOMPARE(login.clientType, quint8(7));
    QCOMPARE(login.userId, 4242u);
    QCOMPARE(login.seq, 0u);
    QCOMPARE(login.command, 0u);
    QCOMPARE(login.token.size(), 48);
    // Cookie entries in key order, ";" turned into "&", values percent-encoded, no separator.
    QCOMPARE(login.text, QByteArray("aux=v%261%202cookie=USERSESSIONID%3Du%26PHPSESSID%3Dp%26"));
    // The session id carries the milliseconds since the session epoch in its top 42 bits.
    const qint64 stamp = static_cast<qint64>(login.sessionId >> 22);
    QVERIFY2(stamp >= before && stamp <= after, qPrintable(QString::number(stamp)));

    const PushFrame& query = frames.at(1);
    QVERIFY2(query.isQuery() && query.ok, qPrintable(query.describe() + query.error));
    QCOMPARE(query.seq, 1u);
    QCOMPARE(query.text, kQueryText);
    QCOMPARE(client->sequence(), 2u);
    QCOMPARE(client->responseSeq(), 1u);
    QCOMPARE(status.count(), 0);

    // The running step stays in place: its own onRun only logs the number.
    QTRY_VERIFY(m_log.contains("MsgClient::onRun current process is 4!"));
    QTest::qWait(100);
    QCOMPARE(client->process(), 4);
    QCOMPARE(m_push->acceptedCount(), 1);
}

void TestMsgClient::heartbeatKeepsConnectionQuiet()
{
    // The watchdog must be shorter than the period, or each heartbeat would restart it.
    MsgClientTimes times = fastTimes();
    times.heartbeatMs = 400;
    times.heartbeatAnswerMs = 300;
    std::unique_ptr<MsgClient> client = makeClient(times);
    QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 5000);
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));
    QTRY_VERIFY_WITH_TIMEOUT(framesWhere(&PushFrame::isHeartbeat).size() >= 3, 3000);
    // Every heartbeat was echoed in time, so the 300 ms watchdog never fired.
    QTest::qWait(350);
    QCOMPARE(status.count(), 0);
    QCOMPARE(requestsTo(kSsoPath), 0);
    QVERIFY(!m_log.contains("check timer is timeout"));
    QVERIFY(m_log.contains("current msg is heart beart!"));
}

// ---------------------------------------------------------------------------------------------
// Messages

void TestMsgClient::queryAnswerUpdatesProfile()
{
    m_push->enqueueAnswer(R"({"code":0,"data":{"list":[
        {"t":599999,"data":{"t":"138","face_l":"http://img/face.png"}},
        {"t":138,"data":{"t":138,"face_l":"http://img/unwrapped.png"}},
        {"t":599999,"data":{"t":138,"face_l":"",
            "data":{"vip_info":{"vip":[{"mark":"5","expire":1.9e9},{"mark":9,"expire":1}]}}}}
    ]}})");
    std::unique_ptr<MsgClient> client = runningClient();
    QCOMPARE(client->process(), 4);
    QCOMPARE(DataCenter::getInstance()->GetUserFace(), QString("http://img/face.png"));
    QCOMPARE(vipInfor(), qMakePair(5, qint64(1900000000)));
    QVERIFY(m_log.contains("MsgClient::onhandleMsg type is 138, change face"));
    QVERIFY(m_log.contains("MsgClient::onhandleMsg type is 138, vip level change"));
}

void TestMsgClient::messages_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<bool>("parsed");
    QTest::addColumn<QString>("face");
    QTest::addColumn<int>("mark");
    QTest::addColumn<qint64>("expire");
    QTest::addColumn<int>("statusChecks");

    auto wrap = [](const QByteArray& inner) {
        return R"({"code":0,"data":{"list":[{"t":599999,"data":)" + inner + "}]}}";
    };
    QTest::newRow("face, type as string")
        << wrap(R"({"t":"138","face_l":"F"})") << true << "F" << -1 << qint64(-1) << 0;
    QTest::newRow("level as string")
        << wrap(R"({"t":138,"data":{"vip_info":{"vip":[{"mark":"5","expire":1.9e9}]}}})") << true
        << "" << 5 << qint64(1900000000) << 0;
    QTest::newRow("level as number")
        << wrap(R"({"t":138,"face_l":"","data":{"vip_info":{"vip":[{"mark":7,"expire":123}]}}})")
        << true << "" << 7 << qint64(123) << 0;
    QTest::newRow("level number 0")
        << wrap(R"({"t":138,"data":{"vip_info":{"vip":[{"mark":0,"expire":5}]}}})") << true << ""
        << 0 << qint64(5) << 0;
    QTest::newRow("level string 0")
        << wrap(R"({"t":138,"data":{"vip_info":{"vip":[{"mark":"0","expire":5}]}}})") << true << ""
        << 0 << qint64(5) << 0;
    QTest::newRow("no vip entry keeps defaults")
        << wrap(R"({"t":138,"data":{"vip_info":{"vip":[]}}})") << true << "" << -1 << qint64(-1)
        << 0;
    QTest::newRow("item type as string")
        << QByteArray(
               R"({"code":0,"data":{"list":[{"t":"599999","data":{"t":138,"face_l":"G"}}]}})")
        << true << "G" << -1 << qint64(-1) << 0;
    QTest::newRow("unwrapped item skipped")
        << QByteArray(R"({"code":0,"data":{"list":[{"t":138,"face_l":"F"},{"t":149}]}})") << true
        << "" << -1 << qint64(-1) << 0;
    QTest::newRow("149 checks") << wrap(R"({"t":149})") << true << "" << -1 << qint64(-1) << 1;
    QTest::newRow("601010 checks")
        << wrap(R"({"t":"601010"})") << true << "" << -1 << qint64(-1) << 1;
    QTest::newRow("one check per message")
        << QByteArray(R"({"code":0,"data":{"list":[{"t":599999,"data":{"t":149}},
                      {"t":599999,"data":{"t":601010}},{"t":599999,"data":{"t":150}}]}})")
        << true << "" << -1 << qint64(-1) << 2;
    QTest::newRow("empty list") << QByteArray(R"({"code":0,"data":{"list":[]}})") << true << ""
                                << -1 << qint64(-1) << 0;
    QTest::newRow("non-zero code ignored") << QByteArray(R"({"code":1,"data":{"list":[
        {"t":599999,"data":{"t":138,"face_l":"F"}}]}})")
                                           << false << "" << -1 << qint64(-1) << 0;
    QTest::newRow("not json") << QByteArray("{\"code\":0,") << false << "" << -1 << qint64(-1) << 0;
}

void TestMsgClient::messages()
{
    QFETCH(QByteArray, document);
    QFETCH(bool, parsed);
    QFETCH(QString, face);
    QFETCH(int, mark);
    QFETCH(qint64, expire);
    QFETCH(int, statusChecks);

    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));
    QVector<MsgClient::OneMessage> out;
    QCOMPARE(client->ParseMessage(document, out), parsed);

    client->onhandleMsg(document);
    QCOMPARE(DataCenter::getInstance()->GetUserFace(), face);
    QCOMPARE(vipInfor(), qMakePair(mark, expire));
    QCOMPARE(status.count(), statusChecks);
    for (const QList<QVariant>& args : qAsConst(status))
        QCOMPARE(args.at(0).toBool(), false);
    // A check without reconnection: the service is asked, nothing is scheduled.
    QCOMPARE(requestsTo(kSsoPath), statusChecks);
    QCOMPARE(client->lastReconnectWaitMs(), 0);

    const QString log = m_log.since();
    QCOMPARE(log.contains("MsgClient::onhandleMsg parse message failed!"), !parsed);
    QCOMPARE(log.contains("parse message failed : "), document == "{\"code\":0,");
}

void TestMsgClient::noticeTriggersQuery()
{
    std::unique_ptr<MsgClient> client = runningClient();
    QCOMPARE(client->process(), 4);
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));
    QSignalSpy userInfo(client.get(), SIGNAL(checkuserinfo()));
    m_push->clearFrames();

    QCOMPARE(m_push->sendNotice(42), 1);
    QTRY_COMPARE(framesWhere(&PushFrame::isQuery).size(), 1);
    const PushFrame query = framesWhere(&PushFrame::isQuery).at(0);
    QCOMPARE(query.seq, 2u);
    QCOMPARE(query.text, kQueryText);

    // The answer to that query is not parsed: it prompts a status and user-information check.
    QTRY_COMPARE(requestsTo(kSsoPath), 1);
    QCOMPARE(status.count(), 1);
    QCOMPARE(status.at(0).at(0).toBool(), false);
    QCOMPARE(userInfo.count(), 1);
    QCOMPARE(vipInfor(), qMakePair(100, qint64(100)));
    QCOMPARE(client->sequence(), 3u);
    QCOMPARE(client->responseSeq(), 2u);
}

void TestMsgClient::noticeWithMissingAnswerChecksStatus()
{
    std::unique_ptr<MsgClient> client = runningClient();
    QCOMPARE(client->process(), 4);
    m_push->setAnswerRequests(false);
    m_push->clearFrames();
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));

    m_push->sendNotice(1);
    QTRY_COMPARE(framesWhere(&PushFrame::isQuery).size(), 1);
    QCOMPARE(requestsTo(kSsoPath), 0);

    // The query went unanswered: the next notice checks instead of asking again.
    m_push->sendNotice(2);
    QTRY_COMPARE(requestsTo(kSsoPath), 1);
    QCOMPARE(status.count(), 1);
    QCOMPARE(status.at(0).at(0).toBool(), false);
    QCOMPARE(vipInfor(), qMakePair(100, qint64(100)));
    QTest::qWait(100);
    QCOMPARE(framesWhere(&PushFrame::isQuery).size(), 1);
    QCOMPARE(client->sequence(), 3u);
}

// ---------------------------------------------------------------------------------------------
// Address lookup and connection failures

void TestMsgClient::serverAddress_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("ip");
    QTest::addColumn<int>("port");
    QTest::addColumn<QString>("logLine");

    QTest::newRow("first entry wins")
        << addressAnswer({"10.0.0.1:9000", "10.0.0.2:9001"}) << 1 << "10.0.0.1" << 9000
        << "connect server success!, ip is 10.0.0.1:9000, port is 9000";
    QTest::newRow("entry without colon skipped")
        << addressAnswer({"10.0.0.1", "10.0.0.2:9001"}) << 1 << "10.0.0.2" << 9001
        << "connect server success!, ip is 10.0.0.2:9001, port is 9001";
    QTest::newRow("ipv6 literal skipped")
        << addressAnswer({"::1:80", "h:1"}) << 1 << "h" << 1 << "ip is h:1, port is 1";
    QTest::newRow("port not a number") << addressAnswer({"10.0.0.1:abc"}) << 1 << "10.0.0.1" << 0
                                       << "ip is 10.0.0.1:abc, port is 0";
    QTest::newRow("host not trimmed")
        << addressAnswer({" h :7"}) << 1 << " h " << 7 << "ip is  h :7, port is 7";
    QTest::newRow("empty list") << addressAnswer({}) << 0 << "" << -1
                                << "server address list num is 0!";
    QTest::newRow("no usable entry") << addressAnswer({"a", "b:c:d"}) << 0 << "" << -1 << "";
    QTest::newRow("state 0") << QByteArray(R"({"state":0,"data":{"server":["h:1"]}})") << 0 << ""
                             << -1 << "parse server address failed! because state is 0";
    QTest::newRow("state missing") << QByteArray(R"({"data":{"server":["h:1"]}})") << 0 << "" << -1
                                   << "get server address failed!";
    QTest::newRow("not json") << QByteArray("<html>") << 0 << "" << -1
                              << "get server address failed!";
}

void TestMsgClient::serverAddress()
{
    QFETCH(QByteArray, answer);
    QFETCH(int, result);
    QFETCH(QString, ip);
    QFETCH(int, port);
    QFETCH(QString, logLine);

    m_addressBody = answer;
    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    QString gotIp;
    int gotPort = -1;
    QCOMPARE(client->GetServerAddress(gotIp, gotPort), result);
    QCOMPARE(gotIp, ip);
    QCOMPARE(gotPort, port);
    if (!logLine.isEmpty())
        QVERIFY2(m_log.contains(logLine), qPrintable(m_log.since()));
    // A reply that arrived is never asked for again, whatever it held.
    QCOMPARE(requestsTo(kAddressPath), 1);
    const HttpStubRequest request = m_http->requests().at(0);
    QCOMPARE(request.method, QByteArray("POST"));
    QCOMPARE(request.body, QByteArray());
    QCOMPARE(request.header("content-type"),
             QByteArray("application/x-www-form-urlencoded;charset=UTF-8"));
    QCOMPARE(request.header("user-agent"), QByteArray("d627-test"));
}

void TestMsgClient::addressServiceRetriedOnce()
{
    m_addressFailuresLeft = 1;
    std::unique_ptr<MsgClient> client = runningClient();
    QCOMPARE(client->process(), 4);
    QCOMPARE(requestsTo(kAddressPath), 2);
    QCOMPARE(m_log.count("get server address error is unavailable"), 1);
    QCOMPARE(requestsTo(kSsoPath), 0);
}

void TestMsgClient::connectFailures_data()
{
    QTest::addColumn<int>("failures");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<int>("addressRequests");
    QTest::addColumn<QString>("logLine");

    const QString lookupFailed = "MsgClient::connect2Server GetServerAddress failed!";
    QTest::newRow("service down twice") << 2 << QByteArray() << 2 << lookupFailed;
    QTest::newRow("state 0") << 0 << QByteArray(R"({"state":0})") << 1
                             << "parse server address failed! because state is 0";
    QTest::newRow("no usable entry")
        << 0 << addressAnswer({"127.0.0.1", "::1:80"}) << 1 << lookupFailed;
    QTest::newRow("refused connection")
        << 0 << addressAnswer({QString("127.0.0.1:%1").arg(refusedPort())}) << 1
        << "MsgClient::connect2Server connect to server failed!";
}

void TestMsgClient::connectFailures()
{
    QFETCH(int, failures);
    QFETCH(QByteArray, answer);
    QFETCH(int, addressRequests);
    QFETCH(QString, logLine);

    m_addressFailuresLeft = failures;
    if (!answer.isEmpty())
        m_addressBody = answer;
    // The status check finds the user logged out, which ends the process there.
    m_ssoResponse = HttpStubResponse::json(kSsoKicked);
    std::unique_ptr<MsgClient> client = makeClient(fastTimes());
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));

    QTRY_VERIFY_WITH_TIMEOUT(logoutRecord().isLogout, 3000);
    QVERIFY2(m_log.contains(logLine), qPrintable(m_log.since()));
    QVERIFY(m_log.contains("MsgClient::onRun ret is not 0, would check login status!"));
    QCOMPARE(status.count(), 1);
    QCOMPARE(status.at(0).at(0).toBool(), true);
    QCOMPARE(requestsTo(kSsoPath), 1);
    QCOMPARE(m_push->frames().size(), 0);
    // No reconnection after a logout.
    QTest::qWait(150);
    QCOMPARE(requestsTo(kAddressPath), addressRequests);
    QCOMPARE(client->process(), 0);
}

void TestMsgClient::restartDuringAddressLookup()
{
    // A second step 0 comes due while the first waits for the address service.
    m_http->route(kAddressPath, [this](const HttpStubRequest&) {
        HttpStubResponse slow = HttpStubResponse::json(m_addressBody);
        slow.delayMs = 200;
        return slow;
    });
    std::unique_ptr<MsgClient> client = makeClient(fastTimes());
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));
    client->onsocketerror();

    QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 5000);
    QTest::qWait(100);
    QCOMPARE(m_push->acceptedCount(), 1);
    QCOMPARE(m_push->openConnections(), 1);
    QCOMPARE(framesWhere(&PushFrame::isLogin).size(), 1);
    QCOMPARE(framesWhere(&PushFrame::isQuery).size(), 1);
    QCOMPARE(status.count(), 0);
}

void TestMsgClient::droppedConnectionReconnects()
{
    std::unique_ptr<MsgClient> client = runningClient();
    QCOMPARE(client->process(), 4);
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));

    QCOMPARE(m_push->dropConnections(), 1);
    QTRY_COMPARE(requestsTo(kSsoPath), 1);
    QVERIFY(m_log.contains("server disconnect to socket, error is "));
    QCOMPARE(status.at(0).at(0).toBool(), true);
    QVERIFY(m_log.contains("check status is login, would reconnect server"));
    QCOMPARE(client->lastReconnectWaitMs(), 10);

    // The back-off restarts the process at step 0: a new connection with a new login.
    QTRY_COMPARE_WITH_TIMEOUT(m_push->acceptedCount(), 2, 3000);
    QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 3000);
    QVERIFY(m_log.contains("socket error"));
    const QList<PushFrame> logins = framesWhere(&PushFrame::isLogin);
    QCOMPARE(logins.size(), 2);
    QCOMPARE(logins.at(1).connection, 2);
    QCOMPARE(logins.at(1).seq, 0u);
    QCOMPARE(client->sequence(), 2u);
}

void TestMsgClient::partialFrameChecksStatus_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("logLine");

    const QByteArray frame = pushwire::responseFrame(7, "{\"code\":0}", false);
    QTest::newRow("part of the head") << frame.left(10) << "read head failed!";
    // A head that announces almost 2 GiB: refused for want of bytes, never allocated.
    QByteArray huge = frame.left(16);
    const quint32 length = 0x7FFFFFF0;
    for (int i = 0; i < 4; ++i)
        huge[12 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
    QTest::newRow("huge body length")
        << huge + QByteArray(16, 'x') << "nread failed! len is 2147483632, available bytes is 16";
}

void TestMsgClient::partialFrameChecksStatus()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, logLine);

    std::unique_ptr<MsgClient> client = runningClient();
    QCOMPARE(client->process(), 4);
    m_ssoResponse = HttpStubResponse::json(kSsoKicked);
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));

    m_push->sendRaw(bytes);
    QTRY_VERIFY(logoutRecord().isLogout);
    QVERIFY2(m_log.contains(logLine), qPrintable(m_log.since()));
    QVERIFY(m_log.contains("read false! read head or data failed!"));
    QVERIFY(m_log.contains(
        "read from server result is -1, so check connect status! current process is 4"));
    QCOMPARE(status.at(0).at(0).toBool(), true);
    QCOMPARE(logoutRecord().message, QString("kicked"));
}

void TestMsgClient::unansweredHeartbeatChecksStatus()
{
    MsgClientTimes times = fastTimes();
    times.heartbeatMs = 250;
    times.heartbeatAnswerMs = 150;
    std::unique_ptr<MsgClient> client = makeClient(times);
    QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 5000);
    m_push->setEchoHeartbeat(false);
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));

    QTRY_VERIFY_WITH_TIMEOUT(status.count() >= 1, 2000);
    QCOMPARE(status.at(0).at(0).toBool(), false);
    QVERIFY(m_log.contains("check timer is timeout, would check status!"));
    QTRY_COMPARE(requestsTo(kSsoPath), status.count());
    // A check without reconnection: the connection stays as it is.
    QCOMPARE(client->lastReconnectWaitMs(), 0);
    QCOMPARE(m_push->acceptedCount(), 1);
}

void TestMsgClient::unansweredLoginFiresWatchdog()
{
    MsgClientTimes times = fastTimes();
    times.answerMs = 200;
    m_push->setAnswerLogin(false);
    std::unique_ptr<MsgClient> client = makeClient(times);
    QSignalSpy status(client.get(), SIGNAL(checkstatus(bool)));
    QTRY_COMPARE_WITH_TIMEOUT(status.count(), 1, 3000);
    QCOMPARE(status.at(0).at(0).toBool(), false);
    QCOMPARE(client->process(), 1);
    QCOMPARE(framesWhere(&PushFrame::isLogin).size(), 1);
}

// ---------------------------------------------------------------------------------------------
// Login-status check

void TestMsgClient::statusLoggedOut()
{
    m_ssoResponse = HttpStubResponse::json(kSsoKicked);
    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    client->oncheckstatus(true);

    QVERIFY(logoutRecord().isLogout);
    QCOMPARE(logoutRecord().message, QString("kicked"));
    QVERIFY(m_log.contains("user is logout, message is kicked"));
    QVERIFY(m_log.contains("check status is login out"));
    QCOMPARE(client->lastReconnectWaitMs(), 0);

    // A logged-out user is never checked again.
    client->oncheckstatus(true);
    QCOMPARE(requestsTo(kSsoPath), 1);
}

void TestMsgClient::statusSkippedWithoutCookies()
{
    setLogin({}, "4242");
    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    client->oncheckstatus(true);
    QCOMPARE(requestsTo(kSsoPath), 0);
    QCOMPARE(client->lastReconnectWaitMs(), 0);
    QVERIFY(!m_log.contains("check status result is"));
}

void TestMsgClient::statusRequestCarriesSession()
{
    setLogin({{"cookie", kRecordCookie}, {"X-Token", "t1"}}, "4242");
    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    client->oncheckstatus(false);
    QCOMPARE(requestsTo(kSsoPath), 1);
    const HttpStubRequest request = m_http->requests().at(0);
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.header("cookie"), kRecordCookie);
    QCOMPARE(request.header("x-token"), QByteArray("t1"));
    QCOMPARE(request.header("user-agent"), QByteArray("d627-test"));
    QCOMPARE(request.header("content-type"), QByteArray());
    // The device id is the body of a GET, so it is not sent.
    QCOMPARE(request.body, QByteArray());
    QVERIFY(m_log.contains("check status result is " + QString(kSsoValid)));
}

void TestMsgClient::statusBackoffSequence()
{
    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    // Seconds since the previous check -> expected wait in back-off seconds.
    const QList<QPair<int, int>> steps = {{0, 1},  {1, 2},  {1, 4}, {1, 8},
                                          {1, 10}, {5, 10}, {6, 1}, {3, 2}};
    for (const auto& step : steps) {
        g_now += step.first;
        client->oncheckstatus(true);
        QCOMPARE(client->lastReconnectWaitMs(), step.second * fastTimes().backoffSecondMs);
    }
    // Every scheduled reconnection runs onsocketerror(), which restarts at step 0.
    QTRY_COMPARE(m_log.count("socket error"), steps.size());
    QCOMPARE(client->process(), 0);
}

void TestMsgClient::statusValidWithoutReconnect()
{
    // Only a "state" of 1 means logged out; any other value is a valid session.
    m_ssoResponse = HttpStubResponse::json(R"({"state":2,"message":"x"})");
    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    client->oncheckstatus(false);
    QCOMPARE(requestsTo(kSsoPath), 1);
    QVERIFY(!logoutRecord().isLogout);
    QCOMPARE(client->lastReconnectWaitMs(), 0);
    QVERIFY(!m_log.contains("would reconnect server"));
}

void TestMsgClient::statusFailureRestartsNetTimer()
{
    m_ssoResponse.status = 500;
    m_ssoResponse.body = "broken";
    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    client->oncheckstatus(false);
    QVERIFY(m_log.contains("request or parse failed, request return:-1"));

    // The 100 ms net timer repeats the check (with reconnection) while the service fails.
    QTRY_VERIFY_WITH_TIMEOUT(m_log.count("net error, so check status") >= 2, 2000);
    QCOMPARE(client->lastReconnectWaitMs(), 0);

    // Once the service answers, the timer is stopped and the reconnection scheduled.
    m_ssoResponse = HttpStubResponse::json(kSsoValid);
    QTRY_COMPARE_WITH_TIMEOUT(client->lastReconnectWaitMs(), 10, 2000);
    const int netErrors = m_log.count("net error, so check status");
    QTest::qWait(350);
    QCOMPARE(m_log.count("net error, so check status"), netErrors);
}

void TestMsgClient::statusUnparsableAnswer()
{
    m_ssoResponse = HttpStubResponse::json("not json");
    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    client->oncheckstatus(true);
    QVERIFY(m_log.contains("ParseCheckStatusResponse failed!parser error is "));
    QVERIFY(m_log.contains("request or parse failed, request return:0"));
    QVERIFY(!logoutRecord().isLogout);
    QCOMPARE(client->lastReconnectWaitMs(), 0);
    QTRY_VERIFY(m_log.contains("net error, so check status"));
}

void TestMsgClient::logoutStopsProcess()
{
    CLogoutInfor logout;
    logout.isLogout = true;
    DataCenter::getInstance()->SetLogoutInfor(logout);
    std::unique_ptr<MsgClient> client = makeClient(fastTimes());
    QTest::qWait(100);
    QCOMPARE(client->process(), 0);
    QVERIFY(m_log.contains("MsgClient::startRunTimer user is logout!"));
    QVERIFY(!m_log.contains("MsgClient::onRun current process"));

    // nextProcess still advances the number, but no step runs.
    client->nextProcess();
    QCOMPARE(client->process(), 1);
    QTest::qWait(100);
    QCOMPARE(m_push->acceptedCount(), 0);
    QCOMPARE(requestsTo(kAddressPath), 0);
}

// ---------------------------------------------------------------------------------------------
// User information and device identity

void TestMsgClient::userInfor_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<int>("result");
    QTest::addColumn<int>("mark");
    QTest::addColumn<qint64>("expire");

    const QByteArray tail = R"(,"expire":1900000000,"user_name":"ann","face":"http://f",
        "mobile":"123","sapce":{"1":{"size_total":"2T","size_used":"1T",
        "byte_size_remain":12345678901.9,"size_used_percent":"42.5"}}}})";
    QTest::newRow("mark as string")
        << QByteArray(R"({"state":true,"data":{"mark":"3")") + tail << 1 << 3 << qint64(1900000000);
    QTest::newRow("mark as number")
        << QByteArray(R"({"state":true,"data":{"mark":4)") + tail << 1 << 4 << qint64(1900000000);
    QTest::newRow("mark number 0")
        << QByteArray(R"({"state":true,"data":{"mark":0)") + tail << 1 << 0 << qint64(1900000000);
    QTest::newRow("mark string 0")
        << QByteArray(R"({"state":true,"data":{"mark":"0")") + tail << 1 << 0 << qint64(1900000000);
    QTest::newRow("state false") << QByteArray(R"({"state":false,"message":"no user"})") << -1 << -1
                                 << qint64(-1);
    QTest::newRow("not json") << QByteArray("{") << -1 << -1 << qint64(-1);
}

void TestMsgClient::userInfor()
{
    QFETCH(QByteArray, document);
    QFETCH(int, result);
    QFETCH(int, mark);
    QFETCH(qint64, expire);

    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    CUserInfor info;
    QCOMPARE(client->ParseUserInfor(document, info), result);
    QCOMPARE(vipInfor(), qMakePair(mark, expire));
    if (result != 1) {
        QCOMPARE(m_log.contains("userinfor:no user"), document.contains("no user"));
        return;
    }
    QCOMPARE(info.vipMark, mark);
    QCOMPARE(info.expire, expire);
    QCOMPARE(info.userName, QString("ann"));
    QCOMPARE(info.face, QString("http://f"));
    QCOMPARE(DataCenter::getInstance()->GetUserFace(), QString("http://f"));
    QCOMPARE(info.mobile, QString("123"));
    QCOMPARE(info.sizeTotal, QString("2T"));
    QCOMPARE(info.sizeUsed, QString("1T"));
    QCOMPARE(info.byteSizeRemain, qint64(12345678901));
    QCOMPARE(info.sizeUsedPercent, 0.425);
    QVERIFY(m_log.contains("ParseUserInfor ------------------>>"));
}

void TestMsgClient::sessionIdAndMacAddress()
{
    const QString withColons = getMacAddress(false);
    const QString plain = getMacAddress(true);
    QCOMPARE(plain, QString(withColons).remove(':'));
    if (!plain.isEmpty()) {
        QCOMPARE(withColons.size(), 17);
        QVERIFY(QRegularExpression("^[0-9A-F]{12}$").match(plain).hasMatch());
    }

    std::unique_ptr<MsgClient> client = makeClient(idleTimes());
    const qint64 before = QDateTime::currentMSecsSinceEpoch() - kSessionEpochMs;
    const quint64 id = client->GetSessionId();
    const qint64 after = QDateTime::currentMSecsSinceEpoch() - kSessionEpochMs;
    QVERIFY(static_cast<qint64>(id >> 22) >= before && static_cast<qint64>(id >> 22) <= after);
    QCOMPARE(client->GetClientType(), 7);
}

QTEST_GUILESS_MAIN(TestMsgClient)
#include "tst_msgclient.moc"
