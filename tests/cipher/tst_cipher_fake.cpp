// Failure injection: the binding and the push codec against a fake libec627 whose behaviour is
// chosen by FAKE_EC627_MODE (see fake_ec627.cpp). The fake's bodies are plain ("MSG:"/"ENC:" +
// input) and its token a fixed pattern, so whole frames can be compared byte for byte.
#include "cipher/stringencrypt.h"
#include "logcapture.h"
#include "push/msg_client.h"

#include <QLibrary>
#include <QtTest>

namespace {
using CallsFn = int (*)(const char*);
using ResetFn = void (*)();
using KeyFn = const char* (*)();
} // namespace

class TstCipherFake : public QObject
{
    Q_OBJECT
    QLibrary m_lib{"ec627"};
    CallsFn m_calls = nullptr;
    ResetFn m_reset = nullptr;
    KeyFn m_lastKey = nullptr;
    LogCapture m_log;

    void setMode(const char* mode)
    {
        qputenv("FAKE_EC627_MODE", mode);
        m_reset();
        m_log.mark();
    }
    StringEncrypt* se() { return StringEncrypt::getInstance(); }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_lib.load(), qPrintable(m_lib.errorString()));
        m_calls = reinterpret_cast<CallsFn>(m_lib.resolve("fake_ec627_calls"));
        m_reset = reinterpret_cast<ResetFn>(m_lib.resolve("fake_ec627_reset"));
        m_lastKey = reinterpret_cast<KeyFn>(m_lib.resolve("fake_ec627_last_key"));
        QVERIFY2(m_calls && m_reset && m_lastKey, "the fake libec627 must be first on the path");
        m_log.start(1);
    }
    void cleanup() { qputenv("FAKE_EC627_MODE", ""); }

    void loginFrameBytes()
    {
        setMode("ok");
        QByteArray out;
        QCOMPARE(Msg_client::first_req_encode(0x107, 0x1122334455667788ul, 0xA1B2C3D4u, 5, 9,
                                              QString::fromUtf8("h\xc3\xa9"), out),
                 0);
        QByteArray token;
        for (int i = 1; i <= 48; ++i)
            token += char(i);
        const QByteArray expected = QByteArray("HOOS\x01\x00\x07\x00", 8) +
                                    QByteArray("\x88\x77\x66\x55\x44\x33\x22\x11", 8) +
                                    QByteArray("\xD4\xC3\xB2\xA1\x05\x00\x00\x00", 8) + token +
                                    QByteArray("\0\0\0\0\x0B\0\0\0", 8) +
                                    QByteArray("MSG:\x09\0\0\0h\xc3\xa9", 11);
        QCOMPARE(out.toHex(), expected.toHex());
    }

    void normalFrameBytes()
    {
        setMode("ok");
        QByteArray out;
        QCOMPARE(Msg_client::normal_req_encode(0x01020304, 0x0A0B0C0D, "x", out), 0);
        QCOMPARE(out.toHex(), QByteArray("IOOS\x04\x03\x02\x01\0\0\0\0\x09\0\0\0"
                                         "ENC:\x0D\x0C\x0B\x0Ax",
                                         25)
                                  .toHex());
    }

    void libraryErrorCode()
    {
        setMode("fail");
        QByteArray out("untouched");
        // The login encoder hands the library's own code on.
        QCOMPARE(Msg_client::first_req_encode(7, 1, 2, 0, 0, "t", out), 7);
        QVERIFY(m_log.contains("ec627_encode fail with return code [7]"));
        QTest::ignoreMessage(QtDebugMsg, "ec627_encode fail with return code [7]");
        QCOMPARE(Msg_client::normal_req_encode(1, 2, "t", out), -1);
        QTest::ignoreMessage(QtDebugMsg, "ec627_decode fail");
        QCOMPARE(Msg_client::decodeX(0, 0, QByteArray(20, 'e'), out), -1);
        QCOMPARE(out, QByteArray("untouched"));
        unsigned char tok[48];
        int tokenLength = 48;
        QCOMPARE(se()->Ec627MsgEncodeToken(3, tok, &tokenLength), 7);
    }

    void wrongTokenLength()
    {
        setMode("token47");
        QByteArray out("untouched");
        QCOMPARE(Msg_client::first_req_encode(7, 1, 2, 0, 0, "t", out), -1);
        QVERIFY(m_log.contains("token len [47] err"));
        QCOMPARE(out, QByteArray("untouched"));
    }

    void capacityRules()
    {
        QByteArray out("untouched");
        unsigned char tok[128];
        int tokenLength = 128;

        setMode("shortlen"); // encode_len -1: "+1" capacity 0, "+512" capacity 511
        QCOMPARE(se()->Ec627MsgEncode(1, "abc", out, tok, &tokenLength), -1);
        QCOMPARE(m_calls("ec627_msg_encode"), 0);
        QCOMPARE(Msg_client::first_req_encode(7, 1, 2, 0, 0, "t", out), -1);
        QVERIFY(m_log.contains("ec627_encode fail with return code [-1]"));
        QCOMPARE(se()->Ec627EncodeData("abc", out), 0);
        QCOMPARE(m_calls("ec627_encode_data"), 1);
        QCOMPARE(out, QByteArray("ENC:abc"));

        setMode("negative"); // lengths -600: every capacity below 1
        out = "untouched";
        QCOMPARE(se()->Ec627EncodeData("abc", out), -1);
        QCOMPARE(se()->Ec627Decode("ENC:abc", out), -1);
        QCOMPARE(m_calls("ec627_encode_data") + m_calls("ec627_decode"), 0);
        QCOMPARE(out, QByteArray("untouched"));
        QCOMPARE(se()->Ec627DecodeLen("abc"), -88);

        setMode("overlong"); // a length above the capacity is never read past the buffer
        QCOMPARE(se()->Ec627EncodeData("abc", out), 0);
        QCOMPARE(out.size(), 3 + 64 + 512);
        QVERIFY(out.startsWith("ENC:abc"));
    }

    void initRetriesOnlyWhatFailed()
    {
        StringEncrypt::destroyInstance();
        setMode("initfail");
        se();
        QVERIFY(m_log.contains("init m627 failed!"));
        QVERIFY(m_log.contains("init ec627 failed!"));
        se()->Init();
        QCOMPARE(m_calls("m627_edinit"), 2);
        QCOMPARE(m_calls("ec627_init"), 2);

        setMode("ok");
        se()->Init();
        se()->Init();
        QCOMPARE(m_calls("m627_edinit"), 1);
        QCOMPARE(m_calls("ec627_init"), 1);
        QCOMPARE(m_calls("ec627_encode_token"), 2);
        QCOMPARE(se()->token(), QString("fake-token-627"));

        setMode("fail"); // zero from ec627_encode_token: the token stays
        se()->Init();
        QCOMPARE(se()->token(), QString("fake-token-627"));
    }

    void m627Keys()
    {
        StringEncrypt::destroyInstance();
        setMode("ok");
        QByteArray out;
        QCOMPARE(se()->M627Decode("abc", out), 0);
        QCOMPARE(QByteArray(m_lastKey()), QByteArray()); // no key before the first encode
        const qint64 before = time(nullptr);
        QCOMPARE(se()->M627Encode("abcdefgh", out), 0);
        const QByteArray key = m_lastKey();
        QVERIFY(key == m627KeyForTime(before).toUtf8() ||
                key == m627KeyForTime(time(nullptr)).toUtf8());
        QCOMPARE(out, "k=" + key + "&p=abcdefgh");
        QCOMPARE(se()->M627Decode("xyz", out), 0);
        QCOMPARE(QByteArray(m_lastKey()), key);
        QCOMPARE(out, QByteArray("xyz"));
    }

    void formBody()
    {
        setMode("ok");
        QCOMPARE(get_m627_encode_at("a=1 b~", 1700000000),
                 QString("data=k%3Db72e24b3e191c859cb59d906f01be284%26p%3Da%3D1%20b~"));
        QCOMPARE(m_calls("m627_edinit"), 1);
        QCOMPARE(get_m627_encode_at(QString(), 1700000000),
                 QString("data=k%3Db72e24b3e191c859cb59d906f01be284%26p%3D"));

        setMode("fill"); // no terminator: the text stops at the buffer's end
        QCOMPARE(get_m627_encode_at("x", 1), "data=" + QString(384, 'A'));

        setMode("fail");
        QCOMPARE(get_m627_encode_at("x", 1), QString());
        QVERIFY(m_log.contains("failed to encode"));
    }
};

QTEST_GUILESS_MAIN(TstCipherFake)
#include "tst_cipher_fake.moc"
