// SPDX-License-Identifier: Apache-2.0
// The fleet model (bench/fleet) keeps to the daemon's timing rules: the back-off sequence and
// its quiet-spell reset, the 1 s pacing of the steps, the 10 s repeat of a failed status request,
// and the kernel's failing of a connection whose path died in silence.
#include "fleetmodel.h"

#include <QtTest>
#include <vector>

using namespace fleetmodel;

namespace {

// One daemon, the trace of everything it does.
Result single(const Scenario& base, const Environment& env)
{
    Scenario s = base;
    s.count = 1;
    return simulate(s, env, Rules(), 0);
}

std::vector<TraceItem> only(const Result& r, Event event)
{
    std::vector<TraceItem> out;
    for (const TraceItem& item : r.trace) {
        if (item.event == event)
            out.push_back(item);
    }
    return out;
}

} // namespace

class TstFleetModel : public QObject
{
    Q_OBJECT

private slots:
    void backoffRule_data();
    void backoffRule();
    void pacing_data();
    void pacing();
    void longOutage_data();
    void longOutage();
    void deadPath_data();
    void deadPath();
};

void TstFleetModel::backoffRule_data()
{
    QTest::addColumn<QList<qint64>>("scheduledAt");
    QTest::addColumn<QList<int>>("waits");
    QTest::newRow("quick succession doubles up to 10")
        << QList<qint64>{100, 101, 102, 103, 104, 105} << QList<int>{1, 2, 4, 8, 10, 10};
    QTest::newRow("more than 5 s quiet starts at 1 again")
        << QList<qint64>{100, 101, 102, 108, 109} << QList<int>{1, 2, 4, 1, 2};
    QTest::newRow("exactly 5 s is not quiet")
        << QList<qint64>{100, 105, 110, 116} << QList<int>{1, 2, 4, 1};
    QTest::newRow("the first scheduling waits 1 s") << QList<qint64>{0} << QList<int>{1};
}

void TstFleetModel::backoffRule()
{
    QFETCH(QList<qint64>, scheduledAt);
    QFETCH(QList<int>, waits);
    const Rules rules;
    Backoff backoff(rules);
    QList<int> got;
    for (qint64 s : scheduledAt)
        got << backoff.next(s);
    QCOMPARE(got, waits);
}

void TstFleetModel::pacing_data()
{
    QTest::addColumn<qint64>("latencyMs");
    QTest::addColumn<qint64>("failPhaseMs");
    QTest::newRow("instant services") << qint64(0) << qint64(0);
    QTest::newRow("slow services, late in the second") << qint64(40) << qint64(900);
}

// A clean restart without downtime: status check at once, 1 s back-off, then connect, login and
// query one step (1 s) apart, each after the answer to the one before.
void TstFleetModel::pacing()
{
    QFETCH(qint64, latencyMs);
    QFETCH(qint64, failPhaseMs);
    Environment env;
    env.statusLatency = env.addressLatency = env.pushLatency = latencyMs * kMs;
    env.timerLate = 0;
    env.notice = 0;
    env.coarse = false; // the daemon's rules alone, without Qt's rounding of timers
    Scenario s;
    s.kind = Kind::Restart;
    s.fail = 10 * kSecond + failPhaseMs * kMs;
    s.horizon = 20 * kSecond;
    const Result r = single(s, env);
    const Micros lat = latencyMs * kMs;

    const auto status = only(r, Event::StatusSent);
    const auto waits = only(r, Event::ReconnectWait);
    const auto address = only(r, Event::AddressSent);
    const auto connected = only(r, Event::Connected);
    const auto login = only(r, Event::LoginSent);
    const auto query = only(r, Event::QuerySent);
    const auto answered = only(r, Event::QueryAnswered);
    QCOMPARE(int(status.size()), 1);
    QCOMPARE(int(waits.size()), 1);
    QCOMPARE(int(connected.size()), 1);
    QCOMPARE(int(answered.size()), 1);
    QCOMPARE(status[0].at, s.fail);
    QCOMPARE(waits[0].value, 1);
    QCOMPARE(waits[0].at, s.fail + lat);
    // The back-off, then one step before step 0 runs.
    QCOMPARE(address[0].at, waits[0].at + 2 * kSecond);
    QCOMPARE(connected[0].at, address[0].at + 2 * lat);
    QCOMPARE(login[0].at, connected[0].at + kSecond);
    QCOMPARE(query[0].at, login[0].at + lat + kSecond);
    QCOMPARE(answered[0].at, query[0].at + lat);
    QCOMPARE(r.recovered[0], answered[0].at - s.fail);
}

void TstFleetModel::longOutage_data()
{
    QTest::addColumn<qint64>("statusLatencyMs");
    QTest::addColumn<qint64>("statusFailS");
    QTest::addColumn<QList<int>>("waits");
    QTest::addColumn<QList<double>>("statusAtS");
    // Each wait of 8 s is followed by a quiet spell (8 s + a step > 5 s): the waits never grow
    // to 10 s while every episode has one failure.
    QTest::newRow("one failure per episode: 1, 2, 4, 8 over again")
        << qint64(0) << qint64(0) << QList<int>{1, 2, 4, 8, 1, 2, 4, 8, 1}
        << QList<double>{0, 2, 5, 10, 19, 21, 24, 29, 38};
    // A slow status answer pushes the fourth scheduling past 5 whole seconds: 1, 2, 4 over again.
    QTest::newRow("slow status answers: 1, 2, 4 over again")
        << qint64(600) << qint64(0) << QList<int>{1, 2, 4, 1, 2, 4, 1}
        << QList<double>{0, 2.6, 6.2, 11.8, 14.4, 18, 23.6};
    // A failing status service: the request is repeated every 10 s, the back-off waits for an
    // answer and then starts at 1 s.
    QTest::newRow("status failing for 25 s: repeats every 10 s")
        << qint64(0) << qint64(25) << QList<int>{1} << QList<double>{0, 10, 20, 30};
}

// The push port refuses for 100 s (60 s for the failing status service): the waits between the
// connection attempts, and when the status checks go out (seconds after the failure).
void TstFleetModel::longOutage()
{
    QFETCH(qint64, statusLatencyMs);
    QFETCH(qint64, statusFailS);
    QFETCH(QList<int>, waits);
    QFETCH(QList<double>, statusAtS);
    Environment env;
    env.statusLatency = statusLatencyMs * kMs;
    env.addressLatency = env.pushLatency = 0;
    env.timerLate = 0;
    env.notice = 0;
    env.coarse = false; // the daemon's rules alone, without Qt's rounding of timers
    Scenario s;
    s.kind = Kind::Restart;
    s.fail = 10 * kSecond;
    s.down = statusFailS ? 31 * kSecond : 100 * kSecond;
    if (statusFailS) {
        s.statusFailFrom = 0;
        s.statusFailTo = statusFailS * kSecond;
    }
    s.horizon = 60 * kSecond;
    const Result r = single(s, env);
    QList<int> gotWaits;
    for (const TraceItem& item : only(r, Event::ReconnectWait))
        gotWaits << item.value;
    QList<double> gotStatus;
    for (const TraceItem& item : only(r, Event::StatusSent))
        gotStatus << double(item.at - s.fail) / double(kSecond);
    if (statusFailS) { // the whole story: one wait, then connected
        QCOMPARE(gotWaits, waits);
        QCOMPARE(gotStatus, statusAtS);
        QCOMPARE(r.recovered[0], 34 * kSecond);
        return;
    }
    QCOMPARE(gotWaits.mid(0, waits.size()), waits);
    QCOMPARE(gotStatus.mid(0, statusAtS.size()), statusAtS);
}

void TstFleetModel::deadPath_data()
{
    QTest::addColumn<double>("lastHeartbeatS");
    QTest::addColumn<double>("holeS");
    QTest::addColumn<QList<double>>("statusAtS");
    QTest::addColumn<double>("recoveredS"); // -1: the connection lived through the hole
    QTest::addColumn<double>("failS");      // when the hole opens
    // The kernel's tick (0: exact kernel timers) and, to replay the keepalive timer, when the
    // connection was made and what it received (empty: the timer guessed from the last echo).
    QTest::addColumn<double>("tickMs");
    QTest::addColumn<QList<double>>("receiptsS");
    // The probe 45 s after the heartbeat's echo falls into the hole; 10 s later nothing has been
    // received for 55 s: the connection fails, although the hole closed meanwhile.
    QTest::newRow("probe lost in a short hole: failed 55 s after the last echo")
        << -40.0 << 8.0 << QList<double>{15} << 19.0 << 100.0 << 0.0 << QList<double>{};
    // The heartbeat into the hole (at 10 s) is resent from 10.2 s on and fails the connection
    // 25 s after that. The attempt at 37.2 s resends its SYN after 1, 2, 3, 4, 5, 7, 11 s: the one
    // at 48.2 s gets through ...
    QTest::newRow("heartbeat lost: failed after the user timeout, a resent SYN connects")
        << -50.0 << 45.0 << QList<double>{35.2} << 50.2 << 100.0 << 0.0 << QList<double>{};
    // ... and in a longer hole (the next SYN only at 19 s) the attempt gives up after 30 s.
    QTest::newRow("heartbeat lost in a long hole: the connection attempt gives up")
        << -50.0 << 60.0 << QList<double>{35.2, 67.2} << 71.2 << 100.0 << 0.0 << QList<double>{};
    QTest::newRow("heartbeat retransmitted after a short hole: kept")
        << -55.0 << 10.0 << QList<double>{} << -1.0 << 100.0 << 0.0 << QList<double>{};
    // The retransmission due 30.4 s after the heartbeat is cut to the user timeout (30.2 s).
    QTest::newRow("retransmission later than the user timeout: failed")
        << -55.0 << 25.0 << QList<double>{30.2} << 34.2 << 100.0 << 0.0 << QList<double>{};
    // With the timer wheel (4 ms ticks) the keepalive timer drifts from "45 s after the last
    // receipt": made at 0 s, answers at 1 and 2 s, it fires at 45.056 s (rounded up to 512
    // ticks), 47.008 (a probe, answered), 57.088, then after the echo at 50 s at 96.256: 46 s of
    // silence, a probe, lost in the hole opened at 96 s, and the connection fails at 106.496.
    // Guessed from the echo alone, the probe went out at 95.232 s and was answered: kept.
    QTest::newRow("keepalive replayed from the connection: the probe falls into the hole")
        << -46.0 << 8.0 << QList<double>{10.496} << 14.496 << 96.0 << 4.0
        << QList<double>{-96, -95, -94, -46};
    QTest::newRow("keepalive guessed from the last echo: the probe was answered")
        << -46.0 << 8.0 << QList<double>{} << -1.0 << 96.0 << 4.0 << QList<double>{};
}

// One daemon, its last heartbeat given, the push port black-holed: when the kernel fails the
// connection (the status checks) and when its query is answered again (after the failure).
void TstFleetModel::deadPath()
{
    QFETCH(double, lastHeartbeatS);
    QFETCH(double, holeS);
    QFETCH(QList<double>, statusAtS);
    QFETCH(double, recoveredS);
    QFETCH(double, failS);
    QFETCH(double, tickMs);
    QFETCH(QList<double>, receiptsS);
    Environment env;
    env.statusLatency = env.addressLatency = env.pushLatency = 0;
    env.timerLate = 0;
    env.notice = 0;
    env.coarse = false;
    env.tick = Micros(tickMs * double(kMs));
    Scenario s;
    s.kind = Kind::Blackhole;
    s.fail = Micros(failS * double(kSecond));
    s.down = Micros(holeS * double(kSecond));
    s.lastHeartbeats = {Micros(lastHeartbeatS * double(kSecond))};
    std::vector<Micros> receipts;
    for (double at : receiptsS)
        receipts.push_back(Micros(at * double(kSecond)));
    s.receipts = {receipts};
    s.horizon = 90 * kSecond;
    const Result r = single(s, env);
    QList<double> gotStatus;
    for (const TraceItem& item : only(r, Event::StatusSent))
        gotStatus << double(item.at - s.fail) / double(kSecond);
    QCOMPARE(gotStatus, statusAtS);
    const Micros expected = recoveredS < 0 ? kNotFailed : qRound64(recoveredS * double(kSecond));
    QCOMPARE(r.recovered[0], expected);
}

QTEST_APPLESS_MAIN(TstFleetModel)
#include "tst_fleetmodel.moc"
