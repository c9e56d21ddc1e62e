// Push answers sealed the way a push server seals them (the stand-in server's own wire helpers:
// the cipher library called directly, LZ4 blocks). Outgoing frames are checked byte for byte in
// tst_cipher_fake and opened by the stand-in server in tst_msgclient.
#include "logcapture.h"
#include "push/msg_client.h"
#include "pushwire.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtEndian>
#include <QtTest>

namespace {
QByteArray le32(quint32 v)
{
    QByteArray b(4, '\0');
    qToLittleEndian(v, b.data());
    return b;
}

QByteArray rspHead(const char* magic, quint32 seq, bool compressed, quint32 length)
{
    return QByteArray(magic, 4) + le32(seq) + QByteArray(1, compressed ? 1 : 0) +
           QByteArray(3, '\x7f') + le32(length);
}
} // namespace

class TstMsgClientCodec : public QObject
{
    Q_OBJECT

    LogCapture m_log;

    static QByteArray seal(const QByteArray& plain)
    {
        QByteArray sealed;
        return pushwire::seal(plain, sealed) ? sealed : QByteArray();
    }
    static QByteArray compress(const QByteArray& plain) { return pushwire::lz4Block(plain); }

private slots:
    void initTestCase()
    {
        m_log.start(1);
        QCOMPARE(Msg_client::init(), 0);
    }
    void init() { m_log.mark(); }

    void answers_data()
    {
        QTest::addColumn<QByteArray>("magic");
        QTest::addColumn<bool>("compressed");
        QTest::addColumn<QByteArray>("text");
        QByteArray big;
        auto* rng = QRandomGenerator::global();
        for (int i = 0; i < 3000; ++i)
            big += QByteArray(R"({"id":)") + QByteArray::number(rng->generate()) + R"(,"mt":138},)";
        QTest::newRow("plain response") << QByteArray("JOOS") << false << QByteArray(R"({"a":1})");
        QTest::newRow("plain push") << QByteArray("KOOS") << false << QByteArray(R"({"mt":149})");
        QTest::newRow("compressed short") << QByteArray("JOOS") << true << QByteArray("{}");
        QTest::newRow("compressed big") << QByteArray("KOOS") << true << big;
        QTest::newRow("empty plain") << QByteArray("JOOS") << false << QByteArray();
    }
    void answers()
    {
        QFETCH(QByteArray, magic);
        QFETCH(bool, compressed);
        QFETCH(QByteArray, text);
        const QByteArray body = seal(compressed ? compress(text) : text);
        QByteArray out("old");
        QCOMPARE(Msg_client::decode(rspHead(magic, 77, compressed, body.size()), body, out), 0);
        QCOMPARE(out, text);
        tagTRANSPORT_PKG_HEAD_RSP head;
        QVERIFY(Msg_client::parseHead(rspHead(magic, 77, compressed, body.size()), head));
        QCOMPARE(head.seq, 77u);
        QCOMPARE(head.compressed, quint8(compressed ? 1 : 0));
    }

    void decodeFailures_data()
    {
        QTest::addColumn<QByteArray>("head");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("line");
        const QByteArray body(50, 'x');
        QTest::newRow("notice 7 bytes")
            << QByteArray("LOOS") << QByteArray(7, 'n')
            << QByteArray("decode get push notice data but in data len err [7], required len "
                          "[8]magic_num [1397706572]");
        QTest::newRow("4-byte head not a notice")
            << QByteArray("JOOS") << QByteArray(8, 'n')
            << QByteArray("in data len err [8], required len [8]magic_num [1397706570]");
        QTest::newRow("request magic")
            << rspHead("IOOS", 1, false, 50) << body
            << QByteArray("head.magic_quote [1397706569] err, MAGIC_RSP [1397706570] MAGIC_PSH "
                          "[1397706571]");
        QTest::newRow("length one short")
            << rspHead("JOOS", 1, false, 49) << body
            << QByteArray("length err head.length = [49], in.length() = [50]");
        QTest::newRow("head 15 bytes")
            << rspHead("JOOS", 1, false, 50).left(15) << body
            << QByteArray("length of headstring [15] not confirmed to sizeof(MSG_HEAD) [16]");
        QTest::newRow("head empty")
            << QByteArray() << body
            << QByteArray("length of headstring [0] not confirmed to sizeof(MSG_HEAD) [16]");
    }
    void decodeFailures()
    {
        QFETCH(QByteArray, head);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, line);
        QByteArray out("untouched");
        QCOMPARE(Msg_client::decode(head, body, out), -1);
        QCOMPARE(out, QByteArray("untouched"));
        QVERIFY2(m_log.contains(line), qPrintable(m_log.since()));
    }

    void bodyFailures_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("compressed");
        QTest::addColumn<QByteArray>("expectedOut");
        QTest::addColumn<QString>("debugLine");
        QByteArray tampered = seal("hello world");
        tampered[tampered.size() - 1] = char(tampered.at(tampered.size() - 1) ^ 1);
        QTest::newRow("tampered") << tampered << false << QByteArray("untouched")
                                  << "^ec627_decode fail$";
        QTest::newRow("truncated") << seal("hello world").chopped(1) << true
                                   << QByteArray("untouched") << "^ec627_decode fail$";
        QTest::newRow("decompresses to nothing")
            << seal(QByteArray(1, '\0')) << true << QByteArray() << QString();
    }
    void bodyFailures()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, compressed);
        QFETCH(QByteArray, expectedOut);
        QFETCH(QString, debugLine);
        if (!debugLine.isEmpty())
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression(debugLine));
        QByteArray out("untouched");
        QCOMPARE(Msg_client::decode(rspHead("JOOS", 3, compressed, body.size()), body, out), -1);
        QCOMPARE(out, expectedOut);
    }

    // A block that LZ4 rejects is not a failure: the text is what the decompressor left in the
    // buffer before the error, up to the first NUL byte, and never more than the bound (the tail
    // may hold bytes LZ4 copied before it noticed the error).
    void corruptBlocks_data()
    {
        QTest::addColumn<QByteArray>("block");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("exact");
        QTest::newRow("garbage") << QByteArray(30, '\xff') << QByteArray() << true;
        // A server may not rely on more than 16 * encrypted size + 1536 decompressed bytes.
        // Many short sequences: the buffer fills up to near the bound before the one that does
        // not fit.
        QByteArray runs;
        for (int i = 0; runs.size() < (1 << 20); ++i)
            runs += QByteArray::number(i * 2654435761u, 36) + QByteArray(1000, 'a' + i % 26);
        QTest::newRow("ratio above bound") << compress(runs) << runs << false;
        const QByteArray withNul = QByteArray(600, 'b') + '\0' + QByteArray(1 << 20, 'c');
        QTest::newRow("stops at NUL") << compress(withNul) << QByteArray(600, 'b') << true;
    }
    void corruptBlocks()
    {
        QFETCH(QByteArray, block);
        QFETCH(QByteArray, text);
        QFETCH(bool, exact);
        const QByteArray body = seal(block);
        const int bound = 16 * body.size() + 1536;
        QByteArray out("untouched");
        QCOMPARE(Msg_client::decode(rspHead("JOOS", 3, true, body.size()), body, out), 0);
        if (exact) {
            QCOMPARE(out, text);
        } else {
            QVERIFY2(out.size() <= bound && out.size() > bound - 2048,
                     qPrintable(QString("%1 of %2").arg(out.size()).arg(bound)));
            QVERIFY(!out.contains('\0'));
            QVERIFY(out.startsWith(text.left(bound - 2048)));
        }
    }

    void notices_data()
    {
        QTest::addColumn<QByteArray>("head");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("expected");
        const QByteArray fixed(R"({"data":{"notice_id":"%llu","t":580001},"mt":50332160})");
        QTest::newRow("notice 42")
            << QByteArray("LOOS") << le32(42) + QByteArray("\1\2\3\4", 4)
            << QByteArray(R"({"data":{"notice_id":"42","t":580001},"mt":50332160})");
        QTest::newRow("notice max")
            << QByteArray("LOOS") << le32(0xFFFFFFFF) + le32(0)
            << QByteArray(R"({"data":{"notice_id":"4294967295","t":580001},"mt":50332160})");
        // An 8-byte response body is never decrypted, compressed or not.
        QTest::newRow("8-byte response")
            << rspHead("JOOS", 1, false, 8) << le32(42) + le32(0) << fixed;
        QTest::newRow("8-byte compressed push")
            << rspHead("KOOS", 1, true, 8) << QByteArray(8, '\xff') << fixed;
    }
    void notices()
    {
        QFETCH(QByteArray, head);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, expected);
        QByteArray out;
        QCOMPARE(Msg_client::decode(head, body, out), 0);
        QCOMPARE(out, expected);
    }
};

QTEST_GUILESS_MAIN(TstMsgClientCodec)
#include "tst_msgclientcodec.moc"
