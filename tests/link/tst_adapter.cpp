#include "core/datacenter.h"
#include "core/log.h"
#include "link/adapter.h"
#include "link/communication.h"
#include "threads/threadmanager.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

namespace {
constexpr int kTimedOut = 99;

// Runs the application's event loop until QCoreApplication::exit() or the time-out; returns
// the exit code, kTimedOut when nobody ended the loop.
int execUntilExit(int timeoutMs)
{
    QTimer guard;
    guard.setSingleShot(true);
    QObject::connect(&guard, &QTimer::timeout, [] { QCoreApplication::exit(kTimedOut); });
    guard.start(timeoutMs);
    return QCoreApplication::exec();
}
} // namespace

// The main application is played by a real QLocalSocket connected to a real Adapter.
class tst_Adapter : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void exitTrue_endsLoopWithZero();
    void exitFalse_ignoresEverything();
    void loginMessage_fillsDataCenterAndRequestsClientThread();
    void loginMessage_wrongTypesReadAsDefaults();
    void loginMessage_levelZeroCreatesNoLog();
    void unparsableInput_ignored();
    void pendingChanges_data();
    void pendingChanges();
    void netFlagFlipsTwiceBetweenTicks_sendsNothing();
    void changesWithoutClient_areDropped();
    void logoutRecord_sendsLogoutThenExits();
    void linkDown_startsWatchdogAndLinkUpStopsIt();
    void mainAppGone_exits();

private:
    void connectClient();
    // settle: let the adapter handle the message before returning. Messages that end the
    // event loop are not settled, so that the loop the test runs afterwards sees the exit.
    void send(const QJsonObject& object, bool settle = true);
    QJsonObject nextMessage(int timeoutMs = 30000);

    QTemporaryDir m_dir;
    QScopedPointer<Adapter> m_adapter;
    QScopedPointer<QLocalSocket> m_client;
    QList<QByteArray> m_badMessages;
};

void tst_Adapter::initTestCase()
{
    QVERIFY(QDir().mkpath(m_dir.path() + "/tmp"));
    qputenv("TMPDIR", (m_dir.path() + "/tmp").toUtf8());
    qputenv("HOME", m_dir.path().toUtf8());
}

// The DataCenter is reset field by field: a client thread started by an earlier test may
// still be reading it.
void tst_Adapter::init()
{
    DataCenter* center = DataCenter::getInstance();
    center->SetLogLevel(0);
    center->SetNetError(false);
    center->SetUserFace(QString());
    center->SetVipInfor(-1, -1);
    center->SetLogoutInfor(CLogoutInfor());
    center->SetMainAppExist(true);
    center->SetMainLockFile(QString());
    center->SetLoginInfor(CLoginInfor());

    m_adapter.reset(new Adapter);
    QCOMPARE(m_adapter->start(), 1);
    connectClient();
}

void tst_Adapter::cleanup()
{
    m_client.reset();
    m_adapter.reset();
    ThreadManager* manager = ThreadManager::GetInstance();
    manager->StopThread(4, QVariant("MainAppDetect"));
    QTRY_VERIFY_WITH_TIMEOUT(!manager->IsExist(4), 30000);
    manager->CleanThread();
    const QList<QByteArray> bad = std::exchange(m_badMessages, {});
    QVERIFY2(bad.isEmpty(), bad.value(0).constData());
}

void tst_Adapter::connectClient()
{
    m_client.reset(new QLocalSocket);
    m_client->connectToServer(QString::fromLatin1(kInstanceId));
    QVERIFY(m_client->waitForConnected(30000));
    // Let the adapter take the connection.
    QTest::qWait(50);
}

void tst_Adapter::send(const QJsonObject& object, bool settle)
{
    m_client->write(QJsonDocument(object).toJson(QJsonDocument::Compact));
    QVERIFY(m_client->waitForBytesWritten(30000));
    if (settle)
        QTest::qWait(50);
}

QJsonObject tst_Adapter::nextMessage(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (m_client->bytesAvailable() == 0 && timer.elapsed() < timeoutMs)
        QTest::qWait(20);
    const QByteArray bytes = m_client->readAll();
    if (bytes.isEmpty())
        return {};
    // Compact, unframed: exactly one serialised object and nothing else. Anything else is
    // recorded and fails the test in cleanup().
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isObject() || bytes != document.toJson(QJsonDocument::Compact))
        m_badMessages << bytes;
    return document.object();
}

void tst_Adapter::exitTrue_endsLoopWithZero()
{
    send({{"exit", true}}, false);
    QCOMPARE(execUntilExit(30000), 0);
}

void tst_Adapter::exitFalse_ignoresEverything()
{
    send({{"exit", false}, {"user_id", "42"}, {"loglevel", 1}, {"setting", 7}}, false);
    QCOMPARE(execUntilExit(500), kTimedOut);
    CLoginInfor login;
    DataCenter::getInstance()->GetLoginInfor(login);
    QVERIFY(login.userId.isEmpty());
    QCOMPARE(DataCenter::getInstance()->GetLogLevel(), 0);
    QVERIFY(!DataCenter::getInstance()->isHttpsRequest());
}

void tst_Adapter::loginMessage_fillsDataCenterAndRequestsClientThread()
{
    DataCenter* center = DataCenter::getInstance();
    CLogoutInfor stale;
    stale.isLogout = false;
    stale.message = "old";
    center->SetLogoutInfor(stale);
    center->SetMainAppExist(false);

    send({{"user_id", "1001"},
          {"cookie", "USERSESSIONID=u;PHPSESSID=p;"},
          {"setting", 6},
          {"user_agent", "agent/1.0"},
          {"pid", 4321},
          {"lockfile", "/tmp/main.lock"},
          {"loglevel", 1}});

    CLoginInfor login;
    center->GetLoginInfor(login);
    QCOMPARE(login.userId, QString("1001"));
    QCOMPARE(login.cookies.size(), 1);
    QCOMPARE(login.cookies.value("cookie"), QString("USERSESSIONID=u;PHPSESSID=p;"));
    QVERIFY(!center->isRcEnvironment());
    QVERIFY(center->isHttpsRequest());
    QVERIFY(center->isEncryptRequest());
    QCOMPARE(center->GetUserAgent(), QString("agent/1.0"));
    QCOMPARE(center->GetMainAppId(), 4321);
    QCOMPARE(center->GetMainLockFile(), QString("/tmp/main.lock"));
    QCOMPARE(center->GetLogLevel(), 1);
    QVERIFY(center->IsMainAppExist());
    CLogoutInfor logout;
    center->GetLogoutInfor(logout);
    QVERIFY(logout.message.isEmpty());

    const QString logFile = LogManager::getInstance()->fileName();
    QVERIFY(QFile::exists(logFile));
    QVERIFY(ThreadManager::GetInstance()->IsExist(1));

    // A repeated login opens a fresh file and is refused a second client thread.
    QTest::qWait(1100);
    send({{"user_id", "1001"}, {"loglevel", 1}});
    QVERIFY(LogManager::getInstance()->fileName() != logFile);
    QFile file(LogManager::getInstance()->fileName());
    QVERIFY(file.open(QIODevice::ReadOnly));
    QVERIFY(file.readAll().contains("exist the same valid thread"));
}

void tst_Adapter::loginMessage_wrongTypesReadAsDefaults()
{
    send({{"user_id", 77}, {"cookie", true}, {"setting", "7"}, {"pid", "12"}, {"loglevel", "1"}});
    DataCenter* center = DataCenter::getInstance();
    CLoginInfor login;
    center->GetLoginInfor(login);
    QVERIFY(login.userId.isEmpty());
    QCOMPARE(login.cookies.value("cookie"), QString());
    QVERIFY(!center->isHttpsRequest());
    QCOMPARE(center->GetMainAppId(), 0);
    QCOMPARE(center->GetLogLevel(), 0);
}

void tst_Adapter::loginMessage_levelZeroCreatesNoLog()
{
    QDir documents(m_dir.path() + "/Documents/627log/support");
    const QStringList before = documents.entryList(QDir::Files);
    send({{"user_id", ""}, {"loglevel", 0}});
    QCOMPARE(documents.entryList(QDir::Files), before);
}

void tst_Adapter::unparsableInput_ignored()
{
    m_client->write("{\"exit\":true");
    m_client->flush();
    QCOMPARE(execUntilExit(400), kTimedOut);
    QVERIFY(nextMessage(100).isEmpty());
}

void tst_Adapter::pendingChanges_data()
{
    QTest::addColumn<bool>("net");
    QTest::addColumn<QString>("face");
    QTest::addColumn<int>("level");
    QTest::addColumn<qint64>("expire");
    QTest::addColumn<QStringList>("keys");
    QTest::newRow("network only") << true << "" << -1 << qint64(-1) << QStringList{"net_error"};
    QTest::newRow("avatar only") << false << "http://f/1.png" << -1 << qint64(-1)
                                 << QStringList{"user_face"};
    QTest::newRow("membership only")
        << false << "" << 5 << qint64(1900000000) << QStringList{"expire_time", "vip_level"};
    QTest::newRow("membership, level unset")
        << false << "" << -1 << qint64(7) << QStringList{"expire_time", "vip_level"};
    QTest::newRow("avatar and membership") << false << "http://f/2.png" << 100 << qint64(100)
                                           << QStringList{"expire_time", "user_face", "vip_level"};
    QTest::newRow("all four") << true << "http://f/3.png" << 3 << qint64(8589934592)
                              << QStringList{"expire_time", "net_error", "user_face", "vip_level"};
}

void tst_Adapter::pendingChanges()
{
    QFETCH(bool, net);
    QFETCH(QString, face);
    QFETCH(int, level);
    QFETCH(qint64, expire);
    QFETCH(QStringList, keys);

    DataCenter* center = DataCenter::getInstance();
    center->SetNetError(net);
    center->SetUserFace(face);
    center->SetVipInfor(level, expire);

    const QJsonObject message = nextMessage();
    QCOMPARE(message.keys(), keys);
    if (net)
        QCOMPARE(message.value("net_error"), QJsonValue(true));
    if (!face.isEmpty())
        QCOMPARE(message.value("user_face").toString(), face);
    if (keys.contains("vip_level")) {
        QCOMPARE(message.value("vip_level").toInt(), level);
        QCOMPARE(static_cast<qint64>(message.value("expire_time").toDouble()), expire);
    }
    QVERIFY(!center->isUserFaceChanged());
    QVERIFY(!center->IsVipChanged());

    // Reported once only; the network flag going back is the next report.
    QVERIFY(nextMessage(500).isEmpty());
    if (net) {
        center->SetNetError(false);
        QCOMPARE(nextMessage(), QJsonObject({{"net_error", false}}));
    }
}

void tst_Adapter::netFlagFlipsTwiceBetweenTicks_sendsNothing()
{
    DataCenter* center = DataCenter::getInstance();
    center->SetNetError(true);
    center->SetNetError(false);
    QVERIFY(nextMessage(600).isEmpty());
}

void tst_Adapter::changesWithoutClient_areDropped()
{
    m_client->disconnectFromServer();
    QTest::qWait(100);
    DataCenter::getInstance()->SetUserFace("http://lost");
    QTRY_VERIFY_WITH_TIMEOUT(!DataCenter::getInstance()->isUserFaceChanged(), 30000);
    connectClient();
    QVERIFY(nextMessage(500).isEmpty());
}

void tst_Adapter::logoutRecord_sendsLogoutThenExits()
{
    CLogoutInfor logout;
    logout.isLogout = true;
    logout.message = QString::fromUtf8("kicked \xe2\x9c\x93");
    DataCenter::getInstance()->SetUserFace("http://also/pending");
    DataCenter::getInstance()->SetLogoutInfor(logout);

    QCOMPARE(execUntilExit(30000), 0);
    QCOMPARE(nextMessage(), QJsonObject({{"logout", logout.message}}));
}

void tst_Adapter::linkDown_startsWatchdogAndLinkUpStopsIt()
{
    ThreadManager* manager = ThreadManager::GetInstance();
    QVERIFY(!manager->IsExist(4));
    m_client->disconnectFromServer();
    QTRY_VERIFY_WITH_TIMEOUT(manager->IsExist(4), 30000);

    connectClient();
    // Stopped, not waited for: it finishes after its current pause.
    QTRY_VERIFY_WITH_TIMEOUT(!manager->IsExist(4), 30000);
}

void tst_Adapter::mainAppGone_exits()
{
    DataCenter::getInstance()->SetMainAppExist(false);
    QCOMPARE(execUntilExit(30000), 0);
}

QTEST_GUILESS_MAIN(tst_Adapter)
#include "tst_adapter.moc"
