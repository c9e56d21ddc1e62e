// SPDX-License-Identifier: Apache-2.0
#include "core/datacenter.h"

#include <QThread>
#include <QtTest>

class tst_DataCenter : public QObject
{
    Q_OBJECT
private slots:
    void cleanup() { DataCenter::destroyInstance(); }
    void changesArePendingUntilTaken()
    {
        DataCenter* center = DataCenter::getInstance();
        QVERIFY(center->IsMainAppExist() && !center->isNetError());
        QCOMPARE(center->GetLogLevel(), 0);
        QCOMPARE(center->GetMainAppId(), 0);
        QVERIFY(center->GetMainLockFile().isNull());
        CLogoutInfor logout{true, {}};
        center->GetLogoutInfor(logout);
        QVERIFY(!logout.isLogout);
        QVERIFY(!center->IsVipChanged() && !center->isUserFaceChanged());
        center->SetVipInfor(-1, 5);
        QVERIFY(center->IsVipChanged());
        center->SetVipInfor(3, -1);
        QVERIFY(center->IsVipChanged());
        center->SetVipInfor(-1, -1);
        QVERIFY(!center->IsVipChanged());
        center->SetUserFace("http://face");
        QVERIFY(center->isUserFaceChanged());
        center->SetUserFace(QString());
        QVERIFY(!center->isUserFaceChanged());
    }
    void settingBitsAreReadByValue_data()
    {
        QTest::addColumn<int>("bits");
        QTest::addColumn<bool>("rc");
        QTest::addColumn<bool>("https");
        QTest::addColumn<bool>("encrypt");
        QTest::newRow("7 sets all") << 7 << true << true << true;
        QTest::newRow("2 https only") << 2 << false << true << false;
        QTest::newRow("13 rc and encrypt, 8 ignored") << 13 << true << false << true;
    }
    void settingBitsAreReadByValue()
    {
        QFETCH(int, bits);
        DataCenter* center = DataCenter::getInstance();
        center->SetSetting(7);
        center->SetSetting(bits);
        QTEST(center->isRcEnvironment(), "rc");
        QTEST(center->isHttpsRequest(), "https");
        QTEST(center->isEncryptRequest(), "encrypt");
    }
    // A writer thread swaps between two complete records; readers must never see a mix.
    void concurrentCopiesOfARecordStayWhole()
    {
        DataCenter* center = DataCenter::getInstance();
        const CLoginInfor a{{{"cookie", "one"}}, "1"};
        const CLoginInfor b{{{"cookie", "two"}}, "2"};
        center->SetLoginInfor(a);
        std::atomic<bool> stop{false};
        QThread* writer = QThread::create([&] {
            for (int i = 0; !stop.load(); ++i)
                center->SetLoginInfor(i % 2 ? a : b);
        });
        writer->start();
        for (int i = 0; i < 20000; ++i) {
            CLoginInfor copy;
            center->GetLoginInfor(copy);
            const QString cookie = copy.cookies.value("cookie");
            QVERIFY((copy.userId == "1" && cookie == "one") ||
                    (copy.userId == "2" && cookie == "two"));
        }
        stop = true;
        writer->wait();
        delete writer;
    }
};

QTEST_GUILESS_MAIN(tst_DataCenter)
#include "tst_datacenter.moc"
