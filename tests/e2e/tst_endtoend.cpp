// SPDX-License-Identifier: Apache-2.0
// End-to-end stories: the real d627 against the real d627-sandbox, this process playing the main
// application and each daemon logged in and running first. d627-mainapp starting the daemon
// itself is played by the installed-tree test and the daemon tests.

#include "e2eharness.h"

#include <QRegularExpression>
#include <QtTest>

using namespace e2e;

namespace {
// Set-Cookie of every status answer of the sandbox: renews PHPSESSID in the login record.
const QString kSetCookie = QStringLiteral("PHPSESSID=e2e-fresh; path=/");
const QByteArray kRenewedLoginText =
    "text=cookie=USERSESSIONID%3De2e-session%26PHPSESSID%3De2e-fresh%26";
} // namespace

class tst_EndToEnd : public QObject
{
    Q_OBJECT
private slots:
    void init()
    {
        if (QTest::currentTestFunction() == QByteArray("realIntervals") &&
            !qEnvironmentVariableIsSet("D627_SLOW"))
            QSKIP("minutes long: the ctest test tst_slow plays it");
        QVERIFY(h.prepare());
        QVERIFY(h.startSandbox({"--cookie", kSetCookie}));
        QVERIFY(h.startDaemonAndLogin());
        QVERIFY2(h.waitLog(kRunning, 1, 15000), "the daemon did not reach the running step");
    }
    void cleanup() { h.cleanup(); }
    void loginThenProfileChangesAndNotice_reachTheMainApplication()
    {
        // The address lookup carried the user agent; the push login the user id and the cookie
        // text; the first query followed on the same connection.
        QVERIFY(h.sandboxLine("http  POST /get_tcp_server ua=[" + kUserAgent.toUtf8() + "]") >= 0);
        const int login = h.sandboxLine("push  #1 HOOS login ");
        const QByteArray loginLine = h.lineAt(login);
        QVERIFY2(login >= 0 && loginLine.contains(" user=" + kUserId.toUtf8() + " ") &&
                     loginLine.endsWith(kLoginText),
                 loginLine.constData());
        const int query =
            h.sandboxLine("push  #1 IOOS request#0 seq=1 cmd=16781314 (query)", login);
        QVERIFY2(query > login && !h.lineAt(query).contains(" BAD: "),
                 "no good query after the login");
        // Nothing failed on the way, so the status service was never asked.
        QCOMPARE(h.sandboxCount(kStatusCheck), 0);
        QCOMPARE(h.sandboxCount("client connected"), 1);
        QCOMPARE(h.received().size(), 0);

        // Avatar: the sandbox drops the connection, the daemon checks the status (the answer renews
        // PHPSESSID), reconnects, and its first query brings the change.
        const QString face = QStringLiteral("http://127.0.0.1/avatars/73105.png?v=2&size=L");
        QVERIFY(h.ctl("avatar url=" + face));
        QJsonObject message;
        QVERIFY2(h.waitMessage("user_face", 0, 15000, message), "no avatar message");
        QCOMPARE(compact(message), compact({{"user_face", face}}));
        const int check = h.sandboxLine(kStatusCheck);
        QVERIFY2(check >= 0 && h.lineAt(check).contains("cookie=[" + kCookie.toUtf8() + "]"),
                 h.lineAt(check).constData());
        const int relogin = h.sandboxLine("push  #2 HOOS login ");
        QVERIFY2(relogin > check && h.lineAt(relogin).endsWith(kRenewedLoginText),
                 h.lineAt(relogin).constData());

        // Membership, with an expiry beyond 32 bits.
        QVERIFY2(h.waitLog(kRunning, 2, 15000), "not running again after the avatar change");
        int from = h.received().size();
        QVERIFY(h.ctl("vip level=5 expire=4102444800"));
        QVERIFY2(h.waitMessage("vip_level", from, 15000, message), "no membership message");
        QCOMPARE(compact(message), QByteArray(R"({"expire_time":4102444800,"vip_level":5})"));

        // A notice in the running step: the daemon queries, and the answer makes it check the
        // status and mark a user-information refresh.
        QVERIFY2(h.waitLog(kRunning, 3, 15000), "not running again after the membership change");
        from = h.received().size();
        const int checks = h.sandboxCount(kStatusCheck);
        QVERIFY(h.ctl("notice id=42"));
        QVERIFY2(h.waitMessage("vip_level", from, 10000, message), "no message after the notice");
        QCOMPARE(compact(message), QByteArray(R"({"expire_time":100,"vip_level":100})"));
        QVERIFY(h.sandboxLine("push  #3 IOOS request#1 ") >= 0);
        QVERIFY(h.waitSandbox(kStatusCheck, checks + 1, 5000));

        QCOMPARE(h.sandboxCount("client connected"), 3);
        QVERIFY(h.exitDaemon());
    }
    // The sandbox's long answers: an avatar address of many characters, an answer filled with
    // items the daemon skips; both of random text, so that compression does not shorten them.
    void longAnswer_reachesTheMainApplication_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("faceLength"); // 0: the address as given
        QTest::addColumn<int>("answerBytes");
        QTest::newRow("avatar address of 20000 characters")
            << "avatar url=http://127.0.0.1/a.png size=20000" << 20000 << 20000;
        QTest::newRow("answer of 32 kB")
            << "avatar url=http://127.0.0.1/a.png pad=32768" << 0 << 32768;
    }
    void longAnswer_reachesTheMainApplication()
    {
        QFETCH(QString, command);
        QFETCH(int, faceLength);
        QFETCH(int, answerBytes);
        QVERIFY(h.ctl(command));
        QJsonObject message;
        QVERIFY2(h.waitMessage("user_face", 0, 15000, message), "no avatar message");
        const QString face = message.value("user_face").toString();
        QVERIFY(face.startsWith("http://127.0.0.1/a.png"));
        QCOMPARE(face.size(), faceLength ? faceLength : int(strlen("http://127.0.0.1/a.png")));
        // The sandbox shows the size of a long answer.
        const QRegularExpression sent(R"(push  #2 answer seq=\d+.*\((\d+) bytes\))");
        const auto match = sent.match(QString::fromUtf8(h.sandboxText()));
        QVERIFY2(match.hasMatch() && match.captured(1).toInt() >= answerBytes,
                 qPrintable(match.captured(0).right(40)));
    }
    void logoutElsewhere_isReportedAndEndsTheDaemon()
    {
        const QString text =
            QString::fromUtf8("signed in on \"another\" device \xe2\x80\x94 K\xc3\xb6ln");
        QVERIFY(h.ctl("logout " + text));
        QJsonObject message;
        QVERIFY2(h.waitMessage("logout", 0, 15000, message), "no logout message");
        QCOMPARE(compact(message), compact({{"logout", text}}));

        QVERIFY2(h.exitDaemon(false), "the logout did not end the daemon cleanly");
        QVERIFY(h.daemonLog().contains("user is logout! message is " + text.toUtf8()));
        QCOMPARE(h.sandboxCount("client connected"), 1);
    }
    // The device part of the push session id (bits 12 to 21): the address of the first interface
    // up, running and not the loopback, without colons, read in base 2 (0 for none or for hex).
    void sessionIdDevicePart()
    {
        if (!onlyLoopback() || run("ip", {"link", "add", "v0", "type", "veth", "peer", "v1"}) != 0)
            QSKIP("needs a network namespace of its own");
        const QString set = "link set %1 down\nlink set %1 address %2\nlink set %1 up\n";
        const QStringList macs{"", "52:54:00:12:34:56", "10:10:10:10:10:10"}; // parts 0, 0, 682
        for (int login = 1; login <= macs.size(); ++login) {
            const QString& mac = macs.at(login - 1);
            QVERIFY(login == 1 || (run("ip", {"-batch", "-"},
                                       (set.arg("v0", mac) + set.arg("v1", mac)).toUtf8()) == 0 &&
                                   h.ctl("drop") && h.waitLog(kRunning, login, 30000)));
            const QByteArray line =
                h.lineAt(h.sandboxLine("push  #" + QByteArray::number(login) + " HOOS login "));
            const quint64 session =
                QRegularExpression(" session=(\\d+) ").match(line).captured(1).toULongLong();
            QVERIFY2(session > 0 && (session >> 12 & 0x3FF) == (login == 3 ? 682u : 0u),
                     line.constData());
        }
    }
    // One daemon run sees each interval of the push connection at its real value, as a lower
    // bound (coarse timers may fire 5 % early; log times are whole ms); only tst_slow plays it.
    void realIntervals()
    {
        QString shown;
        const auto notEarly = [&](const QString& name, qint64 gap, int interval, int early = 5) {
            shown += QString(" %1 %2 ms;").arg(name).arg(gap);
            return gap >= interval * (100 - early) / 100 - 50;
        };
        const QList<qint64> steps = h.logTimes("current process is ").mid(0, 5);
        for (int i = 1; i < 5; ++i) // connect, log in, query, heartbeat start, running
            QVERIFY2(notEarly("step", steps.at(i) - steps.at(i - 1), 1000), qPrintable(shown));

        // With the status service failing, the check after a notice's query answer starts the
        // network-error timer. Then an answer ahead of every query, and notices 3 whole seconds
        // (time(0)) after that query, which gives none, and 4 after its answer, which gives one.
        QVERIFY(h.ctl("sso mode=error") && h.ctl("notice") &&
                h.waitLog("request or parse failed", 1, 30000));
        QVERIFY(h.ctl("rsp seq=9 text=ahead") && h.waitLog("request or parse failed", 2, 30000));
        QVERIFY(h.ctl("push mode=silent")); // no answers and no heartbeat echo from now on
        const qint64 sent = h.logTimes("SendQuery").value(1) / 1000;
        for (const qint64 second : {sent + 3, h.logTimes("type is 2,").value(0) / 1000 + 4}) {
            QTRY_VERIFY_WITH_TIMEOUT(QDateTime::currentSecsSinceEpoch() >= second, 10000);
            QVERIFY(h.ctl("notice"));
        }
        QVERIFY(h.waitLog("type is 1,", 3, 30000));
        const bool queryAgain = h.logTimes("type is 1,").value(1) / 1000 - sent > 3; // a late one

        // The failing check repeats every 10 s, until a good answer to a check without
        // reconnection (after another answer ahead) stops it.
        QVERIFY(h.waitLog("request or parse failed", 4, 60000));
        QVERIFY(h.ctl("sso mode=ok") && h.ctl("rsp seq=10 text=ahead"));
        const QList<qint64> net =
            h.logTimes("request or parse failed").mid(0, 1) + h.logTimes("net error, so check");
        for (int i = 1; i < 3; ++i)
            QVERIFY2(notEarly("net check", net.at(i) - net.at(i - 1), 10000), qPrintable(shown));

        // The first heartbeat, 60 s after the heartbeat step; unanswered, its watchdog checks
        // the status 50 s later.
        QVERIFY2(h.waitSandbox(" heartbeat", 1, 120000), "no heartbeat");
        const qint64 heartbeat = h.sandboxTimes(" heartbeat").value(0);
        QVERIFY2(notEarly("heartbeat", heartbeat - steps.value(3), 60000), qPrintable(shown));
        const int checks = h.logCount("check status result is");
        QVERIFY2(h.waitLog("check timer is timeout", 1, 120000), "no heartbeat watchdog");
        const qint64 watchdog = h.logTimes("check timer is timeout").value(0);
        QVERIFY2(notEarly("watchdog", watchdog - heartbeat, 50000), qPrintable(shown));
        QVERIFY(h.waitLog("check status result is", checks + 1, 30000));
        // A notice long after the last query gives one. Read after the watchdog's check, it
        // shows that check reconnected nothing, and the network-error timer stayed stopped.
        QVERIFY(h.ctl("notice"));
        QTRY_COMPARE_WITH_TIMEOUT(h.sandboxCount("(query)"), queryAgain ? 5 : 4, 30000);
        QVERIFY(queryAgain ||
                h.logTimes("SendQuery").value(2) >= h.logTimes("type is 1,").value(2));
        QCOMPARE(h.logCount("would reconnect server"), 0);
        QCOMPARE(h.logCount("net error, so check"), 2);
        QCOMPARE(h.sandboxCount("client connected"), 1);

        // Refused connections: the back-off doubles from 1 s while they come within 5 s of each
        // other (each attempt a step after its wait, so 10 s is never reached here). The fifth,
        // black-holed where the test has a network namespace of its own, gives up after 30 s;
        // after such a quiet spell the back-off is 1 s again.
        QVERIFY(h.ctl("push mode=refuse") && h.ctl("drop"));
        QVERIFY2(h.waitLog("would reconnect server", 4, 90000), "fewer than 4 reconnections");
        const bool blackHole =
            onlyLoopback() && run("nft", {"-f", "-"},
                                  "table inet slow { chain out { type filter hook output priority "
                                  "0; tcp dport 18628 drop; }; }") == 0;
        QVERIFY2(h.waitLog("would reconnect server", 5, 120000), "no fifth reconnection");
        QVERIFY(!blackHole || run("nft", {"delete", "table", "inet", "slow"}) == 0);
        QVERIFY(h.ctl("push mode=normal"));
        QVERIFY2(h.waitLog(kRunning, 2, 60000), "the daemon did not recover");
        // The fifth attempt: after the first one and three refused ones.
        const qint64 failure = h.logTimes("connect to server failed!").value(0);
        QVERIFY2(!blackHole ||
                     notEarly("connect wait", failure - h.logTimes(kConnecting).value(4), 30000, 0),
                 qPrintable(shown));
        // 1 s after more than 5 s since the last scheduling (whole seconds: the floor or the
        // ceiling of the measured gap), else twice the last wait, at most 10 s.
        const QList<qint64> schedules = h.logTimes("would reconnect server");
        const QList<qint64> restarts = h.logTimes("  socket error");
        QCOMPARE(restarts.size(), schedules.size());
        QSet<int> waits{1}; // the first reconnection of the run
        for (int i = 0; i < schedules.size(); ++i) {
            if (i > 0) {
                const qint64 gap = schedules.at(i) - schedules.at(i - 1);
                QSet<int> next;
                for (const qint64 seconds : {gap / 1000, (gap + 999) / 1000}) {
                    for (const int wait : qAsConst(waits))
                        next << (seconds > 5 ? 1 : qMin(2 * wait, 10));
                }
                waits = next;
            }
            const int least = *std::min_element(waits.cbegin(), waits.cend());
            QVERIFY2(notEarly(QString("back-off >= %1 s").arg(least),
                              restarts.at(i) - schedules.at(i), least * 1000),
                     qPrintable(shown));
        }
        qInfo("intervals:%s", qPrintable(shown));
        QVERIFY(h.exitDaemon());
    }

private:
    E2eHarness h;
};

QTEST_GUILESS_MAIN(tst_EndToEnd)
#include "tst_endtoend.moc"
