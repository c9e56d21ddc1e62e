// ClientThread waits for a user id in the login record and then creates its MsgClient.

#include "core/data.h"
#include "core/datacenter.h"
#include "push/client.h"
#include "threads/clientthread.h"
#include "threads/threadmanager.h"

#include <QtTest>

class TestClientThread : public QObject
{
    Q_OBJECT

private slots:
    void waitsForUserId();
    void createdByThreadManager();
};

void TestClientThread::waitsForUserId()
{
    // Cookies without a user id do not end the wait.
    CLoginInfor info;
    info.cookies["cookie"] = "USERSESSIONID=u;";
    DataCenter::getInstance()->SetLoginInfor(info);

    ClientThread thread;
    thread.SetType(1);
    thread.SetData(QVariant("LongConnect"));
    thread.setPollInterval(20);
    thread.start();
    QTRY_VERIFY_WITH_TIMEOUT(thread.GetThreadId() != 0, 30000);
    // Many polls go by without a user id.
    QTest::qWait(300);
    QVERIFY(thread.client() == nullptr);
    QVERIFY(thread.isRunning());

    info.userId = "4242";
    DataCenter::getInstance()->SetLoginInfor(info);
    // Picked up at the next poll.
    QTRY_VERIFY_WITH_TIMEOUT(thread.client() != nullptr, 30000);
    MsgClient* client = thread.client();
    QCOMPARE(client->thread(), static_cast<QThread*>(&thread));
    QVERIFY(client->parent() == nullptr);

    // Quit() does nothing for this thread; ending its event loop ends it.
    thread.Quit();
    QTest::qWait(50);
    QVERIFY(thread.isRunning());
    thread.quit();
    QVERIFY(thread.wait(30000));
}

void TestClientThread::createdByThreadManager()
{
    CLoginInfor info;
    info.userId = "7";
    DataCenter::getInstance()->SetLoginInfor(info);

    ThreadManager* manager = ThreadManager::GetInstance();
    auto* thread = qobject_cast<ClientThread*>(manager->CreateThread(1, QVariant("LongConnect")));
    QVERIFY(thread != nullptr);
    QCOMPARE(thread->GetType(), 1);
    QVERIFY(manager->CreateThread(1, QVariant("LongConnect")) == nullptr);
    QTRY_VERIFY_WITH_TIMEOUT(thread->client() != nullptr, 30000);

    thread->quit();
    QVERIFY(thread->wait(30000));
    manager->CleanThread();
    QVERIFY(!manager->IsExist(1));
}

QTEST_GUILESS_MAIN(TestClientThread)
#include "tst_clientthread.moc"
