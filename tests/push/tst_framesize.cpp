// SPDX-License-Identifier: Apache-2.0
// pushFrameSize: the size of the push frame at the front of the received bytes, from its head.

#include "push/client_framesize.h"
#include "push/msg_client.h"

#include <QtEndian>
#include <QtTest>

class tst_FrameSize : public QObject
{
    Q_OBJECT

private slots:
    void frameSize_data()
    {
        // A response head: magic, seq 7, compressed 0, 3 reserved, then the little-endian length.
        const auto head = [](quint32 length) {
            QByteArray bytes("JOOS\x07\0\0\0\0\0\0\0", 12);
            char le[4];
            qToLittleEndian(length, le);
            return bytes + QByteArray(le, 4);
        };
        QTest::addColumn<QByteArray>("front");
        QTest::addColumn<qint64>("size");
        QTest::newRow("nothing") << QByteArray() << qint64(0);
        QTest::newRow("part of a magic") << QByteArray("GO") << qint64(0);
        QTest::newRow("heartbeat echo") << QByteArray("GOOS") << qint64(4);
        QTest::newRow("heartbeat echo, more behind") << QByteArray("GOOSJOOS") << qint64(4);
        QTest::newRow("notice") << QByteArray("LOOS") << qint64(12);
        QTest::newRow("response, head in part") << head(100).left(15) << qint64(0);
        QTest::newRow("response of 100") << head(100) << qint64(116);
        QTest::newRow("response of 64 kB") << head(65536) + "x" << qint64(65552);
        QTest::newRow("response of 0") << head(0) << qint64(-1);
        QTest::newRow("response beyond INT_MAX") << head(0x80000000u) << qint64(-1);
        QTest::newRow("push magic") << QByteArray("KOOS") << qint64(-1);
        QTest::newRow("unknown magic") << QByteArray("XXXXYYYY") << qint64(-1);
    }
    void frameSize()
    {
        QFETCH(QByteArray, front);
        QFETCH(qint64, size);
        QCOMPARE(pushFrameSize(front), size);
    }
};

QTEST_GUILESS_MAIN(tst_FrameSize)
#include "tst_framesize.moc"
