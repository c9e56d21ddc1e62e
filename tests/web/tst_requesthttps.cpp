// SPDX-License-Identifier: Apache-2.0
// CRequestHttps against a real HTTP(S) server on 127.0.0.1 (HttpStub), plus the URL and cookie
// rules.
#include "core/datacenter.h"
#include "httpstub.h"
#include "web/requesthttps.h"

#include <QtTest>

namespace {
const char* const kUserAgent = "d627-test-agent/1.0";
} // namespace

class tst_RequestHttps : public QObject
{
    Q_OBJECT
    HttpStub m_http;
    QString local(const char* path) const { return m_http.baseUrl() + path; }

private slots:
    void init()
    {
        DataCenter::getInstance()->SetSetting(0);
        DataCenter::getInstance()->SetUserAgent(kUserAgent);
        DataCenter::getInstance()->SetLoginInfor(CLoginInfor());
        m_http.clearRequests();
        if (m_http.port() == 0)
            QVERIFY(m_http.listen(0));
        m_http.route("/echo", [](const HttpStubRequest&) { return HttpStubResponse::json("{}"); });
    }
    void settingBitsRewriteTheUrl_data()
    {
        QTest::addColumn<int>("setting");
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("expectedUrl");
        QTest::addColumn<bool>("expectedTls");
        const QString plain = "http://api.627.example/get_tcp_server";
        const QString rc = "http://api.627rc.example/get_tcp_server";
        QTest::newRow("no setting") << 0 << plain << plain << false;
        QTest::newRow("https") << 2 << plain << "https://api.627.example/get_tcp_server" << true;
        QTest::newRow("rc rewrites host, keeps http") << 1 << plain << rc << false;
        QTest::newRow("rc wins over https") << 3 << plain << rc << false;
        QTest::newRow("rc first occurrence only") << 1 << "http://a.627.b.627.c/p"
                                                  << "http://a.627rc.b.627.c/p" << false;
        QTest::newRow("rc keeps https") << 1 << "https://x.627.y/p"
                                        << "https://x.627rc.y/p" << true;
        QTest::newRow("invalid url unchanged") << 2 << "http://exa mple.com:99999/"
                                               << "http://exa mple.com:99999/" << false;
    }
    void settingBitsRewriteTheUrl()
    {
        QFETCH(int, setting);
        QFETCH(QString, url);
        QFETCH(QString, expectedUrl);
        QFETCH(bool, expectedTls);
        DataCenter::getInstance()->SetSetting(setting);
        CRequestHttps request;
        QCOMPARE(request.ConfigUrl(url), expectedTls);
        QCOMPARE(url, expectedUrl);
    }
    // Status 0: the server drops the connection.
    void answersAreReturnedOrFailedByStatus_data()
    {
        QTest::addColumn<int>("method");
        QTest::addColumn<QString>("callerType");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("expectedResult");
        QTest::addColumn<int>("expectedRequests");
        QTest::addColumn<QByteArray>("expectedType");
        const QByteArray form = "application/x-www-form-urlencoded;charset=UTF-8";
        const QByteArray none("");
        QTest::newRow("GET 200") << 0 << QString() << 200 << QByteArray("{\"state\":1}") << 0 << 1
                                 << none;
        QTest::newRow("POST 404, default type")
            << 1 << QString() << 404 << QByteArray("no such page") << -1 << 1 << form;
        QTest::newRow("POST 204, caller type")
            << 1 << "application/json" << 204 << none << -1 << 1 << QByteArray("application/json");
        QTest::newRow("DELETE") << 4 << QString() << 200 << QByteArray("{}") << 0 << 1 << none;
        QTest::newRow("HEAD") << 3 << QString() << 200 << none << 0 << 1 << none;
        QTest::newRow("redirect followed")
            << 1 << QString() << 302 << QByteArray("{}") << 0 << 2 << form;
        QTest::newRow("dropped (GET may be retried)")
            << 0 << QString() << 0 << none << -1 << -1 << none;
        QTest::newRow("method 2 makes no request")
            << 2 << QString() << 200 << none << -1 << 0 << none;
    }
    void answersAreReturnedOrFailedByStatus()
    {
        QFETCH(int, method);
        QFETCH(QString, callerType);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(int, expectedResult);
        QFETCH(int, expectedRequests);
        QFETCH(QByteArray, expectedType);
        m_http.route("/r", [=](const HttpStubRequest&) {
            HttpStubResponse r{status, status == 302 ? QByteArray() : body, {}, 0, status == 0};
            if (status == 302)
                r.headers.append(qMakePair(QByteArray("Location"), QByteArray("/echo")));
            return r;
        });
        QMap<QString, QString> headers{{"User-Agent", "caller-agent"}, {"X-Extra", "extra-value"}};
        if (!callerType.isEmpty())
            headers["Content-Type"] = callerType;
        CRequestHttps request;
        QByteArray reply = "stale";
        QCOMPARE(request.SendRequest(local("/r"), method, headers, "body=1", reply),
                 expectedResult);
        const QList<HttpStubRequest> seen = m_http.requests();
        QVERIFY(expectedRequests < 0 || seen.size() == expectedRequests);
        if (status == 0) // the error text of the transport
            QVERIFY2(!reply.isEmpty() && reply != "stale", reply.constData());
        else if (method != 2)
            QCOMPARE(reply, body);
        if (!seen.isEmpty()) {
            QCOMPARE(seen[0].method, QByteArrayList({"GET", "POST", "", "HEAD", "DELETE"})[method]);
            QCOMPARE(seen[0].header("content-type"), expectedType);
            QCOMPARE(seen[0].header("user-agent"), QByteArray(kUserAgent));
            QCOMPARE(seen[0].header("x-extra"), QByteArray("extra-value"));
            QCOMPARE(seen[0].body, method == 1 ? QByteArray("body=1") : QByteArray());
        }
        // The six-argument overload has no HEAD either.
        QCOMPARE(request.SendRequest(local("/echo"), 3, {}, {}, reply, nullptr), -1);
        QCOMPARE(m_http.requests().size(), seen.size());
    }
    void oneObjectServesTwoCallsAfterAnError()
    {
        // A failed request then a slow good one on the same object: a late signal of the first
        // reply must not end the second wait early.
        m_http.route("/slow", [](const HttpStubRequest&) {
            return HttpStubResponse{200, "slow answer", {}, 300, false};
        });
        CRequestHttps request;
        QByteArray reply;
        QCOMPARE(request.SendRequest(local("/missing"), 0, {}, {}, reply), -1);
        QCOMPARE(request.SendRequest(local("/slow"), 1, {}, {}, reply), 0);
        QCOMPARE(reply, QByteArray("slow answer"));
    }
    void setCookieAnswersUpdateTheLoginCookie_data()
    {
        QTest::addColumn<QString>("recordCookie");
        QTest::addColumn<QByteArray>("setCookie");
        QTest::addColumn<QString>("expectedCookie");
        QTest::newRow("session replaced")
            << "USERSESSIONID=u;PHPSESSID=old;" << QByteArray("PHPSESSID=abc; path=/; HttpOnly")
            << "USERSESSIONID=u;PHPSESSID=abc;";
        QTest::newRow("last matching part decides") << "USERSESSIONID=u;PHPSESSID=old;acw_tc=same;"
                                                    << QByteArray("PHPSESSID=abc;acw_tc=same")
                                                    << "USERSESSIONID=u;PHPSESSID=old;acw_tc=same;";
        QTest::newRow("blank after semicolon appends")
            << "USERSESSIONID=u; PHPSESSID=old;" << QByteArray("PHPSESSID=abc; path=/")
            << "USERSESSIONID=u; PHPSESSID=old;PHPSESSID=abc;";
        QTest::newRow("empty record starts a list")
            << QString() << QByteArray("acw_tc=t1; path=/") << "acw_tc=t1;";
        QTest::newRow("other cookies ignored")
            << "USERSESSIONID=u;" << QByteArray("theme=dark; path=/") << "USERSESSIONID=u;";
        // A rewritten record would gain a closing semicolon.
        QTest::newRow("unchanged value stores nothing")
            << "USERSESSIONID=u" << QByteArray("USERSESSIONID=u; path=/") << "USERSESSIONID=u";
        QTest::newRow("no equals sign")
            << "PHPSESSID=old" << QByteArray("PHPSESSID") << "PHPSESSID=old";
        QTest::newRow("two equals signs")
            << "PHPSESSID=old" << QByteArray("PHPSESSID=a=b") << "PHPSESSID=old";
        QTest::newRow("prefix matches longer name")
            << "PHPSESSIDX=1" << QByteArray("PHPSESSID=2") << "PHPSESSID=2;";
    }
    void setCookieAnswersUpdateTheLoginCookie()
    {
        QFETCH(QString, recordCookie);
        QFETCH(QByteArray, setCookie);
        QFETCH(QString, expectedCookie);
        CLoginInfor record{{}, "1001"};
        if (!recordCookie.isNull()) // else the record has no cookie at all
            record.cookies["cookie"] = recordCookie;
        DataCenter::getInstance()->SetLoginInfor(record);
        m_http.route("/login", [=](const HttpStubRequest&) {
            return HttpStubResponse{200, "{}", {{"Set-Cookie", setCookie}}, 0, false};
        });
        CRequestHttps request;
        QByteArray reply;
        QCOMPARE(request.SendRequest(local("/login"), 0, {}, {}, reply), 0);
        CLoginInfor info;
        DataCenter::getInstance()->GetLoginInfor(info);
        QCOMPARE(info.cookies.value("cookie"), expectedCookie);
    }
    void httpsRequestsReachATlsServer()
    {
        HttpStub tls;
        if (!tls.listenTls(0))
            QSKIP("no TLS certificate could be made");
        tls.route("/check",
                  [](const HttpStubRequest&) { return HttpStubResponse::json("secure"); });
        // The https setting turns the http URL into https; the self-signed certificate is accepted
        // because certificates are not verified.
        DataCenter::getInstance()->SetSetting(2);
        CRequestHttps request;
        QByteArray reply;
        const QString url = QString("http://127.0.0.1:%1/check").arg(tls.port());
        QCOMPARE(request.SendRequest(url, 0, {}, {}, reply), 0);
        QCOMPARE(reply, QByteArray("secure"));
        QCOMPARE(tls.requests().size(), 1);
    }
    void formRequestsPostMultipart()
    {
        QMap<QString, QString> parts{{"b", "two"}, {"a", "one"}};
        CRequestHttps request;
        QByteArray reply;
        QCOMPARE(request.SendRequest(local("/echo"), 1, {}, "ignored", reply, &parts), 0);
        const HttpStubRequest seen = m_http.requests().at(0);
        QVERIFY(seen.header("content-type").startsWith("multipart/form-data"));
        const int a = seen.body.indexOf("form-data; name=\"a\"");
        QVERIFY(a >= 0 && seen.body.indexOf("form-data; name=\"b\"") > a);
        QVERIFY(seen.body.contains("one") && seen.body.contains("two"));
        QVERIFY(!seen.body.contains("ignored"));
        QCOMPARE(seen.header("user-agent"), QByteArray(kUserAgent));
    }
};

QTEST_GUILESS_MAIN(tst_RequestHttps)
#include "tst_requesthttps.moc"
