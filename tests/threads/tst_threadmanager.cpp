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
    void initTestCase();
    void cleanup();
    void createThread_duplicateRefused();
    void stopThenCreate_makesSecondThread();
    void createThread_unknownTypes_data();
    void createThread_unknownTypes();
    void isExist_isBitTest();
    void cleanThread_reapsAllFinishedInOneCall_data();
    void cleanThread_reapsAllFinishedInOneCall();
    void isInvalidThreadExist_emptyTag();

private:
    QString logText() const { return m_log.since(); }

    LogCapture m_log;
    ThreadManager* m_manager = nullptr;
};

void tst_ThreadManager::initTestCase()
{
    m_log.start(1);
    m_manager = ThreadManager::GetInstance();
}

void tst_ThreadManager::cleanup()
{
    m_manager->FinishAllThread();
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->IsExist(-1), 30000);
    m_manager->CleanThread();
}

void tst_ThreadManager::createThread_duplicateRefused()
{
    CBaseThread* first = m_manager->CreateThread(4, kTag);
    QVERIFY(first);
    QCOMPARE(first->GetType(), 4);
    QCOMPARE(first->GetData(), kTag);
    QVERIFY(!logText().contains("exist the same valid thread"));
    QCOMPARE(m_manager->CreateThread(4, kTag), nullptr);
    QVERIFY(logText().contains("exist the same valid thread"));
    // Another tag of the same type is a different thread.
    QVERIFY(m_manager->CreateThread(4, QVariant("other")));
}

void tst_ThreadManager::stopThenCreate_makesSecondThread()
{
    QPointer<CBaseThread> first = m_manager->CreateThread(4, kTag);
    QVERIFY(first);
    m_manager->StopThread(4, kTag);
    QVERIFY(!first->GetValid());
    QPointer<CBaseThread> second = m_manager->CreateThread(4, kTag);
    QVERIFY(second);
    QVERIFY(second != first);
    QVERIFY(second->GetValid());
    QVERIFY(logText().contains("found main thread"));
    QVERIFY(logText().contains("mainapp detect thread receive quit flag"));
    // The stopped thread finishes on its own and is then reaped; the new one stays.
    QTRY_VERIFY_WITH_TIMEOUT(first->isFinished(), 30000);
    m_manager->CleanThread();
    QVERIFY(first.isNull());
    QVERIFY(!second.isNull());
}

void tst_ThreadManager::createThread_unknownTypes_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("0") << 0;
    QTest::newRow("3") << 3;
    QTest::newRow("5") << 5;
    QTest::newRow("8") << 8;
    QTest::newRow("-1") << -1;
}

void tst_ThreadManager::createThread_unknownTypes()
{
    QFETCH(int, type);
    const QString before = logText();
    QCOMPARE(m_manager->CreateThread(type, kTag), nullptr);
    // cppcheck-suppress knownConditionTrueFalse ; logText() reads the capture again
    QCOMPARE(logText(), before);
    QVERIFY(!m_manager->IsExist(-1));
}

void tst_ThreadManager::isExist_isBitTest()
{
    QVERIFY(!m_manager->IsExist(5));
    CBaseThread* thread = m_manager->CreateThread(4, kTag);
    QVERIFY(thread);
    QVERIFY(m_manager->IsExist(4));
    QVERIFY(m_manager->IsExist(5));
    QVERIFY(!m_manager->IsExist(2));
    QVERIFY(!m_manager->IsExist(1));
    // Validity and tag do not matter, only whether the thread has finished.
    m_manager->StopThread(4, kTag);
    QVERIFY(m_manager->IsExist(4));
    QTRY_VERIFY_WITH_TIMEOUT(!m_manager->IsExist(4), 30000);
}

void tst_ThreadManager::cleanThread_reapsAllFinishedInOneCall_data()
{
    QTest::addColumn<bool>("holdInFinish");
    QTest::newRow("all finished") << false;
    // "c" has left run() but is held inside its finished() signal: isFinished() is already
    // true, yet the thread still runs its own finishing code and must not be deleted.
    QTest::newRow("one still finishing") << true;
}

void tst_ThreadManager::cleanThread_reapsAllFinishedInOneCall()
{
    QFETCH(bool, holdInFinish);
    QList<QPointer<CBaseThread>> threads;
    for (const char* tag : {"a", "b", "c", "d"})
        threads << m_manager->CreateThread(4, QVariant(tag));
    for (const auto& thread : threads)
        QVERIFY(thread);
    QSemaphore entered;
    QSemaphore release;
    if (holdInFinish) {
        connect(
            threads[2], &QThread::finished, threads[2],
            [&] {
                entered.release();
                release.acquire();
            },
            Qt::DirectConnection);
    }

    m_manager->StopThread(4, QVariant("a"));
    m_manager->StopThread(4, QVariant("c"));
    m_manager->StopThread(4, QVariant("d"));
    QTRY_VERIFY_WITH_TIMEOUT(
        threads[0]->isFinished() && threads[2]->isFinished() && threads[3]->isFinished(), 3000);
    if (holdInFinish)
        QVERIFY(entered.tryAcquire(1, 5000));

    m_manager->CleanThread();
    QVERIFY(threads[0].isNull());
    QCOMPARE(threads[2].isNull(), !holdInFinish);
    QVERIFY(threads[3].isNull());
    QVERIFY(!threads[1].isNull());
    QVERIFY(threads[1]->isRunning());
    if (holdInFinish) {
        release.release();
        QVERIFY(threads[2]->wait(5000));
        m_manager->CleanThread();
        QVERIFY(threads[2].isNull());
    }
}

void tst_ThreadManager::isInvalidThreadExist_emptyTag()
{
    QVERIFY(m_manager->CreateThread(4, QVariant()));
    m_manager->StopThread(4, QVariant());
    QVERIFY(!m_manager->IsInvalidThreadExist(4, QVariant(), 0, 10));

    QVERIFY(m_manager->CreateThread(4, kTag));
    QVERIFY(!m_manager->IsInvalidThreadExist(4, kTag, 0, 10));
    m_manager->StopThread(4, kTag);
    QVERIFY(m_manager->IsInvalidThreadExist(4, kTag, 0, 10));
    QVERIFY(logText().contains("invalid main thread is exist"));
}

QTEST_GUILESS_MAIN(tst_ThreadManager)
#include "tst_threadmanager.moc"
