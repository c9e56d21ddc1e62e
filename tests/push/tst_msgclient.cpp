// SPDX-License-Identifier: Apache-2.0
// MsgClient on the test thread against a real push server and HTTP services on 127.0.0.1, with
// scaled-down intervals and the back-off's clock under the test's control.

#include "core/data.h"
#include "core/datacenter.h"
#include "linkfaults.h"
#include "logcapture.h"
#include "push/clienttcpsocket.h"
#include "pushservices.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QTcpServer>
#include <QtTest>
#include <memory>

namespace {
const QByteArray kRecordCookie = "USERSESSIONID=u;PHPSESSID=p;";
const QByteArray kQueryText = R"({"id":"0", "type":627, "max":"100"})";
constexpr qint64 kSessionEpochMs = 1514736000000LL;
constexpr int kIdleStepMs = 3600 * 1000; // a process that never gets past its first step
constexpr int kBackoffUnitMs = 500;      // one back-off second where a test plays the waits
constexpr int kIntervalMs = 1500;        // a scaled interval measured from both sides

// An interval that fired neither early (timers may fire a few per cent early) nor late by more
// than a loaded, sanitized machine needs: half the interval, and at least a second.
bool within(qint64 elapsedMs, int intervalMs)
{
    return elapsedMs >= intervalMs * 9 / 10 && elapsedMs <= intervalMs + qMax(intervalMs / 2, 1000);
}

qint64 g_now = 1700000000; // the back-off's clock

// The clocks that tell a suspend: the boot-time clock runs `sleptMs` ahead of the monotonic one.
struct SleepClocks : ClockSource
{
    qint64 sleptMs = 0;
    QElapsedTimer since;
    SleepClocks() { since.start(); }
    qint64 bootTimeMs() const override { return since.elapsed() + sleptMs; }
    qint64 monotonicMs() const override { return since.elapsed(); }
};
SleepClocks g_clocks;

// The login record with a user id and these cookies; the logout record; the pending membership.
void setLogin(const QMap<QString, QString>& cookies)
{
    CLoginInfor info;
    info.cookies = cookies;
    info.userId = "4242";
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

class tst_MsgClient : public QObject
{
    Q_OBJECT
    LogCapture m_log;
    std::unique_ptr<PushServices> m_s;

private slots:
    void initTestCase()
    {
        m_log.start(1);
        MsgClient::setBackoffClock([] { return g_now; });
        MsgClient::setSleepClocks(&g_clocks);
        DataCenter::getInstance()->SetUserAgent("d627-test");
    }
    void init()
    {
        g_now += 100; // a quiet spell before every test: the back-off starts at one second
        DataCenter* data = DataCenter::getInstance();
        data->SetLogoutInfor(CLogoutInfor());
        data->SetUserFace(QString());
        data->SetVipInfor(-1, -1);
        setLogin({{"cookie", kRecordCookie}});
        m_s.reset(new PushServices);
        QVERIFY(m_s->start());
        m_log.mark();
    }
    void cleanup() { m_s.reset(); }

    // The numbered process: address (retried once), login, query and its answer, running.
    void processWalksToRunning()
    {
        setLogin({{"cookie", kRecordCookie}, {"aux", "v;1 2"}});
        m_s->addressFailures = 1;
        m_s->push.enqueueAnswer(R"({"code":0,"data":{"list":[
            {"t":599999,"data":{"t":"138","face_l":"img/face.png"}},
            {"t":599999,"data":{"t":138,"face_l":"",
                "data":{"vip_info":{"vip":[{"mark":"5","expire":1.9e9},{"mark":9}]}}}}]}})");
        const qint64 before = QDateTime::currentMSecsSinceEpoch() - kSessionEpochMs;
        std::unique_ptr<MsgClient> client = m_s->client();
        QSignalSpy checkSpy(client.get(), SIGNAL(checkstatus(bool)));
        QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 10000);
        const qint64 after = QDateTime::currentMSecsSinceEpoch() - kSessionEpochMs;
        QCOMPARE(m_s->requestsTo(kAddress), 2);

        const QList<PushFrame> frames = m_s->push.frames();
        QVERIFY(frames.size() >= 2);
        const PushFrame& login = frames.at(0);
        QVERIFY2(login.isLogin() && login.ok, qPrintable(login.describe() + login.error));
        QCOMPARE(login.version, quint16(1));
        QCOMPARE(login.clientType, quint8(7));
        QCOMPARE(login.userId, 4242u);
        QCOMPARE(login.seq, 0u);
        QCOMPARE(login.token.size(), 48);
        // Cookie entries in key order, ";" turned into "&", values percent-encoded, no separator.
        QCOMPARE(login.text,
                 QByteArray("aux=v%261%202cookie=USERSESSIONID%3Du%26PHPSESSID%3Dp%26"));
        // The session id carries the milliseconds since the session epoch in its top 42 bits.
        const qint64 stamp = static_cast<qint64>(login.sessionId >> 22);
        QVERIFY2(stamp >= before && stamp <= after, qPrintable(QString::number(stamp)));

        const PushFrame& query = frames.at(1);
        QVERIFY2(query.isQuery() && query.ok, qPrintable(query.describe() + query.error));
        QCOMPARE(query.seq, 1u);
        QCOMPARE(query.text, kQueryText);
        QCOMPARE(client->sequence(), 2u);
        QCOMPARE(client->responseSeq(), 1u);
        QCOMPARE(DataCenter::getInstance()->GetUserFace(), QString("img/face.png"));
        QCOMPARE(vipInfor(), qMakePair(5, qint64(1900000000)));
        client->nextProcess(); // past running, frames are dropped: a notice asks for nothing
        QCOMPARE(m_s->push.sendNotice(1), 1);
        QTRY_VERIFY(m_log.contains(R"(client read from server message is {"data":{"notice_id")"));
        QCOMPARE(client->sequence(), 2u);
        QCOMPARE(checkSpy.count(), 0);
        QCOMPARE(m_s->push.acceptedCount(), 1);
    }

    // Wrapped items of type 138 carry the membership (the avatar: see processWalksToRunning);
    // 149 and 601010 ask for a status check; nothing else, nor a failed answer, changes a thing.
    void messages_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<int>("mark"); // stored with expiry 123; 9: untouched, -1: with -1
        QTest::addColumn<int>("statusChecks");
        const QByteArray list = R"({"code":0,"data":{"list":[)";
        const QByteArray level = list + R"({"t":"599999","data":{"t":138,"face_l":"",
            "data":{"vip_info":{"vip":[%1]}}}}]}})";
        const QByteArray user = R"({"state":true,"data":{"user_name":"ann","face":"f.png",
            "mobile":"123","sapce":{"1":{"size_total":"2T","size_used":"1T",
            "byte_size_remain":12345678901.9,"size_used_percent":"42.5"}},%1}})";
        const QList<QPair<QByteArray, int>> marks{{"7", 7}, {"\"7\"", 7}, {"0", 0}, {"\"0\"", 0}};
        for (const auto& mark : marks) {
            const QByteArray entry = R"("mark":)" + mark.first + R"(,"expire":123)";
            QTest::newRow("level " + mark.first)
                << QByteArray(level).replace("%1", "{" + entry + "}") << mark.second << 0;
            QTest::newRow("user level " + mark.first)
                << QByteArray(user).replace("%1", entry) << mark.second << 0;
        }
        QTest::newRow("empty vip array") << QByteArray(level).replace("%1", "") << -1 << 0;
        // Each type as a number and as a string, in an item of type 599999 and bare.
        for (const QByteArray& type :
             QByteArrayList{"138", "\"138\"", "149", "\"149\"", "601010", "\"601010\""}) {
            const bool check = !type.contains("138"); // 138 without avatar nor level: -1
            QTest::newRow("wrapped " + type)
                << list + R"({"t":599999,"data":{"t":)" + type + "}}]}}" << (check ? 9 : -1)
                << int(check);
            QTest::newRow("bare " + type) << list + R"({"t":)" + type + "}]}}" << 9 << 0;
        }
        QTest::newRow("other type") << list + R"({"t":599999,"data":{"t":150}}]}})" << 9 << 0;
        for (const QByteArray& code : QByteArrayList{"1", "-1"})
            QTest::newRow("code " + code)
                << R"({"code":)" + code +
                       R"(,"data":{"list":[{"t":599999,"data":{"t":138,"face_l":"F"}}]}})"
                << 9 << 0;
        QTest::newRow("not json") << QByteArray("{\"code\":0,") << 9 << 0;
        QTest::newRow("user refused") << QByteArray(R"({"state":false,"message":"no"})") << 9 << 0;
        QTest::newRow("user not json") << QByteArray(R"({"state":true,)") << 9 << 0;
    }
    void messages()
    {
        QFETCH(QByteArray, document);
        QFETCH(int, mark);
        QFETCH(int, statusChecks);
        std::unique_ptr<MsgClient> client = m_s->client(fastTimes(kIdleStepMs));
        QSignalSpy checkSpy(client.get(), SIGNAL(checkstatus(bool)));
        DataCenter::getInstance()->SetVipInfor(9, 9);
        CUserInfor info;
        if (document.startsWith(R"({"state")")) {
            QCOMPARE(client->ParseUserInfor(document, info), mark == 9 ? -1 : 1);
            QCOMPARE(info.userName + info.face + info.mobile + info.sizeTotal + info.sizeUsed,
                     QString(mark == 9 ? "" : "annf.png1232T1T"));
            QCOMPARE(info.byteSizeRemain, qint64(mark == 9 ? 0 : 12345678901));
            QCOMPARE(info.sizeUsedPercent, mark == 9 ? 0.0 : 0.425);
        } else {
            client->onhandleMsg(document);
        }
        QCOMPARE(DataCenter::getInstance()->GetUserFace(), info.face);
        QCOMPARE(vipInfor(), qMakePair(mark, qint64(mark == 9 || mark == -1 ? mark : 123)));
        QCOMPARE(checkSpy.count(), statusChecks);
        // A check without reconnection: the service is asked, nothing is scheduled.
        QCOMPARE(m_s->requestsTo(kSso), statusChecks);
        QCOMPARE(client->lastReconnectWaitMs(), 0);
    }

    // A notice asks for the latest messages (unanswered here), or checks the status when an answer
    // is missing: the last answer's sequence + 1 (unsigned 32-bit) below the next request's.
    void notice_data()
    {
        QTest::addColumn<qint64>("seq"); // of an answer sent first, which prompts a check; -1: none
        QTest::addColumn<int>("checks");
        QTest::newRow("a query, then a check") << -1LL << 1;
        QTest::newRow("answer beyond the requests") << 5LL << 1;
        QTest::newRow("answer sequence wraps") << 0xFFFFFFFFLL << 3;
    }
    void notice()
    {
        QFETCH(qint64, seq);
        QFETCH(int, checks);
        std::unique_ptr<MsgClient> client = m_s->running();
        m_s->push.setAnswerRequests(false);
        m_s->push.clearFrames();
        QSignalSpy checkSpy(client.get(), SIGNAL(checkstatus(bool)));
        if (seq >= 0) {
            m_s->push.sendResponse(quint32(seq), "{}");
            QTRY_COMPARE(m_s->requestsTo(kSso), 1);
        }
        for (int id : {42, 43}) {
            QCOMPARE(m_s->push.sendNotice(id), 1);
            QTRY_VERIFY(m_log.contains(QString(R"("notice_id":"%1")").arg(id)));
        }
        QCOMPARE(m_s->requestsTo(kSso), checks);
        QCOMPARE(checkSpy.count(), checks);
        QVERIFY(!checkSpy.contains({true}));
        QCOMPARE(vipInfor(), qMakePair(100, qint64(100)));
        QTRY_COMPARE(m_s->frames(&PushFrame::isQuery).size(), int(client->sequence()) - 2);
        QCOMPARE(client->responseSeq(), seq >= 0 ? quint32(seq) : 1u);
    }

    void serverAddress_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("ip");
        QTest::addColumn<int>("port");
        QTest::newRow("first entry wins")
            << addressAnswer({"10.0.0.1:9000", "10.0.0.2:9001"}) << 1 << "10.0.0.1" << 9000;
        QTest::newRow("entries without one colon skipped")
            << addressAnswer({"10.0.0.1", "::1:80", "b:c:d", " h :7"}) << 1 << " h " << 7;
        QTest::newRow("no usable entry") << addressAnswer({"a", "b:c:d"}) << 0 << "" << -1;
        QTest::newRow("empty list") << addressAnswer({}) << 0 << "" << -1;
        QTest::newRow("state 0") << QByteArray(R"({"state":0,"data":{"server":["h:1"]}})") << 0
                                 << "" << -1;
        QTest::newRow("not json") << QByteArray("<html>") << 0 << "" << -1;
    }
    void serverAddress()
    {
        QFETCH(QByteArray, answer);
        QFETCH(int, result);
        QFETCH(QString, ip);
        QFETCH(int, port);
        m_s->addressBody = answer;
        std::unique_ptr<MsgClient> client = m_s->client(fastTimes(kIdleStepMs));
        QString gotIp;
        int gotPort = -1;
        QCOMPARE(client->GetServerAddress(gotIp, gotPort), result);
        QCOMPARE(gotIp, ip);
        QCOMPARE(gotPort, port);
        // A reply that arrived is never asked for again, whatever it held.
        QCOMPARE(m_s->requestsTo(kAddress), 1);
        const HttpStubRequest request = m_s->http.requests().at(0);
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.header("content-type"),
                 QByteArray("application/x-www-form-urlencoded;charset=UTF-8"));
        QCOMPARE(request.header("user-agent"), QByteArray("d627-test"));
    }

    // A failed step 0 checks the status with reconnection; a logged-out answer ends it there.
    void connectFailures_data()
    {
        QTest::addColumn<int>("failures");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<int>("addressRequests");
        QTcpServer closed;
        closed.listen(QHostAddress::LocalHost, 0);
        const QString refused = QString("127.0.0.1:%1").arg(closed.serverPort());
        closed.close();
        QTest::newRow("service down twice") << 2 << QByteArray() << 2;
        QTest::newRow("refused connection") << 0 << addressAnswer({refused}) << 1;
    }
    void connectFailures()
    {
        QFETCH(int, failures);
        QFETCH(QByteArray, answer);
        QFETCH(int, addressRequests);
        m_s->addressFailures = failures;
        if (!answer.isEmpty())
            m_s->addressBody = answer;
        m_s->sso = HttpStubResponse::json(kSsoKicked);
        std::unique_ptr<MsgClient> client = m_s->client();
        QSignalSpy checkSpy(client.get(), SIGNAL(checkstatus(bool)));
        QTRY_VERIFY_WITH_TIMEOUT(logoutRecord().isLogout, 10000);
        QCOMPARE(checkSpy.count(), 1);
        QCOMPARE(checkSpy.at(0).at(0).toBool(), true);
        QCOMPARE(m_s->requestsTo(kSso), 1);
        QCOMPARE(m_s->requestsTo(kAddress), addressRequests);
        QCOMPARE(m_s->push.frames().size(), 0);
        QCOMPARE(client->lastReconnectWaitMs(), 0);
    }

    void restartDuringAddressLookup()
    {
        // A second step 0 comes due while the first waits for the address service.
        m_s->http.route(kAddress, [this](const HttpStubRequest&) {
            HttpStubResponse slow = HttpStubResponse::json(m_s->addressBody);
            slow.delayMs = 200;
            return slow;
        });
        std::unique_ptr<MsgClient> client = m_s->client();
        client->onsocketerror();
        QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 10000);
        QTRY_COMPARE(m_s->frames(&PushFrame::isQuery).size(), 1);
        QCOMPARE(m_s->push.acceptedCount(), 1);
        QCOMPARE(m_s->frames(&PushFrame::isLogin).size(), 1);
    }

    // A dropped connection, a frame cut short or of another magic checks the status with
    // reconnection; the back-off restarts at step 0: a new connection with a new login. A frame
    // cut short fails once the wait for its rest ends; every other fault fails at once, also a
    // head that announces more than a frame may hold, whose rest is not waited for.
    void lostStream_data()
    {
        QTest::addColumn<QByteArray>("bytes"); // sent to the client; none: the server drops it
        QTest::addColumn<QString>("line");     // what the client logs of it
        QTest::addColumn<bool>("cut");         // fails when the wait for the rest of it ends
        const QByteArray frame = pushwire::responseFrame(7, "{\"code\":0}", false);
        const int body = frame.size() - 16;
        const QString cut("nread failed! len is %1, available bytes is %2");
        QTest::newRow("dropped connection")
            << QByteArray() << "server disconnect to socket" << false;
        QTest::newRow("3 bytes of a magic") << frame.left(3) << cut.arg(4).arg(3) << true;
        QTest::newRow("head one byte short") << frame.left(15) << cut.arg(12).arg(11) << true;
        QTest::newRow("body one byte short")
            << frame.chopped(1) << cut.arg(body).arg(body - 1) << true;
        QTest::newRow("notice short")
            << pushwire::noticeFrame(1).left(11) << "read response err!" << true;
        const QByteArray head = frame.left(12); // all of the head but its length
        // A head that announces almost 2 GiB: refused for want of bytes, never allocated.
        QTest::newRow("huge body length")
            << head + QByteArray("\xF0\xFF\xFF\x7F", 4) + QByteArray(16, 'x')
            << cut.arg(0x7FFFFFF0).arg(16) << false;
        QTest::newRow("no body") << head + QByteArray(4, '\0') << "read head or data failed!"
                                 << false;
        QTest::newRow("one-byte body")
            << head + QByteArray("\1\0\0\0x", 5) << "decode failed!" << false;
        for (const char* magic : {"FOOS", "HOOS", "IOOS", "KOOS", "MOOS"})
            QTest::newRow(magic)
                << QByteArray(magic) + frame.mid(4)
                << QString("false magic:%1!").arg(qFromLittleEndian<quint32>(magic)) << false;
    }
    void lostStream()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, line);
        QFETCH(bool, cut);
        MsgClientTimes times = fastTimes();
        // Only a frame cut short waits for its rest (scaled); for the others a wait of a minute
        // would outlast the check below.
        if (!cut)
            times.frameCompleteMs = 60000;
        std::unique_ptr<MsgClient> client = m_s->running(times);
        QSignalSpy checkSpy(client.get(), SIGNAL(checkstatus(bool)));
        if (bytes.isEmpty())
            QCOMPARE(m_s->push.dropConnections(), 1);
        else
            m_s->push.sendRaw(bytes);
        QTRY_COMPARE(m_s->requestsTo(kSso), 1);
        QVERIFY2(m_log.contains(line), qPrintable(m_log.since()));
        QCOMPARE(checkSpy.at(0).at(0).toBool(), true);
        QCOMPARE(client->lastReconnectWaitMs(), 10);
        QTRY_COMPARE_WITH_TIMEOUT(m_s->frames(&PushFrame::isQuery).size(), 2, 10000);
        const QList<PushFrame> logins = m_s->frames(&PushFrame::isLogin);
        QVERIFY(logins.size() >= 2); // a slow machine may see the scaled watchdog fire again
        QCOMPARE(logins.at(1).connection, 2);
        QCOMPARE(logins.at(1).seq, 0u);
    }

    // One status check: the answer decides between logout, reconnection and repeating.
    void status_data()
    {
        QTest::addColumn<int>("httpStatus");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("cookies");
        QTest::addColumn<bool>("reconnect");
        QTest::addColumn<QString>("logout");
        QTest::addColumn<int>("waitMs");
        QTest::addColumn<bool>("repeats");
        QTest::newRow("logged out") << 200 << kSsoKicked << true << true << "kicked" << 0 << false;
        QTest::newRow("no cookies") << 200 << kSsoKicked << false << true << "" << 0 << false;
        QTest::newRow("valid, reconnect") << 200 << kSsoValid << true << true << "" << 10 << false;
        for (const char* valid : {R"({"state":2,"message":"x"})", R"({"message":"x"})"})
            QTest::newRow(valid) << 200 << QByteArray(valid) << true << false << "" << 0 << false;
        QTest::newRow("not json") << 200 << QByteArray("no") << true << true << "" << 0 << true;
        QTest::newRow("server error") << 500 << kSsoValid << true << false << "" << 0 << true;
    }
    void status()
    {
        QFETCH(int, httpStatus);
        QFETCH(QByteArray, answer);
        QFETCH(bool, cookies);
        QFETCH(bool, reconnect);
        QFETCH(QString, logout);
        QFETCH(int, waitMs);
        QFETCH(bool, repeats);
        setLogin(cookies ? QMap<QString, QString>{{"cookie", kRecordCookie}, {"X-Token", "t"}}
                         : QMap<QString, QString>());
        m_s->sso = HttpStubResponse::json(answer, httpStatus);
        std::unique_ptr<MsgClient> client = m_s->client(fastTimes(kIdleStepMs));
        client->oncheckstatus(reconnect);
        QCOMPARE(m_s->requestsTo(kSso), int(cookies));
        QCOMPARE(logoutRecord().isLogout, !logout.isEmpty());
        QCOMPARE(logoutRecord().message, logout);
        QCOMPARE(client->lastReconnectWaitMs(), waitMs);
        if (cookies) {
            const HttpStubRequest request = m_s->http.requests().at(0);
            QCOMPARE(request.method, QByteArray("GET"));
            QCOMPARE(request.header("cookie"), kRecordCookie);
            QCOMPARE(request.header("x-token"), QByteArray("t"));
            QCOMPARE(request.body, QByteArray()); // the device id in a GET body is not sent
        }
        if (repeats) // the net timer repeats the check, with reconnection, while it fails
            QTRY_VERIFY_WITH_TIMEOUT(m_s->requestsTo(kSso) >= 3, 10000);
        else if (!logout.isEmpty()) { // a logged-out user is never checked nor stepped again
            client->oncheckstatus(true);
            client->nextProcess();
            QCOMPARE(m_log.count("MsgClient::startRunTimer user is logout!"), 1);
        }
        QCOMPARE(m_s->requestsTo(kSso) > int(cookies), repeats);
        if (repeats) { // once the service answers, the reconnection is scheduled
            m_s->sso = HttpStubResponse::json(kSsoValid);
            QTRY_COMPARE_WITH_TIMEOUT(client->lastReconnectWaitMs(), 10, 10000);
        }
    }

    // Confirmations 1 s apart follow the back-off (1, 2, 4, 8, 10 s), each logged and re-arming
    // the one restart to the newest wait: one reconnection, after the last wait and not before.
    // After a quiet spell of 6 s the wait is 1 s again.
    void statusBackoffSequence()
    {
        MsgClientTimes times = fastTimes();
        times.backoffSecondMs = kBackoffUnitMs;
        std::unique_ptr<MsgClient> client = m_s->running(times);
        const int scheduled = m_log.count("would reconnect server");
        QElapsedTimer sinceLast;
        for (int wait : {1, 2, 4, 8, 10}) {
            g_now += 1;
            client->oncheckstatus(true);
            sinceLast.start();
            QCOMPARE(client->lastReconnectWaitMs(), wait * kBackoffUnitMs);
            QVERIFY(client->reconnectPending());
        }
        QCOMPARE(m_log.count("would reconnect server"), scheduled + 5);
        QCOMPARE(m_s->push.acceptedCount(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(m_s->push.acceptedCount(), 2, 30000);
        QVERIFY2(within(sinceLast.elapsed(), 10 * kBackoffUnitMs), "the restart came off time");
        QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 10000);
        QCOMPARE(m_log.count("  socket error\n"), 1);
        g_now += 6;
        client->oncheckstatus(true);
        QCOMPARE(client->lastReconnectWaitMs(), kBackoffUnitMs);
    }

    // Every failure sends a status request of its own: a check still waiting is abandoned (its
    // lines still logged) and hands on its wish to reconnect, unless the steps restarted since.
    void overlappingChecks_data()
    {
        // The first check: "check", "connect" (asking for a reconnection), or a query answer whose
        // item asks for a check while the answer's handler waits.
        QTest::addColumn<QString>("outer");
        QTest::addColumn<QStringList>("during"); // played while it waits
        QTest::addColumn<int>("status");         // of the status answers
        QTest::addColumn<int>("requests");
        QTest::addColumn<bool>("reconnect"); // a restart waits for its back-off afterwards
        // "would reconnect" lines: a confirmation asked to reconnect is logged even when a restart
        // has served it since
        QTest::addColumn<int>("confirmed");
        QTest::addColumn<int>("step");      // the process step afterwards
        QTest::addColumn<bool>("netTimer"); // the network-error timer runs afterwards
        const QString answer149 = R"({"code":0,"data":{"list":[{"t":599999,"data":{"t":149}}]}})";
        const QStringList none = QStringList(), check{"check"}, connect{"connect"},
                          restart{"restart"};
        const int login = kStepLogin;
        QTest::newRow("plain check") << "check" << none << 200 << 1 << false << 0 << 0 << false;
        QTest::newRow("newer check") << "check" << check << 200 << 2 << false << 0 << 0 << false;
        QTest::newRow("newer reconnecting check")
            << "check" << connect << 200 << 2 << true << 1 << 0 << false;
        QTest::newRow("reconnection handed on")
            << "connect" << check << 200 << 2 << true << 1 << 0 << false;
        QTest::newRow("heartbeat fails")
            << "check" << QStringList{"heartbeat"} << 200 << 2 << true << 1 << 0 << false;
        QTest::newRow("net-error timer")
            << "check" << QStringList{"net error"} << 200 << 2 << true << 1 << 0 << false;
        QTest::newRow("restart meanwhile")
            << "connect" << restart << 200 << 1 << false << 1 << 0 << false;
        QTest::newRow("restart, then a failure")
            << "connect" << restart + connect << 200 << 2 << true << 1 << 0 << false;
        QTest::newRow("failed check") << "connect" << none << 500 << 1 << false << 0 << 0 << true;
        QTest::newRow("failed check, restart meanwhile")
            << "connect" << restart << 500 << 1 << false << 0 << 0 << false;
        QTest::newRow("answer moves on")
            << answer149 << none << 200 << 1 << false << 0 << login << false;
        QTest::newRow("answer, restart meanwhile")
            << answer149 << restart << 200 << 1 << false << 0 << 0 << false;
    }
    void overlappingChecks()
    {
        QFETCH(QString, outer);
        QFETCH(QStringList, during);
        QFETCH(int, status);
        QFETCH(int, requests);
        QFETCH(bool, reconnect);
        QFETCH(int, confirmed);
        QFETCH(int, step);
        QFETCH(bool, netTimer);
        m_s->sso = HttpStubResponse::json(kSsoValid, status);
        m_s->sso.delayMs = 300;
        MsgClientTimes times = fastTimes(kIdleStepMs);
        times.backoffSecondMs = kIdleStepMs;
        times.netErrorMs = kIdleStepMs;
        std::unique_ptr<MsgClient> client = m_s->client(times);
        int abandoned = 0;
        QTimer::singleShot(0, client.get(), [&] {
            QVERIFY(client->checking());
            for (const QString& action : during) {
                if (action == "restart") {
                    client->onsocketerror();
                    continue;
                }
                ++abandoned;
                if (action == "heartbeat") // no socket: the heartbeat cannot be sent
                    client->onSendHeartTimer();
                else if (action == "net error")
                    client->onNetError();
                else
                    client->oncheckstatus(action == "connect");
            }
        });
        if (outer.startsWith('{')) // moves on only if the steps did not restart meanwhile
            QVERIFY(client->HandleMaxIdMessage(kFrameResponse, outer.toUtf8()));
        else
            client->oncheckstatus(outer == "connect");
        QCOMPARE(m_s->requestsTo(kSso), requests);
        QCOMPARE(m_log.count("check status result is"), requests);
        QCOMPARE(m_log.count("request or parse failed, request return:1\n"), abandoned);
        QCOMPARE(client->reconnectPending(), reconnect);
        QCOMPARE(m_log.count("would reconnect server"), confirmed);
        QCOMPARE(client->checking(), false);
        QCOMPARE(client->process(), step);
        QCOMPARE(client->netCheckPending(), netTimer);
        // A restart stops the network-error timer of the connection it ends.
        client->onsocketerror();
        QVERIFY(!client->netCheckPending());
    }

    // A status request that never answers holds nothing back: the next failure's own check
    // reconnects within its back-off and the paced steps.
    void heldStatusRequest()
    {
        int served = 0;
        m_s->http.route(kSso, [&](const HttpStubRequest&) {
            HttpStubResponse answer = HttpStubResponse::json(kSsoValid);
            answer.delayMs = served++ == 0 ? 90000 : 0;
            return answer;
        });
        std::unique_ptr<MsgClient> client = m_s->running();
        // The connection drops once the held request has reached the service.
        bool dropped = false;
        QObject::connect(&m_s->http, &HttpStub::requestSeen, client.get(), [&] {
            if (!std::exchange(dropped, true))
                m_s->push.dropConnections();
        });
        QElapsedTimer held;
        held.start();
        client->oncheckstatus(false); // held for 90 s unless abandoned
        QVERIFY2(held.elapsed() < 60000, qPrintable(m_log.since()));
        QTRY_COMPARE_WITH_TIMEOUT(m_s->frames(&PushFrame::isQuery).size(), 2, 30000);
        QCOMPARE(m_s->push.acceptedCount(), 2);
        QCOMPARE(served, 2);
    }

    // A write that waits while its failure's status check lets a pending restart through: the
    // old call leaves the new connection's numbers alone, so its next notice gets a query.
    void staleContinuation_data()
    {
        QTest::addColumn<QString>("writer"); // whose write waits: the query, login or heartbeat
        QTest::newRow("query") << "query";
        QTest::newRow("login") << "login";
        QTest::newRow("heartbeat") << "heartbeat";
    }
    void staleContinuation()
    {
        QFETCH(QString, writer);
        QList<int> delays{0, 1500}; // the failure's check, then the slow one
        m_s->http.route(kSso, [&](const HttpStubRequest&) {
            HttpStubResponse answer = HttpStubResponse::json(kSsoValid);
            answer.delayMs = delays.isEmpty() ? 0 : delays.takeFirst();
            return answer;
        });
        MsgClientTimes times = fastTimes(200);
        // Heartbeats far apart and a short heartbeat watchdog: a watchdog that the old
        // connection's heartbeat started on the new one would fire long before the new one's
        // first heartbeat and its echo.
        times.heartbeatMs = 4000;
        times.heartbeatAnswerMs = 250;
        std::unique_ptr<MsgClient> client;
        bool hooked = false, returned = false;
        // The client's socket gets a hook on its first write: the failure that a disconnection
        // inside the write would report, then a slow check.
        const auto hook = [&] {
            QObject::connect(client->socket(), &QIODevice::bytesWritten, client.get(), [&] {
                if (hooked)
                    return;
                hooked = true;
                client->oncheckstatus(true);
                client->oncheckstatus(false);
                returned = true;
            });
        };
        if (writer == "login") {
            client = m_s->client(times);
            QObject::connect(&m_s->push, &PushStub::clientConnected, client.get(),
                             [&](int connection) {
                                 if (connection == 1)
                                     hook();
                             });
        } else {
            client = m_s->running(times);
            hook();
            if (writer == "query")
                QCOMPARE(m_s->push.sendNotice(1), 1);
        }
        QTRY_VERIFY_WITH_TIMEOUT(returned, 20000);
        QCOMPARE(m_s->push.acceptedCount(), 2);
        QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 10000);
        if (writer == "heartbeat") {
            // No watchdog of the old heartbeat on the new connection: its first heartbeat goes
            // out, and nothing has asked for a status check but the two in the hook.
            const auto lastHeartbeatOn = [&] {
                const QList<PushFrame> beats = m_s->frames(&PushFrame::isHeartbeat);
                return beats.isEmpty() ? 0 : beats.last().connection;
            };
            QTRY_COMPARE_WITH_TIMEOUT(lastHeartbeatOn(), 2, 20000);
            QCOMPARE(m_s->requestsTo(kSso), 2);
        }
        const auto queriesOn2 = [&] {
            int count = 0;
            for (const PushFrame& frame : m_s->frames(&PushFrame::isQuery))
                count += frame.connection == 2 ? 1 : 0;
            return count;
        };
        QCOMPARE(queriesOn2(), 1);
        QCOMPARE(client->sequence(), 2u);
        QCOMPARE(m_s->push.sendNotice(2), 1);
        QTRY_COMPARE(queriesOn2(), 2);
        QTRY_COMPARE(m_s->requestsTo(kSso), 3); // the answer in the running step asks for one
    }

    // Frames that arrive in one segment are all read at once; one that spans segments is read
    // when whole. A notice before the query has gone out is not its answer; one after the
    // answer is read in the next step and dropped.
    void segments_data()
    {
        QTest::addColumn<bool>("afterLogin"); // with the login answer, else with the query answer
        QTest::addColumn<bool>("notice");     // a notice follows in the same write
        QTest::addColumn<int>("pieces");      // writes the bytes are sent in
        QTest::newRow("login answer and a notice") << true << true << 1;
        QTest::newRow("query answer and a notice") << false << true << 1;
        QTest::newRow("query answer in 3 writes") << false << false << 3;
    }
    void segments()
    {
        QFETCH(bool, afterLogin);
        QFETCH(bool, notice);
        QFETCH(int, pieces);
        const QByteArray avatar = R"({"code":0,"data":{"list":[
            {"t":599999,"data":{"t":138,"face_l":"img/segment.png"}}]}})";
        m_s->push.setAnswerLogin(!afterLogin);
        m_s->push.setAnswerRequests(afterLogin);
        if (afterLogin)
            m_s->push.enqueueAnswer(avatar);
        MsgClientTimes times = fastTimes(200);
        times.frameCompleteMs = 10000; // the pieces come well within it
        std::unique_ptr<MsgClient> client = m_s->client(times);
        const auto sent = afterLogin ? &PushFrame::isLogin : &PushFrame::isQuery;
        QTRY_COMPARE_WITH_TIMEOUT(m_s->frames(sent).size(), 1, 10000);
        QByteArray bytes =
            pushwire::responseFrame(afterLogin ? 0 : 1, afterLogin ? "{}" : avatar, false);
        bytes += notice ? pushwire::noticeFrame(5) : QByteArray();
        const int size = bytes.size() / pieces + 1;
        for (int piece = 0; piece < pieces; ++piece) {
            QTimer::singleShot(
                50 * piece, &m_s->push,
                [this, part = bytes.mid(piece * size, size)] { m_s->push.sendRaw(part); });
        }
        if (notice)
            QTRY_VERIFY(m_log.contains(R"(message is {"data":{"notice_id":"5")"));
        QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 10000);
        QCOMPARE(DataCenter::getInstance()->GetUserFace(), QString("img/segment.png"));
        QCOMPARE(m_s->frames(&PushFrame::isQuery).size(), 1);
        QCOMPARE(m_s->requestsTo(kSso), 0);
    }

    // On a real link: an answer of 64 kB over 256 kbit is read whole; a connection whose path
    // dies in silence is failed by the kernel, one whose local address or link goes away or
    // that slept is renewed at once. Each time the avatar change queued meanwhile arrives.
    void realLink_data()
    {
        QTest::addColumn<QString>("fault");
        for (const char* fault : {"64 kB answer at 256 kbit", "black hole", "address removed",
                                  "link down and up", "resume"})
            QTest::newRow(fault) << fault;
    }
    void realLink()
    {
        QFETCH(QString, fault);
        LinkFaults link;
        if (!LinkFaults::inPrivateNamespace())
            QSKIP("needs a network namespace of its own");
        const QString device = "d627t0";
        if (fault.startsWith("address") || fault.startsWith("link")) {
            // The push server on a loopback address of an interface of the test's own.
            QCOMPARE(link.addDummy(device), 0);
            QCOMPARE(link.addAddress(device, "127.0.0.2/32"), 0);
            m_s->push.close();
            QVERIFY(m_s->push.setHost(QHostAddress("127.0.0.2")) && m_s->push.listen(0));
            m_s->addressBody = addressAnswer({QString::fromLatin1(m_s->push.address())});
        }
        MsgClientTimes times = fastTimes();
        times.frameCompleteMs = kFrameCompleteMs;
        times.heartbeatMs = 300;
        times.pathTimes.userTimeoutMs = 1000;
        times.pathTimes.keepIdleSeconds = 1;
        times.pathTimes.keepIntervalSeconds = 1;
        const QByteArray face = "img/" + fault.toUtf8().replace(' ', '-') + ".png";
        QByteArray pad(48 * 1024, '\0');
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(pad.data()),
                                              pad.size() / 4);
        const QByteArray avatar = QByteArray(R"({"code":0,"pad":"%1","data":{"list":[
            {"t":599999,"data":{"t":138,"face_l":"%2"}}]}})")
                                      .replace("%1", pad.toBase64())
                                      .replace("%2", face);
        if (fault.startsWith("64")) {
            QVERIFY2(link.shapeLoopback(1500, "256kbit") == 0, qPrintable(link.lastError()));
            m_s->push.enqueueAnswer(avatar);
        }
        std::unique_ptr<MsgClient> client = m_s->running(times);
        if (!fault.startsWith("64")) {
            m_s->push.enqueueAnswer(avatar);
            const ClientTcpSocket* socket = client->socket();
            if (fault == "black hole")
                QCOMPARE(link.blackHole(socket->localPort()), 0);
            else if (fault == "address removed")
                QCOMPARE(link.removeAddress(device, "127.0.0.2/32"), 0);
            else if (fault == "link down and up")
                QCOMPARE(link.setLink(device, false), 0);
            else
                g_clocks.sleptMs += 30000;
            QTRY_VERIFY_WITH_TIMEOUT(m_s->push.acceptedCount() >= 2, 30000);
            // The connection made while the link is down may see it down too: one more then.
            if (fault.startsWith("link"))
                QCOMPARE(link.setLink(device, true), 0);
        }
        QTRY_COMPARE_WITH_TIMEOUT(DataCenter::getInstance()->GetUserFace(), QString(face), 30000);
        const int connections = m_s->push.acceptedCount();
        QVERIFY(fault.startsWith("64")
                    ? connections == 1
                    : connections == 2 || (fault.startsWith("link") && connections == 3));
    }

    // Each interval of the connection, scaled, is kept from both sides: not early, and not
    // late by more than a margin a loaded machine needs. The watchdogs ask for a plain check
    // (no reconnection), and an echoed heartbeat stops its watchdog.
    void intervals_data()
    {
        QTest::addColumn<QString>("from"); // the event that starts the interval
        QTest::addColumn<QString>("to");   // the event that ends it
        QTest::addColumn<QString>("interval");
        QTest::newRow("step pacing") << "login"
                                     << "query"
                                     << "stepMs";
        QTest::newRow("heartbeat period") << "heartbeat"
                                          << "heartbeat"
                                          << "heartbeatMs";
        QTest::newRow("heartbeat watchdog") << "heartbeat"
                                            << "status"
                                            << "heartbeatAnswerMs";
        QTest::newRow("answer watchdog") << "login"
                                         << "status"
                                         << "answerMs";
        QTest::newRow("network-error timer") << "status"
                                             << "status"
                                             << "netErrorMs";
    }
    void intervals()
    {
        QFETCH(QString, from);
        QFETCH(QString, to);
        QFETCH(QString, interval);
        MsgClientTimes times = fastTimes(kIdleStepMs);
        int* field = interval == "stepMs"              ? &times.stepMs
                     : interval == "heartbeatMs"       ? &times.heartbeatMs
                     : interval == "heartbeatAnswerMs" ? &times.heartbeatAnswerMs
                     : interval == "answerMs"          ? &times.answerMs
                                                       : &times.netErrorMs;
        times.stepMs = 20;
        times.heartbeatMs = kIdleStepMs;
        times.heartbeatAnswerMs = kIdleStepMs;
        times.answerMs = kIdleStepMs;
        times.netErrorMs = kIdleStepMs;
        *field = kIntervalMs;
        if (interval == "heartbeatAnswerMs")
            times.heartbeatMs = 2 * kIntervalMs;
        if (interval == "heartbeatMs") // echoed, within the watchdog: no check
            times.heartbeatAnswerMs = kIntervalMs * 9 / 10;
        m_s->push.setEchoHeartbeat(interval == "heartbeatMs");
        m_s->push.setAnswerLogin(interval != "answerMs");
        if (interval == "netErrorMs")
            m_s->sso = HttpStubResponse::json("down", 503);
        QElapsedTimer clock;
        clock.start();
        QMultiMap<QString, qint64> seen;
        QObject::connect(&m_s->push, &PushStub::frameReceived, &m_s->push,
                         [&](const PushFrame& frame) {
                             seen.insert(frame.isLogin()       ? "login"
                                         : frame.isQuery()     ? "query"
                                         : frame.isHeartbeat() ? "heartbeat"
                                                               : "other",
                                         clock.elapsed());
                         });
        QObject::connect(&m_s->http, &HttpStub::requestSeen, &m_s->http,
                         [&](const HttpStubRequest& request) {
                             if (request.path == kSso)
                                 seen.insert("status", clock.elapsed());
                         });
        std::unique_ptr<MsgClient> client = m_s->client(times);
        if (interval == "netErrorMs") {
            QTRY_COMPARE_WITH_TIMEOUT(client->process(), 4, 10000);
            client->oncheckstatus(false);
        }
        const int needed = from == to ? 2 : 1;
        QTRY_VERIFY_WITH_TIMEOUT(seen.count(to) >= needed && seen.contains(from), 30000);
        const QList<qint64> starts = seen.values(from), ends = seen.values(to);
        // values() lists the latest first.
        const qint64 start = from == to ? ends.at(ends.size() - 1) : starts.last();
        const qint64 end = ends.at(ends.size() - needed);
        QVERIFY2(within(end - start, kIntervalMs), qPrintable(QString::number(end - start)));
        if (interval == "heartbeatMs")
            QCOMPARE(seen.count("status"), 0);
        QCOMPARE(client->lastReconnectWaitMs(), 0);
        QCOMPARE(m_s->push.acceptedCount(), 1);
    }
};

QTEST_GUILESS_MAIN(tst_MsgClient)
#include "tst_msgclient.moc"
