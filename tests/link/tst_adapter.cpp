// SPDX-License-Identifier: Apache-2.0
#include "core/datacenter.h"
#include "core/log.h"
#include "link/adapter.h"
#include "link/communication.h"
#include "mainappside.h"
#include "threads/threadmanager.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

namespace {
constexpr int kTimedOut = 99;
constexpr int kReportTickMs = 200;  // the adapter's report tick
constexpr int kAliveCheckMs = 1000; // its check that the main application lives
constexpr int kTicks = 10;
constexpr int kMarginMs = 1000; // lateness a loaded, sanitized machine may add
constexpr int kHandled = 98;
time_t g_now = 1700000000;
// An avatar no test row uses: its report, alone, shows that nothing else was sent before it.
const QString kSentinelFace = "http://sentinel/face.png";

// Runs the event loop until QCoreApplication::exit() or the time-out (then kTimedOut). With a
// link, a message that the Adapter has handled without ending the loop ends it with kHandled:
// the Adapter's slot runs before the one connected here, and an exit it asked for comes first.
int execUntilExit(int timeoutMs, Communication* link = nullptr)
{
    const QObject guard; // ends the timers and the connection with this call
    QTimer::singleShot(timeoutMs, &guard, [] { QCoreApplication::exit(kTimedOut); });
    if (link)
        QObject::connect(link, &Communication::readyRead, &guard, [&guard] {
            QTimer::singleShot(0, &guard, [] { QCoreApplication::exit(kHandled); });
        });
    return QCoreApplication::exec();
}
} // namespace

// The main application is played by MainAppSide connected to a real Adapter.
class tst_Adapter : public QObject
{
    Q_OBJECT
private slots:
    // Reset field by field: a client thread of an earlier test may still be reading the DataCenter.
    void init()
    {
        QVERIFY(QDir().mkpath(m_dir.path() + "/tmp"));
        qputenv("TMPDIR", (m_dir.path() + "/tmp").toUtf8());
        qputenv("HOME", m_dir.path().toUtf8());
        LogManager::getInstance()->setClock([] { return g_now; });
        DataCenter* center = DataCenter::getInstance();
        center->SetLogLevel(0);
        center->SetNetError(false);
        center->SetUserFace(QString());
        center->SetVipInfor(-1, -1);
        center->SetLogoutInfor(CLogoutInfor());
        center->SetMainAppExist(true);
        center->SetMainAppId(0);
        center->SetMainLockFile(QString());
        center->SetLoginInfor(CLoginInfor());
        m_created.start(); // the adapter's timers start with it
        m_adapter.reset(new Adapter);
        QCOMPARE(m_adapter->start(), 1);
        connectClient();
    }
    void cleanup()
    {
        const QList<QByteArray> bad = m_client ? m_client->takeBadMessages() : QList<QByteArray>();
        m_client.reset();
        m_adapter.reset();
        ThreadManager* manager = ThreadManager::GetInstance();
        manager->StopThread(4, QVariant("MainAppDetect"));
        QTRY_VERIFY_WITH_TIMEOUT(!manager->IsExist(4), 30000);
        manager->CleanThread();
        QVERIFY2(bad.isEmpty(), bad.value(0).constData());
    }
    // The ends on an exit message and on the main application gone are run with the real daemon.
    void logoutRecordIsSentThenTheLoopEnds()
    {
        const CLogoutInfor logout{true, QString::fromUtf8("kicked \xe2\x9c\x93")};
        DataCenter::getInstance()->SetUserFace("http://also/pending");
        DataCenter::getInstance()->SetLogoutInfor(logout);
        QCOMPARE(execUntilExit(30000), 0);
        QCOMPARE(m_client->next(), QJsonObject({{"logout", logout.message}}));
    }
    // None of these ends the loop, replies, or sets the pid, log level, https flag or user id.
    void messageIsIgnored_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("exit false")
            << QByteArray(R"({"exit":false,"user_id":"42","loglevel":1,"setting":7,"pid":9})");
        QTest::newRow("exit not a boolean")
            << QByteArray(R"({"exit":1,"user_id":"42","loglevel":1,"pid":9})");
        QTest::newRow("unparsable") << QByteArray(R"({"exit":true)");
        QTest::newRow("wrong types read as defaults") << QByteArray(
            R"({"user_id":77,"cookie":true,"setting":"7","pid":"12","loglevel":"1"})");
        QTest::newRow("level zero: no log") << QByteArray(R"({"user_id":"","loglevel":0})");
    }
    void messageIsIgnored()
    {
        QFETCH(QByteArray, bytes);
        const QDir logs(m_dir.path() + "/Documents/627log/support");
        const QStringList before = logs.entryList(QDir::Files);
        m_client->send(bytes);
        QCOMPARE(execUntilExit(30000, link()), kHandled);
        DataCenter* center = DataCenter::getInstance();
        CLoginInfor login;
        center->GetLoginInfor(login);
        QVERIFY(login.userId.isEmpty() && login.cookies.value("cookie").isEmpty());
        QCOMPARE(center->GetLogLevel(), 0);
        QCOMPARE(center->GetMainAppId(), 0);
        QVERIFY(!center->isHttpsRequest());
        QCOMPARE(logs.entryList(QDir::Files), before);
        expectOnlyTheSentinel();
    }
    void loginMessageFillsTheDataCenterAndStartsOneClientThread()
    {
        DataCenter* center = DataCenter::getInstance();
        center->SetLogoutInfor({false, "old"});
        center->SetMainAppExist(false);
        m_client->sendLogin({{"user_id", "1001"},
                             {"cookie", "USERSESSIONID=u;PHPSESSID=p;"},
                             {"setting", 6},
                             {"user_agent", "agent/1.0"},
                             {"pid", 4321},
                             {"lockfile", "/tmp/main.lock"},
                             {"loglevel", 1}});

        QTRY_COMPARE_WITH_TIMEOUT(center->GetLogLevel(), 1, 30000); // the last key handled
        CLoginInfor login;
        center->GetLoginInfor(login);
        QCOMPARE(login.userId, QString("1001"));
        QCOMPARE(login.cookies,
                 (QMap<QString, QString>{{"cookie", "USERSESSIONID=u;PHPSESSID=p;"}}));
        QVERIFY(!center->isRcEnvironment() && center->isHttpsRequest() &&
                center->isEncryptRequest());
        QCOMPARE(center->GetUserAgent(), QString("agent/1.0"));
        QCOMPARE(center->GetMainAppId(), 4321);
        QCOMPARE(center->GetMainLockFile(), QString("/tmp/main.lock"));
        CLogoutInfor logout;
        center->GetLogoutInfor(logout);
        QVERIFY(logout.message.isEmpty() && center->IsMainAppExist());
        const QString logFile = LogManager::getInstance()->fileName();
        QVERIFY(QFile::exists(logFile) && ThreadManager::GetInstance()->IsExist(1));

        // A repeated login a second later opens a fresh file and is refused a second client thread.
        ++g_now;
        m_client->sendLogin({{"user_id", "1001"}, {"loglevel", 1}});
        QTRY_VERIFY_WITH_TIMEOUT(LogManager::getInstance()->fileName() != logFile, 30000);
        QFile file(LogManager::getInstance()->fileName());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(file.readAll().contains("exist the same valid thread"));
    }
    // The row is the message expected; the changes that should produce it are read from it.
    // "\/" for "/": moc would read "//" in a raw string as a comment.
    void pendingChangesAreReportedOnce_data()
    {
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("network only") << QByteArray(R"({"net_error":true})");
        QTest::newRow("avatar only") << QByteArray(R"({"user_face":"http:\/\/f/1.png"})");
        QTest::newRow("membership only")
            << QByteArray(R"({"expire_time":1900000000,"vip_level":5})");
        QTest::newRow("membership, level unset")
            << QByteArray(R"({"expire_time":7,"vip_level":-1})");
        QTest::newRow("all four") << QByteArray(R"({"expire_time":8589934592,"net_error":true,)"
                                                R"("user_face":"http:\/\/f/3.png","vip_level":3})");
    }
    void pendingChangesAreReportedOnce()
    {
        QFETCH(QByteArray, message);
        const QJsonObject expected = QJsonDocument::fromJson(message).object();
        const bool net = expected.value("net_error").toBool();
        DataCenter* center = DataCenter::getInstance();
        center->SetNetError(net);
        center->SetUserFace(expected.value("user_face").toString());
        center->SetVipInfor(expected.value("vip_level").toInt(-1),
                            qint64(expected.value("expire_time").toDouble(-1)));
        QCOMPARE(m_client->next(), expected);
        QVERIFY(!center->isUserFaceChanged() && !center->IsVipChanged());
        // Reported once only; a network flag flipped twice between ticks is no change either.
        center->SetNetError(!net);
        center->SetNetError(net);
        expectOnlyTheSentinel();
        if (net) {
            center->SetNetError(false);
            QCOMPARE(m_client->next(), QJsonObject({{"net_error", false}}));
        }
    }
    // Ten changes, each made as soon as the report before it is read, take ten ticks (the first
    // read may come late and the last on time: one period less at the least). The main
    // application found gone ends the loop at the next alive check: not before the first one,
    // and at the latest one period (plus a margin) after.
    void reportTickAndAliveCheckKeepTheirPeriods()
    {
        DataCenter* center = DataCenter::getInstance();
        center->SetUserFace("http://tick/0");
        QCOMPARE(m_client->next().value("user_face").toString(), QString("http://tick/0"));
        QElapsedTimer ticks;
        ticks.start();
        for (int i = 1; i <= kTicks; ++i) {
            const QString face = QString("http://tick/%1").arg(i);
            center->SetUserFace(face);
            QCOMPARE(m_client->next().value("user_face").toString(), face);
        }
        const qint64 took = ticks.elapsed();
        QVERIFY2(took >= (kTicks - 1) * kReportTickMs && took <= kTicks * kReportTickMs + kMarginMs,
                 qPrintable(QString::number(took)));
        center->SetMainAppExist(false);
        QElapsedTimer gone;
        gone.start();
        QCOMPARE(execUntilExit(30000), 0);
        QVERIFY2(m_created.elapsed() >= kAliveCheckMs * 9 / 10 &&
                     gone.elapsed() <= kAliveCheckMs + kMarginMs,
                 qPrintable(QString::number(gone.elapsed())));
        center->SetMainAppExist(true);
    }
    void linkDownStartsTheWatchdogAndDropsChanges()
    {
        ThreadManager* manager = ThreadManager::GetInstance();
        QVERIFY(!manager->IsExist(4));
        m_client->socket().disconnectFromServer();
        QTRY_VERIFY_WITH_TIMEOUT(manager->IsExist(4), 30000);
        DataCenter::getInstance()->SetUserFace("http://lost");
        QTRY_VERIFY_WITH_TIMEOUT(!DataCenter::getInstance()->isUserFaceChanged(), 30000);
        connectClient();
        // Stopped, not waited for: it finishes after its current pause.
        QTRY_VERIFY_WITH_TIMEOUT(!manager->IsExist(4), 30000);
        expectOnlyTheSentinel();
    }

private:
    void connectClient()
    {
        QSignalSpy taken(link(), &Communication::connected);
        m_client.reset(new MainAppSide);
        QVERIFY(m_client->connectTo(QString::fromLatin1(kInstanceId)));
        QTRY_COMPARE_WITH_TIMEOUT(taken.count(), 1, 30000);
    }
    Communication* link() const { return m_adapter->findChild<Communication*>(); }
    // Nothing is pending: a change made now is the next report, and alone in it.
    void expectOnlyTheSentinel()
    {
        DataCenter::getInstance()->SetUserFace(kSentinelFace);
        QCOMPARE(m_client->next(), QJsonObject({{"user_face", kSentinelFace}}));
    }

    QTemporaryDir m_dir;
    QElapsedTimer m_created;
    QScopedPointer<Adapter> m_adapter;
    QScopedPointer<MainAppSide> m_client;
};

QTEST_GUILESS_MAIN(tst_Adapter)
#include "tst_adapter.moc"
