// SPDX-License-Identifier: Apache-2.0
// The binding and the push codec against the fake libec627 (modes: see fake_ec627.cpp) whose
// plain bodies and fixed token let whole frames be compared byte for byte, and, run as
// tst_cipher_nolib, without any library: noLib* functions run only there, failures in both.
#include "cipher/stringencrypt.h"
#include "logcapture.h"
#include "push/msg_client.h"

#include <QLibrary>
#include <QtTest>
#include <functional>
#include <numeric>

class tst_CipherFake : public QObject
{
    Q_OBJECT
    QLibrary m_lib{"ec627"};
    int (*m_calls)(const char*) = nullptr;
    void (*m_reset)() = nullptr;
    const char* (*m_lastKey)() = nullptr;
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
        const bool fake = qgetenv("LD_LIBRARY_PATH").endsWith("fake-ec627");
        QCOMPARE(m_lib.load(), fake);
        if (fake) {
            m_calls = reinterpret_cast<decltype(m_calls)>(m_lib.resolve("fake_ec627_calls"));
            m_reset = reinterpret_cast<decltype(m_reset)>(m_lib.resolve("fake_ec627_reset"));
            m_lastKey = reinterpret_cast<decltype(m_lastKey)>(m_lib.resolve("fake_ec627_last_key"));
            QVERIFY2(m_calls && m_reset && m_lastKey,
                     "the fake libec627 must be first on the path");
        }
        m_log.start(m_calls ? 1 : -1);
    }
    void init()
    {
        const QByteArray name = QTest::currentTestFunction();
        if (name != "failures" && name.startsWith("noLib") == bool(m_calls))
            QSKIP("for the other library situation");
        m_log.mark();
    }
    void cleanup() { qputenv("FAKE_EC627_MODE", ""); }

    void noLibInitLogsAndNulToken()
    {
        QCOMPARE(se()->token(), QString(128, QChar(0)));
        QCOMPARE(m_log.count("load lib ec627 failed!"), 2); // one per init function
        m_log.mark();
        se()->Init(); // a second Init retries both
        QCOMPARE(m_log.count("load lib ec627 failed!"), 2);
        QCOMPARE(m_log.count("init ec627 failed!"), 1);
        QCOMPARE(se()->Ec627DecodeLen("abc"), 511); // -1 + 512
        QCOMPARE(get_m627_encode("uid=1"), QString());
        QVERIFY(m_log.contains("init lib failed!"));
        QVERIFY(!m_log.contains("failed to encode"));
    }

    // Every operation when the library fails ("fail": code 7) or is missing (-1): the result,
    // the line, and outputs left alone. Rows "token<N>": an N-byte message token fails the login
    // frame unless N is 48, in the library (-2) beyond its 128-byte buffer.
    void failures_data()
    {
        QTest::addColumn<QString>("op");
        QTest::addColumn<int>("failResult");
        QTest::addColumn<QString>("logLine");
        QTest::addColumn<QString>("debugLine");
        for (const char* op :
             {"M627Encode", "M627Decode", "Ec627Encode", "Ec627Decode", "Ec627EncodeData",
              "Ec627GetToken", "Ec627MsgEncode", "Ec627MsgEncodeToken"})
            QTest::newRow(op) << op << 7 << QString() << QString();
        // The login encoder hands the library's own code on.
        QTest::newRow("login frame")
            << "first_req_encode" << 7 << "ec627_encode fail with return code [%1]" << QString();
        QTest::newRow("normal frame")
            << "normal_req_encode" << -1 << QString() << "ec627_encode fail with return code [%1]";
        QTest::newRow("answer") << "decode" << -1 << QString() << "ec627_decode fail";
        for (int size : {47, 49, 128, 129}) // with the library only: a length it was given
            if (m_calls)
                QTest::newRow(qPrintable(QString("token%1").arg(size)))
                    << "first_req_encode" << (size > 128 ? -2 : -1)
                    << (size > 128 ? "return code [-2]" : QString("token len [%1] err").arg(size))
                    << QString();
    }
    void failures()
    {
        QFETCH(QString, op);
        QFETCH(int, failResult);
        QFETCH(QString, logLine);
        QFETCH(QString, debugLine);
        const QByteArray tag = QTest::currentDataTag();
        if (m_calls)
            setMode(tag.startsWith("token") ? tag.constData() : "fail");
        const int code = m_calls ? 7 : -1;
        if (!debugLine.isEmpty())
            QTest::ignoreMessage(QtDebugMsg,
                                 qPrintable(debugLine.replace("%1", QString::number(code))));
        const QByteArray in(40, 'i');
        const QByteArray head =
            QByteArray("JOOS", 4) + QByteArray(8, '\0') + QByteArray("\x28\0\0\0", 4);
        QByteArray out("untouched"), token("untouched");
        unsigned char tok[128] = {7};
        int tokenLength = 128;
        StringEncrypt* s = se();
        const QMap<QString, std::function<int()>> ops{
            {"M627Encode", [&] { return s->M627Encode(in, out); }},
            {"M627Decode", [&] { return s->M627Decode(in, out); }},
            {"Ec627Encode", [&] { return s->Ec627Encode(in, out, token); }},
            {"Ec627Decode", [&] { return s->Ec627Decode(in, out); }},
            {"Ec627EncodeData", [&] { return s->Ec627EncodeData(in, out); }},
            {"Ec627GetToken",
             [&] { return s->Ec627GetToken(1, 2, 3, nullptr, 0, nullptr, 0, in, out); }},
            {"Ec627MsgEncode", [&] { return s->Ec627MsgEncode(1, in, out, tok, &tokenLength); }},
            {"Ec627MsgEncodeToken", [&] { return s->Ec627MsgEncodeToken(1, tok, &tokenLength); }},
            {"first_req_encode",
             [&] { return Msg_client::first_req_encode(7, 1, 2, 0, 0, "t", out); }},
            {"normal_req_encode", [&] { return Msg_client::normal_req_encode(1, 2, "t", out); }},
            {"decode", [&] { return Msg_client::decode(head, in, out); }}};
        QCOMPARE(ops.value(op)(), m_calls ? failResult : -1);
        QCOMPARE(out, QByteArray("untouched"));
        QCOMPARE(token, QByteArray("untouched"));
        QCOMPARE(tokenLength, 128);
        QCOMPARE(tok[0], (unsigned char)7);
        if (!logLine.isEmpty())
            QVERIFY(m_log.contains(logLine.replace("%1", QString::number(code))));
    }

    void framesAreLaidOutByteForByte()
    {
        setMode("ok");
        QByteArray out;
        QCOMPARE(Msg_client::first_req_encode(0x107, 0x1122334455667788ul, 0xA1B2C3D4u, 5, 9,
                                              QString::fromUtf8("h\xc3\xa9"), out),
                 0);
        QByteArray token(48, '\0');
        std::iota(token.begin(), token.end(), 1);
        const QByteArray expected = QByteArray("HOOS\x01\x00\x07\x00", 8) +
                                    QByteArray("\x88\x77\x66\x55\x44\x33\x22\x11", 8) +
                                    QByteArray("\xD4\xC3\xB2\xA1\x05\x00\x00\x00", 8) + token +
                                    QByteArray("\0\0\0\0\x0B\0\0\0", 8) +
                                    QByteArray("MSG:\x09\0\0\0h\xc3\xa9", 11);
        QCOMPARE(out.toHex(), expected.toHex());
        // The client type's low byte only; with no text, the 4-byte value alone after the head.
        QCOMPARE(Msg_client::first_req_encode(0x1FF, 1, 2, 0, 0, QString(), out), 0);
        QCOMPARE(out.mid(6, 1) + out.mid(76), QByteArray("\xFF\x08\0\0\0MSG:\0\0\0\0", 13));
        QCOMPARE(Msg_client::normal_req_encode(0x01020304, 0x0A0B0C0D, "x", out), 0);
        QCOMPARE(
            out.toHex(),
            QByteArray("IOOS\x04\x03\x02\x01\0\0\0\0\x09\0\0\0ENC:\x0D\x0C\x0B\x0Ax", 25).toHex());
    }

    void buffersFollowTheLibrarysLengths()
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

    void formBodyKeyFollowsTheTime()
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

        m_reset();
        QCOMPARE(get_m627_encode_at("a=1 b~+/", 1700000000),
                 QString("data=k%3Db72e24b3e191c859cb59d906f01be284%26p%3Da%3D1%20b~%2B%2F"));
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

QTEST_GUILESS_MAIN(tst_CipherFake)
#include "tst_cipher_fake.moc"
