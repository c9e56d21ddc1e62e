// SPDX-License-Identifier: Apache-2.0
#include "core/datacenter.h"
#include "core/sync.h"
#include "logcapture.h"
#include "threads/basethread.h"
#include "threads/threadmanager.h"

#include <QPointer>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QtTest>

namespace {
const QVariant kTag("MainAppDetect");
} // namespace

// The watchdog threads used here have no lock file to watch, so they only idle until told
// to quit; that makes them cheap stand-ins for any worker.
class tst_ThreadManager : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        m_log.start(1);
        m_manager = ThreadManager::GetInstance();
    }
    void cleanup()
    {
        m_manager->FinishAllThread();
        QTRY_VERIFY_WITH_TIMEOUT(!m_manager->IsExist(-1), 30000);
        m_manager->CleanThread();
    }
    void oneThreadPerTypeUntilItIsStopped()
    {
        for (int type : {0, 3, 5, 8, -1})
            QCOMPARE(m_manager->CreateThread(type, kTag), nullptr);
        QVERIFY(m_log.since().isEmpty());
        QVERIFY(!m_manager->IsExist(-1));
        // With a lock file that nobody holds, the thread says so on every round and then
        // pauses a second; seeing that line puts it inside its loop, far from its end.
        QTemporaryDir lockDir;
        DataCenter::getInstance()->SetMainLockFile(lockDir.filePath("main.lock"));
        QPointer<CBaseThread> first = m_manager->CreateThread(4, kTag);
        QVERIFY(first && first->GetType() == 4 && first->GetData() == kTag);
        QTRY_VERIFY_WITH_TIMEOUT(m_log.contains("627 is not runing!"), 30000);
        DataCenter::getInstance()->SetMainLockFile(QString());
        QVERIFY(!m_manager->IsInvalidThreadExist(4, kTag, 0, 10));
        // IsExist tests bits of the types not finished.
        QVERIFY(m_manager->IsExist(4) && m_manager->IsExist(5));
        QVERIFY(!m_manager->IsExist(2) && !m_manager->IsExist(1));
        QVERIFY(!m_log.since().contains("exist the same valid thread"));
        QCOMPARE(m_manager->CreateThread(4, kTag), nullptr);
        QVERIFY(m_log.since().contains("exist the same valid thread"));
        m_manager->StopThread(4, kTag);
        // Stopped but not finished, it still counts. A machine that stalls past the pause
        // lets it finish first; then there is nothing left to count.
        QVERIFY(!first->GetValid());
        QVERIFY(m_manager->IsExist(4) || first->isFinished());
        QVERIFY(m_manager->IsInvalidThreadExist(4, kTag, 0, 10));
        QVERIFY(m_log.since().contains("invalid main thread is exist"));
        QVERIFY(m_manager->CreateThread(4, QVariant("other"))); // another tag, another thread
        QPointer<CBaseThread> second = m_manager->CreateThread(4, kTag);
        QVERIFY(second && second != first && second->GetValid());
        QVERIFY(m_log.since().contains("found main thread") &&
                m_log.since().contains("mainapp detect thread receive quit flag"));
        // The stopped thread finishes on its own and is then reaped; the new one stays.
        QTRY_VERIFY_WITH_TIMEOUT(first->isFinished(), 30000);
        m_manager->CleanThread();
        QVERIFY(first.isNull());
        QVERIFY(!second.isNull());
        // An empty tag is never taken for a stopped thread.
        QVERIFY(m_manager->CreateThread(4, QVariant()));
        m_manager->StopThread(4, QVariant());
        QVERIFY(!m_manager->IsInvalidThreadExist(4, QVariant(), 0, 10));
    }
    // "c" has left run() but is held inside its finished() signal: isFinished() is already true,
    // yet the thread still runs its own finishing code and must not be deleted.
    void cleanThreadReapsTheFinishedButNotOneStillFinishing()
    {
        QList<QPointer<CBaseThread>> threads;
        for (const char* tag : {"a", "b", "c", "d"})
            threads << m_manager->CreateThread(4, QVariant(tag));
        QVERIFY(!threads.contains(nullptr));
        QSemaphore entered, release;
        CBaseThread* held = threads[2];
        connect(
            held, &QThread::finished, held,
            [&entered, &release, held] {
                entered.release();
                release.acquire();
                // Qt orders the end of this handler before wait() returns, out of the thread
                // checker's sight; say so, as the thread itself does for its own finishing.
                Sync::release(held);
            },
            Qt::DirectConnection);
        for (const char* tag : {"a", "c", "d"})
            m_manager->StopThread(4, QVariant(tag));
        QTRY_VERIFY_WITH_TIMEOUT(threads[0]->isFinished() && threads[3]->isFinished(), 30000);
        QVERIFY(entered.tryAcquire(1, 30000));
        QVERIFY(threads[2]->isFinished());

        m_manager->CleanThread();
        QVERIFY(threads[0].isNull() && threads[3].isNull());
        QVERIFY(!threads[2].isNull() && !threads[1].isNull() && threads[1]->isRunning());
        release.release();
        QVERIFY(threads[2]->wait(30000));
        m_manager->CleanThread();
        QVERIFY(threads[2].isNull());
    }

private:
    LogCapture m_log;
    ThreadManager* m_manager = nullptr;
};

QTEST_GUILESS_MAIN(tst_ThreadManager)
#include "tst_threadmanager.moc"
