// SPDX-License-Identifier: Apache-2.0
// SleepWatch reads a suspend from the boot-time clock running ahead of the monotonic one;
// BootDeadline is a one-shot timer on the boot-time clock.

#include "core/log.h"
#include "push/client_sleepwatch.h"

#include <QElapsedTimer>
#include <QtTest>

namespace {
// Clocks moved by the test: awake time moves both, a suspend only the boot-time clock.
class FakeClocks : public ClockSource
{
public:
    qint64 bootTimeMs() const override { return m_boot; }
    qint64 monotonicMs() const override { return m_monotonic; }
    void awake(qint64 ms)
    {
        m_boot += ms;
        m_monotonic += ms;
    }
    void asleep(qint64 ms) { m_boot += ms; }

private:
    qint64 m_boot = 5000000;
    qint64 m_monotonic = 4000000; // the machine slept before the watch was made
};
} // namespace

class tst_SleepWatch : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { LogManager::getInstance(); }

    void sleptSince_data()
    {
        // Steps: "a N" awake N ms, "s N" asleep N ms, "r 0" reset; "? N" a call that must report
        // N ms slept, "> N" / "< N" sleptSince(N) true / false.
        QTest::addColumn<QString>("steps");
        QTest::newRow("awake only") << "a 60000 ? 0 a 1 ? 0";
        QTest::newRow("one suspend") << "a 100 s 600000 a 100 ? 600000 ? 0";
        QTest::newRow("suspends add up until asked") << "s 2000 a 5 s 3000 ? 5000";
        QTest::newRow("each call starts a new count") << "s 2000 ? 2000 s 7 ? 7 a 9 ? 0";
        QTest::newRow("threshold") << "s 999 < 1000 s 1000 > 1000 s 1 > 1 a 5000 < 1";
        QTest::newRow("reset forgets") << "s 5000 r 0 < 1 s 5000 r 0 ? 0";
    }
    void sleptSince()
    {
        QFETCH(QString, steps);
        FakeClocks clocks;
        SleepWatch watch(&clocks);
        const QStringList words = steps.split(' ');
        for (int i = 0; i + 1 < words.size(); i += 2) {
            const QString& step = words.at(i);
            const qint64 ms = words.at(i + 1).toLongLong();
            if (step == "a")
                clocks.awake(ms);
            else if (step == "s")
                clocks.asleep(ms);
            else if (step == "r")
                watch.reset();
            else if (step == "?")
                QCOMPARE(watch.sleptMsSinceLast(), ms);
            else
                QCOMPARE(watch.sleptSince(ms), step == ">");
        }
    }

    void deadline_data()
    {
        QTest::addColumn<int>("ms");
        QTest::addColumn<bool>("stopped");
        QTest::addColumn<int>("rearmMs"); // -1: not re-armed
        QTest::newRow("fires once") << 30 << false << -1;
        QTest::newRow("at once") << 0 << false << -1;
        QTest::newRow("stopped: never fires") << 0 << true << -1;
        QTest::newRow("re-armed: fires once, at the later time") << 0 << false << 80;
    }
    void deadline()
    {
        QFETCH(int, ms);
        QFETCH(bool, stopped);
        QFETCH(int, rearmMs);
        BootDeadline deadline;
        QSignalSpy fired(&deadline, &BootDeadline::timeout);
        QElapsedTimer since;
        since.start();
        QCOMPARE(deadline.start(ms), 0);
        QVERIFY(deadline.isActive());
        // Past the deadline without running the event loop: expired, not yet delivered.
        while (since.elapsed() <= ms + 5) {
        }
        if (rearmMs >= 0) {
            since.start();
            QCOMPARE(deadline.start(rearmMs), 0);
            ms = rearmMs;
        }
        if (stopped) {
            deadline.stop();
            QVERIFY(!deadline.isActive());
            // A second deadline, armed later, fires: the first would have been seen by then.
            BootDeadline later;
            QSignalSpy laterFired(&later, &BootDeadline::timeout);
            QCOMPARE(later.start(10), 0);
            QTRY_COMPARE_WITH_TIMEOUT(laterFired.count(), 1, 10000);
            QCOMPARE(fired.count(), 0);
            return;
        }
        QTRY_COMPARE_WITH_TIMEOUT(fired.count(), 1, 10000);
        QVERIFY(since.elapsed() >= ms);
        QVERIFY(!deadline.isActive());
        // Once: a deadline armed after it fires, and a second firing would have come first.
        BootDeadline later;
        QSignalSpy laterFired(&later, &BootDeadline::timeout);
        QCOMPARE(later.start(ms + 20), 0);
        QTRY_COMPARE_WITH_TIMEOUT(laterFired.count(), 1, 10000);
        QCOMPARE(fired.count(), 1);
    }
};

QTEST_GUILESS_MAIN(tst_SleepWatch)
#include "tst_sleepwatch.moc"
