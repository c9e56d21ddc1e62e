// SPDX-License-Identifier: Apache-2.0
// ClientThread (ThreadManager's type 1) waits for a user id, then creates its MsgClient.

#include "core/data.h"
#include "core/datacenter.h"
#include "core/log.h"
#include "logcapture.h"
#include "push/client.h"
#include "threads/clientthread.h"
#include "threads/threadmanager.h"

#include <QtTest>

// The daemon keeps its MsgClient until the process ends, reachable through the thread manager.
// This test deletes the finished ClientThread, so it keeps the MsgClient reachable here instead:
// the leak checker then reports any other allocation of the client thread, and needs no
// suppression. (Freeing it on its own thread would hand it over through Qt's cross-thread calls,
// which the thread checker cannot see, and so reports races that are not there.)
MsgClient* g_keptClient = nullptr;

class tst_ClientThread : public QObject
{
    Q_OBJECT

private slots:
    // As in the daemon, the singletons are made on the main thread before any worker starts.
    // The log, at every level, is where the client thread shows that its loop still runs.
    void initTestCase()
    {
        m_log.start(-1);
        ThreadManager::GetInstance();
    }
    void waitsForUserIdThenRunsUntilTheProcessEnds()
    {
        // Cookies without a user id do not end the wait.
        CLoginInfor info;
        info.cookies["cookie"] = "USERSESSIONID=u;";
        DataCenter::getInstance()->SetLoginInfor(info);
        ThreadManager* manager = ThreadManager::GetInstance();
        auto* thread =
            qobject_cast<ClientThread*>(manager->CreateThread(1, QVariant("LongConnect")));
        QVERIFY(thread != nullptr);
        thread->setPollInterval(20);
        QVERIFY(manager->CreateThread(1, QVariant("LongConnect")) == nullptr);
        QTRY_VERIFY_WITH_TIMEOUT(thread->GetThreadId() != 0, 30000);
        QTRY_VERIFY_WITH_TIMEOUT(thread->emptyPolls() >= 3, 30000); // no user id yet
        QVERIFY(thread->client() == nullptr);
        QVERIFY(thread->isRunning());

        info.userId = "4242";
        DataCenter::getInstance()->SetLoginInfor(info);
        QTRY_VERIFY_WITH_TIMEOUT(thread->client() != nullptr, 30000);
        QCOMPARE(thread->client()->thread(), static_cast<QThread*>(thread));

        // Quit() does nothing for this thread: its event loop still runs. Ending the loop ends it.
        g_keptClient = thread->client();
        const QPointer<MsgClient> client = g_keptClient;
        thread->Quit();
        // The loop still runs: the push connection's timers go on writing lines from the client
        // thread. (A call queued to the thread would show it too, but hands a functor over
        // through Qt, which the thread checker cannot see.)
        m_log.mark();
        const QString threadTag =
            QString::asprintf("[%05llu]", static_cast<unsigned long long>(thread->GetThreadId()));
        QTRY_VERIFY_WITH_TIMEOUT(m_log.contains(threadTag), 30000);
        QVERIFY(thread->isRunning());
        thread->quit();
        QVERIFY(thread->wait(30000));
        manager->CleanThread();
        QVERIFY(!manager->IsExist(1));
        QVERIFY(!client.isNull()); // the thread's end leaves its MsgClient alone
    }

private:
    LogCapture m_log;
};

QTEST_GUILESS_MAIN(tst_ClientThread)
#include "tst_clientthread.moc"
