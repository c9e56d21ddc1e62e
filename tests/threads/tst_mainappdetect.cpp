// SPDX-License-Identifier: Apache-2.0
#include "logcapture.h"
#include "threads/mainappdetectthread.h"
#include "threads/threadmanager.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The main application's lock is played by a real second process holding a QLockFile.
class tst_MainAppDetect : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        m_log.start(1);
        m_lockPath = m_dir.path() + "/mainapp.lock";
    }
    void init()
    {
        DataCenter::getInstance()->SetMainAppExist(true);
        m_log.mark();
    }
    void cleanup()
    {
        if (m_holder.state() != QProcess::NotRunning) {
            m_holder.kill();
            m_holder.waitForFinished(3000);
        }
    }
    void mainAppCountsAsAliveWhileItsLockIsHeld_data()
    {
        QTest::addColumn<bool>("held");
        QTest::addColumn<QString>("path");
        // "holder" announces the holder's pid, "other" a different one, "zero" none.
        QTest::addColumn<QString>("announce");
        QTest::addColumn<bool>("alive");
        QTest::addColumn<QString>("line");
        QTest::newRow("lock free") << false << "lock"
                                   << "holder" << false << "627 is not runing!";
        QTest::newRow("held by announced pid") << true << "lock"
                                               << "holder" << true << "";
        QTest::newRow("held by another pid")
            << true << "lock"
            << "other" << false << "627 is running, but pid(%1) is not same  with now appid(%2)!";
        QTest::newRow("empty path") << false << ""
                                    << "holder" << true << "";
        QTest::newRow("announced id 0") << true << "lock"
                                        << "zero" << true << "";
    }
    void mainAppCountsAsAliveWhileItsLockIsHeld()
    {
        QFETCH(bool, held);
        QFETCH(QString, path);
        QFETCH(QString, announce);
        QFETCH(bool, alive);
        QFETCH(QString, line);

        if (held)
            QVERIFY(startHolder());
        const qint64 holderPid = held ? m_holder.processId() : 4242;
        const int announced = announce == "holder"  ? int(holderPid)
                              : announce == "other" ? int(holderPid) + 1
                                                    : 0;
        DataCenter* center = DataCenter::getInstance();
        center->SetMainLockFile(path.isEmpty() ? QString() : m_lockPath);
        center->SetMainAppId(announced);

        CMainAppDetectThread detector;
        QCOMPARE(detector.isFileLocked(), alive);
        if (line.isEmpty())
            QCOMPARE(logText(), QString());
        else
            QVERIFY2(logText().contains(line.arg(announced).arg(holderPid)), qPrintable(logText()));

        // The free lock was taken and given back at once.
        if (!held && !path.isEmpty())
            QVERIFY(!QFile::exists(m_lockPath));
        else if (held)
            QVERIFY(QFile::exists(m_lockPath));
    }
    void watchdogClearsTheAliveFlagOnceTheHolderIsGone()
    {
        QVERIFY(startHolder());
        DataCenter* center = DataCenter::getInstance();
        center->SetMainLockFile(m_lockPath);
        center->SetMainAppId(int(m_holder.processId()));

        ThreadManager* manager = ThreadManager::GetInstance();
        QVERIFY(manager->CreateThread(4, QVariant("MainAppDetect")));
        QTRY_VERIFY(manager->IsExist(4));
        m_holder.closeWriteChannel();
        QVERIFY(m_holder.waitForFinished(30000));
        QTRY_VERIFY_WITH_TIMEOUT(!center->IsMainAppExist(), 30000);

        manager->StopThread(4, QVariant("MainAppDetect"));
        QTRY_VERIFY_WITH_TIMEOUT(!manager->IsExist(4), 30000);
        manager->CleanThread();
    }

private:
    bool startHolder()
    {
        m_holder.start(QString(D627_BIN_DIR) + "/lockholder", {m_lockPath});
        return m_holder.waitForReadyRead(30000) && m_holder.readLine().trimmed() == "locked";
    }
    // Only what the current test function added to the log.
    QString logText() const { return m_log.since(); }

    QTemporaryDir m_dir;
    QString m_lockPath;
    QProcess m_holder;
    LogCapture m_log;
};

QTEST_GUILESS_MAIN(tst_MainAppDetect)
#include "tst_mainappdetect.moc"
