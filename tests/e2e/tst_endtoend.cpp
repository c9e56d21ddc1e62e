// SPDX-License-Identifier: Apache-2.0
// End-to-end stories: the real d627 against the real d627-sandbox, this process playing the main
// application and each daemon logged in and running first. d627-mainapp starting the daemon
// itself is played by the installed-tree test and the daemon tests.

#include "e2eharness.h"

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
    void refusedConnections_backOffLongerEachTime_thenRecover()
    {
        // The push server now accepts and closes every connection at once, while the status
        // service keeps saying "logged in": each attempt fails and is followed by a back-off.
        QVERIFY(h.ctl("push mode=refuse"));
        QVERIFY(h.ctl("drop"));
        QVERIFY2(h.waitSandbox("push  #4 client disconnected", 1, 25000),
                 "fewer than 3 new attempts");
        QVERIFY(h.ctl("push mode=normal"));
        QVERIFY2(h.waitLog(kRunning, 2, 25000), "the daemon did not recover after the refusals");
        QVERIFY(h.sandboxLine("push  #5 HOOS login ") >= 0 &&
                h.sandboxLine("push  #5 IOOS request#0 ") >= 0);
        QCOMPARE(h.sandboxLine("push  #4 HOOS login "), -1);
        QVERIFY(h.sandboxCount(kStatusCheck) >= 4);

        // One connection attempt per cycle: the first one, three refused ones, the good one; each
        // one after the first follows a reconnection scheduled by a status check.
        const QList<qint64> attempts = h.logTimes(kConnecting);
        const QList<qint64> schedules = h.logTimes("check status is login, would reconnect server");
        QCOMPARE(attempts.size(), 5);
        QVERIFY(schedules.size() >= 4);
        // The rule: 1 s after more than 5 s (the clock's whole seconds, so the floor or the ceiling
        // of the measured gap) since the last scheduling, else twice the last wait, at most 10 s;
        // step 0 follows 1 s later. Only lower bounds: a slow machine makes every gap longer.
        QSet<int> waits{1}; // the first scheduling follows a long quiet spell
        QString shown;
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
            const auto attempt = std::find_if(attempts.cbegin(), attempts.cend(),
                                              [&](qint64 t) { return t > schedules.at(i); });
            if (attempt == attempts.cend())
                break;
            const int least = *std::min_element(waits.cbegin(), waits.cend());
            shown += QString(" [wait %1 s: %2 ms]").arg(least).arg(*attempt - schedules.at(i));
            // Coarse timers may fire up to 5% early.
            QVERIFY2(*attempt - schedules.at(i) >= (least + 1) * 950 - 50, qPrintable(shown));
        }
        qInfo("back-off:%s", qPrintable(shown));
        QCOMPARE(h.received().size(), 0);
        QVERIFY(h.exitDaemon());
    }

private:
    E2eHarness h;
};

QTEST_GUILESS_MAIN(tst_EndToEnd)
#include "tst_endtoend.moc"
