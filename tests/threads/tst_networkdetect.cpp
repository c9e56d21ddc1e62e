// SPDX-License-Identifier: Apache-2.0
#include "core/datacenter.h"
#include "threads/networkdetectthread.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

// A stand-in `ping` first on PATH prints whatever the test puts in its reply file and notes each
// call in its args file; no packet leaves the machine.
class tst_NetworkDetect : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QFile script(m_dir.path() + "/ping");
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\n"
                     "echo \"$@\" >> \"$(dirname \"$0\")/args\"\n"
                     "cat \"$(dirname \"$0\")/reply\" 2>/dev/null\n");
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("PATH", m_dir.path().toUtf8() + ":" + qgetenv("PATH"));
    }
    void networkErrorFollowsTheLowerCaseReplyMarker()
    {
        DataCenter* center = DataCenter::getInstance();
        setReply("64 bytes from host: icmp_seq=1 ttl=57 time=1.0 ms\n");
        center->SetNetError(true);

        CNetWorkDetectThread thread;
        thread.start();
        QTRY_VERIFY_WITH_TIMEOUT(!center->isNetError(), 30000);

        // Only the lower-case marker counts.
        setReply("Reply from host: bytes=32 time=1ms TTL=57\n");
        QTRY_VERIFY_WITH_TIMEOUT(center->isNetError(), 30000);

        setReply("64 bytes from host: icmp_seq=1 ttl=57 time=1.0 ms\n");
        QTRY_VERIFY_WITH_TIMEOUT(!center->isNetError(), 30000);

        thread.Quit();
        QVERIFY(thread.wait(5000));
    }
    void quitBeforeTheFirstPassRunsNoProbe()
    {
        QFile::remove(m_dir.path() + "/args");
        CNetWorkDetectThread thread;
        thread.Quit();
        thread.start();
        QVERIFY(thread.wait(30000));
        QVERIFY(!QFile::exists(m_dir.path() + "/args"));
    }

private:
    void setReply(const QByteArray& text)
    {
        QFile reply(m_dir.path() + "/reply");
        QVERIFY(reply.open(QIODevice::WriteOnly | QIODevice::Truncate));
        reply.write(text);
    }

    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(tst_NetworkDetect)
#include "tst_networkdetect.moc"
