// SPDX-License-Identifier: Apache-2.0
// StringEncrypt, get_m627_encode and the push answer decoder against the stand-in cipher library.
// Answers are sealed the way a push server seals them (the stand-in server's wire helpers);
// outgoing frames are checked byte for byte in tst_cipher_fake.
#include "cipher/stringencrypt.h"
#include "logcapture.h"
#include "push/msg_client.h"
#include "pushwire.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtTest>

namespace {
QByteArray le32(quint32 v)
{
    QByteArray b;
    pushwire::appendLe32(b, v);
    return b;
}
QByteArray rspHead(const char* magic, quint32 seq, bool compressed, quint32 length)
{
    return QByteArray(magic, 4) + le32(seq) + QByteArray(1, compressed ? 1 : 0) +
           QByteArray(3, '\x7f') + le32(length);
}
} // namespace

class tst_StringEncrypt : public QObject
{
    Q_OBJECT
    LogCapture m_log;

    StringEncrypt* se() { return StringEncrypt::getInstance(); }

    static QByteArray openMsg(unsigned int type, const QByteArray& token, const QByteArray& body)
    {
        QByteArray plain;
        return pushwire::openLoginBody(type, token, body, plain) ? plain : "(failed)";
    }

private slots:
    void initTestCase()
    {
        m_log.start(-1); // negative: level-0 lines too
        QCOMPARE(Msg_client::init(), 0);
    }
    void init() { m_log.mark(); }

    void dataRoundTripsThroughTheLibrary_data()
    {
        QTest::addColumn<int>("size");
        for (int n : {0, 1, 8, 1000, 200000})
            QTest::newRow(qPrintable(QString::number(n))) << n;
    }
    void dataRoundTripsThroughTheLibrary()
    {
        QFETCH(int, size);
        QByteArray plain(size, '\0');
        for (int i = 0; i < size; ++i)
            plain[i] = char(i * 7);
        QByteArray sealed, opened;
        QCOMPARE(se()->Ec627EncodeData(plain, sealed), 0);
        QCOMPARE(sealed.size(), size + 40);
        QCOMPARE(se()->Ec627Decode(sealed, opened), 0);
        QCOMPARE(opened, plain);
        // The decoder's bound is the encode bound, not the decode length.
        QCOMPARE(se()->Ec627DecodeLen(sealed), enctypt::ec627_encode_len(sealed.size()) + 512);
        const auto* bytes = reinterpret_cast<const uchar*>(sealed.constData());
        QVERIFY(se()->Ec627DecodeLen(sealed) !=
                enctypt::ec627_decode_len(bytes, sealed.size()) + 512);
    }

    void messagesAreSealedForTheServer()
    {
        QVERIFY(QRegularExpression("^627-[0-9a-f]{32}$").match(se()->token()).hasMatch());
        const QString first = se()->token();
        se()->Init(); // a fresh token each time
        QVERIFY(se()->token() != first);
        QVERIFY(!m_log.contains("failed"));
        unsigned char token[128] = {};
        int tokenLength = 128;
        QByteArray body, tok;
        QCOMPARE(se()->Ec627MsgEncode(4242, "login", body, token, &tokenLength), 0);
        QCOMPARE(tokenLength, 48);
        QCOMPARE(openMsg(4242, QByteArray(reinterpret_cast<char*>(token), 48), body), "login");
        QCOMPARE(se()->Ec627Encode("product body", body, tok), 0); // sealed for product 627
        QCOMPARE(tok.size(), 48);
        QCOMPARE(openMsg(627, tok, body), "product body");
        tokenLength = 128;
        QCOMPARE(se()->Ec627MsgEncodeToken(1, token, &tokenLength), 0);
        QCOMPARE(tokenLength, 48);
        const QByteArray plain("uid=1&t=2&sign=abc");
        QCOMPARE(se()->M627Encode(plain, body), 0);
        QCOMPARE(se()->M627Decode(body, tok), 0);
        QCOMPARE(tok, plain);
        QVERIFY(get_m627_encode_at(QString(plain), 1).startsWith("data="));
        QVERIFY(m_log.contains("init lib success!"));
        // Capacity 10 x input: too small below 7 bytes; a failure leaves the output alone.
        QVERIFY(se()->M627Encode("short", tok) != 0);
        QVERIFY(se()->M627Encode(QByteArray(), tok) != 0);
        QCOMPARE(tok, plain);
    }

    // Answers and notices that decode; an 8-byte response body is never decrypted. A block LZ4
    // rejects is no failure: the text is what the decompressor left before the error, up to the
    // first NUL, never more than 16 * encrypted size + 1536 (the tail may hold bytes LZ4 copied
    // before it noticed). A block that yields nothing is a failure; others leave the text alone.
    void answersAreOpenedOrFailClearly_data()
    {
        QTest::addColumn<QByteArray>("head");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("line");
        const auto row = [](const char* name, const char* magic, bool compressed,
                            const QByteArray& block, const QByteArray& text, int result = 0) {
            QByteArray body; // a failed seal leaves it empty: the row then fails
            pushwire::seal(block, body);
            QTest::newRow(name) << rspHead(magic, 77, compressed, body.size()) << body << text
                                << result << QString();
        };
        const auto lz4 = pushwire::lz4Block;
        QByteArray big;
        for (int i = 0; i < 3000; ++i)
            big += R"({"id":)" + QByteArray::number(QRandomGenerator::global()->generate()) +
                   R"(,"mt":138},)";
        row("plain response", "JOOS", false, R"({"a":1})", R"({"a":1})");
        row("compressed big", "KOOS", true, lz4(big), big);
        row("empty plain", "JOOS", false, QByteArray(), QByteArray());
        row("garbage block", "JOOS", true, QByteArray(30, '\xff'), QByteArray());
        const QByteArray withNul = QByteArray(600, 'b') + '\0' + QByteArray(1 << 20, 'c');
        row("stops at NUL", "JOOS", true, lz4(withNul), QByteArray(600, 'b'));
        row("decompresses to nothing", "JOOS", true, QByteArray(1, '\0'), QByteArray(), -1);
        row("decompresses to one byte", "JOOS", true, lz4("x"), "x");
        // Many short sequences: the buffer fills up to near the bound before the one that does
        // not fit (text marked by a leading '~': checked against the bound).
        QByteArray runs = "~";
        for (int i = 0; runs.size() < (1 << 20); ++i)
            runs += QByteArray::number(i * 2654435761u, 36) + QByteArray(1000, 'a' + i % 26);
        row("ratio above bound", "JOOS", true, lz4(runs.mid(1)), runs);
        const QByteArray fixed(R"({"data":{"notice_id":"%llu","t":580001},"mt":50332160})");
        QTest::newRow("notice 42")
            << QByteArray("LOOS") << le32(42) + QByteArray("\1\2\3\4", 4)
            << QByteArray(R"({"data":{"notice_id":"42","t":580001},"mt":50332160})") << 0
            << QString();
        QTest::newRow("notice max")
            << QByteArray("LOOS") << le32(0xFFFFFFFF) + le32(0)
            << QByteArray(R"({"data":{"notice_id":"4294967295","t":580001},"mt":50332160})") << 0
            << QString();
        QTest::newRow("8-byte response")
            << rspHead("JOOS", 1, false, 8) << le32(42) + le32(0) << fixed << 0 << QString();
        QTest::newRow("8-byte compressed push")
            << rspHead("KOOS", 1, true, 8) << QByteArray(8, '\xff') << fixed << 0 << QString();
        for (int size : {7, 9}) // other sizes are decrypted: these bytes do not open
            QTest::newRow(qPrintable(QString("%1-byte response").arg(size)))
                << rspHead("JOOS", 1, false, size) << QByteArray(size, '\xff') << QByteArray("old")
                << -1 << QString();
        // Heads and bodies that do not match: the line logged names the row.
        const auto fails = [](const QByteArray& head, const QByteArray& body, const QString& line) {
            QTest::newRow(qPrintable(line)) << head << body << QByteArray("old") << -1 << line;
        };
        const auto number = [](const char* magic) { return qFromLittleEndian<quint32>(magic); };
        const QString notice("decode get push notice data but in data len err [%1], required len "
                             "[8]magic_num [%2]");
        for (int size : {7, 9}) // a 4-byte head is a notice's, 8 bytes its body
            fails("LOOS", QByteArray(size, 'n'), notice.arg(size).arg(number("LOOS")));
        for (const char* magic : {"JOOS", "KOOS", "MOOS"})
            fails(magic, QByteArray(8, 'n'), notice.arg(8).arg(number(magic)));
        const QByteArray body(50, 'x');
        const QString magicLine("head.magic_quote [%1] err, MAGIC_RSP [1397706570] MAGIC_PSH "
                                "[1397706571]");
        for (const char* magic : {"FOOS", "GOOS", "HOOS", "IOOS", "LOOS", "MOOS"})
            fails(rspHead(magic, 1, false, 50), body, magicLine.arg(number(magic)));
        for (int length : {49, 51})
            fails(rspHead("JOOS", 1, false, length), body,
                  QString("length err head.length = [%1], in.length() = [50]").arg(length));
        const QString sizeLine("length of headstring [%1] not confirmed to sizeof(MSG_HEAD) [16]");
        for (int size : {3, 5, 15, 17})
            fails((rspHead("JOOS", 1, false, 50) + 'x').left(size), body, sizeLine.arg(size));
    }
    void answersAreOpenedOrFailClearly()
    {
        QFETCH(QByteArray, head);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, text);
        QFETCH(int, result);
        QFETCH(QString, line);
        QByteArray out("old");
        QCOMPARE(Msg_client::decode(head, body, out), result);
        if (text.startsWith('~')) {
            const int bound = 16 * body.size() + 1536;
            QVERIFY2(out.size() <= bound && out.size() > bound - 2048,
                     qPrintable(QString("%1 of %2").arg(out.size()).arg(bound)));
            QVERIFY(!out.contains('\0'));
            QVERIFY(out.startsWith(text.mid(1, bound - 2048)));
        } else {
            QCOMPARE(out, text);
        }
        QVERIFY2(m_log.contains(line), qPrintable(m_log.since()));
    }
};

QTEST_GUILESS_MAIN(tst_StringEncrypt)
#include "tst_stringencrypt.moc"
