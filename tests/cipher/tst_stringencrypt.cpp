// StringEncrypt and get_m627_encode against the stand-in cipher library.
#include "cipher/stringencrypt.h"
#include "logcapture.h"

#include <QLibrary>
#include <QRegularExpression>
#include <QtTest>

namespace {
using MsgOpenFn = int (*)(unsigned int, const unsigned char*, int, const unsigned char*, int,
                          unsigned char*, int*);
using TextFn = int (*)(const unsigned char*, unsigned int, unsigned char*, unsigned int*,
                       unsigned char*, unsigned char*);
const auto uc = [](const QByteArray& b) {
    return reinterpret_cast<const unsigned char*>(b.data());
};
} // namespace

class TstStringEncrypt : public QObject
{
    Q_OBJECT

    QLibrary m_lib{"ec627"};
    MsgOpenFn m_msgOpen = nullptr;
    TextFn m_textDecode = nullptr;
    LogCapture m_log;

    StringEncrypt* se() { return StringEncrypt::getInstance(); }

    // Opens an m627 text with the key of `seconds`; empty on failure.
    QByteArray openText(const QByteArray& text, const QString& key, bool* ok)
    {
        QByteArray plain(text.size(), '\0');
        unsigned int n = plain.size();
        QByteArray k = key.toUtf8();
        unsigned char scratch[16] = {};
        *ok = m_textDecode(uc(text), text.size(), reinterpret_cast<unsigned char*>(plain.data()),
                           &n, reinterpret_cast<unsigned char*>(k.data()), scratch) == 0;
        return plain.left(*ok ? int(n) : 0);
    }
    QByteArray openForm(const QString& form, qint64 seconds, bool* ok)
    {
        const QByteArray text = QByteArray::fromPercentEncoding(form.mid(5).toUtf8());
        return openText(text, m627KeyForTime(seconds), ok);
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_lib.load(), qPrintable(m_lib.errorString()));
        m_msgOpen = reinterpret_cast<MsgOpenFn>(m_lib.resolve("ec627_msg_decode"));
        m_textDecode = reinterpret_cast<TextFn>(m_lib.resolve("m627_decode"));
        QVERIFY(m_msgOpen && m_textDecode);
        m_log.start(-1); // negative: level-0 lines too
    }
    void init() { m_log.mark(); }

    void tokenText()
    {
        QVERIFY(QRegularExpression("^627-[0-9a-f]{32}$").match(se()->token()).hasMatch());
        const QString first = se()->token();
        se()->Init(); // a fresh token each time
        QVERIFY(se()->token() != first);
        QVERIFY(!m_log.contains("failed"));
    }

    void dataRoundTrip_data()
    {
        QTest::addColumn<int>("size");
        for (int n : {0, 1, 8, 1000, 200000})
            QTest::newRow(qPrintable(QString::number(n))) << n;
    }
    void dataRoundTrip()
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
        QVERIFY(se()->Ec627DecodeLen(sealed) !=
                enctypt::ec627_decode_len(uc(sealed), sealed.size()) + 512);
    }

    void badInputLeavesOutput()
    {
        QByteArray sealed;
        QCOMPARE(se()->Ec627EncodeData("secret", sealed), 0);
        QByteArray flipped = sealed;
        flipped[30] = char(flipped.at(30) ^ 0x10);
        for (const QByteArray& bad :
             {flipped, sealed.chopped(1), QByteArray(), QByteArray(39, 'a')}) {
            QByteArray out("untouched");
            QVERIFY(se()->Ec627Decode(bad, out) != 0);
            QCOMPARE(out, QByteArray("untouched"));
        }
    }

    void messageSeals()
    {
        unsigned char token[128] = {};
        int tokenLength = 128;
        QByteArray body;
        QCOMPARE(se()->Ec627MsgEncode(4242, "login", body, token, &tokenLength), 0);
        QCOMPARE(tokenLength, 48);
        QByteArray plain(64, '\0');
        int n = plain.size();
        QCOMPARE(m_msgOpen(4242, token, 48, uc(body), body.size(),
                           reinterpret_cast<unsigned char*>(plain.data()), &n),
                 0);
        QCOMPARE(plain.left(n), QByteArray("login"));

        // Ec627Encode seals for the product number 627.
        QByteArray out, tok;
        QCOMPARE(se()->Ec627Encode("product body", out, tok), 0);
        QCOMPARE(tok.size(), 48);
        n = plain.size();
        QCOMPARE(m_msgOpen(627, uc(tok), 48, uc(out), out.size(),
                           reinterpret_cast<unsigned char*>(plain.data()), &n),
                 0);
        QCOMPARE(plain.left(n), QByteArray("product body"));

        tokenLength = 128;
        QCOMPARE(se()->Ec627MsgEncodeToken(1, token, &tokenLength), 0);
        QCOMPARE(tokenLength, 48);
    }

    void m627RoundTrip()
    {
        const QByteArray plain("uid=1&t=2&sign=abc");
        QByteArray text, back;
        QCOMPARE(se()->M627Encode(plain, text), 0);
        QCOMPARE(se()->M627Decode(text, back), 0);
        QCOMPARE(back, plain);
        // Capacity is 10 x input: too small for the stand-in below 7 bytes.
        QByteArray out("untouched");
        QVERIFY(se()->M627Encode("short", out) != 0);
        QVERIFY(se()->M627Encode(QByteArray(), out) != 0);
        QCOMPARE(out, QByteArray("untouched"));
    }

    void formSameSecondSameKey()
    {
        const qint64 t = 1700000000;
        const QString a = get_m627_encode_at("uid=1", t);
        const QString b = get_m627_encode_at("uid=1", t);
        QVERIFY(a.startsWith("data=") && b.startsWith("data="));
        bool ok = false;
        QCOMPARE(openForm(a, t, &ok), QByteArray("uid=1"));
        QVERIFY(ok);
        QCOMPARE(openForm(b, t, &ok), QByteArray("uid=1"));
        QVERIFY(ok);
        openForm(a, t + 1, &ok); // another second, another key
        QVERIFY(!ok);
        QVERIFY(m_log.contains("init lib success!"));
    }

    void formPercentEncoding()
    {
        // Cipher text is base64: "+", "/" and "=" must all come out percent-encoded.
        bool plus = false, slash = false, equals = false;
        const QRegularExpression allowed("^data=[A-Za-z0-9%]+$");
        for (int i = 0; i < 200 && !(plus && slash && equals); ++i) {
            const QString form = get_m627_encode_at(QString(i % 3 + 1, 'p'), 1700000000 + i);
            QVERIFY2(allowed.match(form).hasMatch(), qPrintable(form));
            plus |= form.contains("%2B");
            slash |= form.contains("%2F");
            equals |= form.contains("%3D");
        }
        QVERIFY(plus && slash && equals);
    }

    void formLengthBound()
    {
        QVERIFY(!get_m627_encode_at(QString(245, 'x'), 1).isEmpty());
        QVERIFY(!m_log.contains("failed to encode"));
        QCOMPARE(get_m627_encode_at(QString(246, 'x'), 1), QString());
        QVERIFY(m_log.contains("failed to encode"));
    }

    void concurrentCallsAreSerialised()
    {
        // Four threads sealing and opening at once through the one instance.
        QList<QThread*> threads;
        QAtomicInt failures = 0;
        for (int t = 0; t < 4; ++t) {
            threads << QThread::create([&failures, t] {
                for (int i = 0; i < 200; ++i) {
                    const QByteArray plain = QByteArray::number(t * 1000 + i);
                    QByteArray sealed, opened;
                    if (StringEncrypt::getInstance()->Ec627EncodeData(plain, sealed) != 0 ||
                        StringEncrypt::getInstance()->Ec627Decode(sealed, opened) != 0 ||
                        opened != plain)
                        failures.ref();
                }
            });
            threads.last()->start();
        }
        for (QThread* thread : threads) {
            QVERIFY(thread->wait(20000));
            delete thread;
        }
        QCOMPARE(failures.loadRelaxed(), 0);
    }
};

QTEST_GUILESS_MAIN(TstStringEncrypt)
#include "tst_stringencrypt.moc"
