// The binding, the form encoder and the push codec when no cipher library can be loaded
// (run with LD_LIBRARY_PATH pointing at a folder without libec627).
#include "cipher/stringencrypt.h"
#include "logcapture.h"
#include "push/msg_client.h"

#include <QLibrary>
#include <QtTest>

class TstCipherNoLib : public QObject
{
    Q_OBJECT
    LogCapture m_log;

private slots:
    void initTestCase()
    {
        QVERIFY2(!QLibrary("ec627").load(), "libec627 must not be reachable for this test");
        m_log.start(-1);
    }

    void initLogsAndNulToken()
    {
        StringEncrypt* se = StringEncrypt::getInstance();
        QCOMPARE(se->token(), QString(128, QChar(0)));
        QCOMPARE(m_log.count("load lib ec627 failed!"), 2); // one per init function
        QVERIFY(m_log.contains("init m627 failed!"));
        QVERIFY(m_log.contains("init ec627 failed!"));
        // A second Init retries both.
        m_log.mark();
        se->Init();
        QCOMPARE(m_log.count("load lib ec627 failed!"), 2);
        QCOMPARE(m_log.count("init ec627 failed!"), 1);
    }

    void everyOperationFails()
    {
        StringEncrypt* se = StringEncrypt::getInstance();
        const QByteArray in(40, 'i');
        const QByteArray keep("untouched");
        QByteArray out = keep, token = keep;
        QCOMPARE(se->M627Encode(in, out), -1);
        QCOMPARE(se->M627Decode(in, out), -1);
        QCOMPARE(se->Ec627Encode(in, out, token), -1);
        QCOMPARE(se->Ec627Decode(in, out), -1);
        QCOMPARE(se->Ec627EncodeData(in, out), -1);
        QCOMPARE(se->Ec627GetToken(1, 2, 3, nullptr, 0, nullptr, 0, in, out), -1);
        unsigned char tok[128] = {7};
        int tokenLength = 128;
        QCOMPARE(se->Ec627MsgEncode(1, in, out, tok, &tokenLength), -1);
        QCOMPARE(se->Ec627MsgEncodeToken(1, tok, &tokenLength), -1);
        QCOMPARE(out, keep);
        QCOMPARE(token, keep);
        QCOMPARE(tokenLength, 128);
        QCOMPARE(tok[0], (unsigned char)7);
        QCOMPARE(se->Ec627DecodeLen(in), 511); // -1 + 512
    }

    void formIsEmpty()
    {
        m_log.mark();
        QCOMPARE(get_m627_encode("uid=1"), QString());
        QVERIFY(m_log.contains("init lib failed!"));
        QVERIFY(!m_log.contains("failed to encode"));
    }

    void codecFails()
    {
        m_log.mark();
        QByteArray out("untouched");
        QCOMPARE(Msg_client::first_req_encode(7, 1, 2, 0, 0, "login", out), -1);
        QVERIFY(m_log.contains("ec627_encode fail with return code [-1]"));
        QTest::ignoreMessage(QtDebugMsg, "ec627_encode fail with return code [-1]");
        QCOMPARE(Msg_client::normal_req_encode(1, 2, "query", out), -1);
        QTest::ignoreMessage(QtDebugMsg, "ec627_decode fail");
        QByteArray head = QByteArray("JOOS", 4) + QByteArray(8, '\0') + QByteArray("\x28\0\0\0", 4);
        QCOMPARE(Msg_client::decode(head, QByteArray(40, 'b'), out), -1);
        QCOMPARE(out, QByteArray("untouched"));
    }
};

QTEST_GUILESS_MAIN(TstCipherNoLib)
#include "tst_cipher_nolib.moc"
