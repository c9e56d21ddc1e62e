// SPDX-License-Identifier: Apache-2.0
// d627-logview on real logs: the real d627 plays short stories against the real d627-sandbox at
// threshold 1 and below 0, and the summary must tell what the story did; its timeline must show
// every lane once and each failure at its time. Damaged and foreign files get a clear word.

#include "e2eharness.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QXmlStreamReader>
#include <QtTest>

using namespace e2e;

namespace {
const QString kLogview = QStringLiteral(D627_BIN_DIR "/d627-logview");
const QStringList kLanes{"push connection", "status checks", "back-off waits",
                         "notices and queries", "to the main application"};

struct Run
{
    int code = -1;
    QByteArray out, err;
};

Run logview(const QStringList& arguments)
{
    QProcess process;
    process.start(kLogview, arguments);
    Run run;
    if (process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit)
        run.code = process.exitCode();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

// The value at "a/b/0/c" in `object`, as text.
QString valueAt(const QJsonObject& object, const QString& path)
{
    QJsonValue value = object;
    for (const QString& key : path.split('/'))
        value = value.isArray() ? value.toArray().at(key.toInt()) : value.toObject().value(key);
    return value.toVariant().toString();
}

// Seconds of the day of "yyyy-MM-dd hh:mm:ss.zzz" or "hh:mm:ss".
double secondsOfDay(const QString& time)
{
    const QTime t = QTime::fromString(time.right(time.contains('.') ? 12 : 8),
                                      time.contains('.') ? "hh:mm:ss.zzz" : "hh:mm:ss");
    return t.msecsSinceStartOfDay() / 1000.0;
}

// What a person reads off the picture: the texts, and the times at which the markers of each
// titled series stand, read against the labels of the time axis.
struct Picture
{
    bool parsed = false;
    QStringList texts;
    QMap<QString, QList<double>> markers; // series title -> seconds of the day
    // Key entries (title and sample) that stand partly outside the picture.
    QStringList keyOutside;
};

Picture readSvg(const QByteArray& svg)
{
    Picture picture;
    QXmlStreamReader xml(svg);
    QString series;
    QList<QPointF> ticks; // (x, seconds of the day)
    double tickY = 1e9;
    QList<QPair<QString, QPointF>> uses;
    QPointF at;
    double width = 0;
    QList<QPair<QString, QPointF>> texts; // and where each stands
    const QRegularExpression translate("translate\\(([-\\d.]+),([-\\d.]+)\\)");
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement())
            continue;
        const QRegularExpressionMatch moved =
            translate.match(xml.attributes().value("transform").toString());
        if (moved.hasMatch())
            at = QPointF(moved.captured(1).toDouble(), moved.captured(2).toDouble());
        if (xml.name() == QLatin1String("svg"))
            width = xml.attributes().value("viewBox").toString().split(' ').value(2).toDouble();
        // A series' group starts with its entry in the key.
        if (xml.name() == QLatin1String("g") && xml.attributes().hasAttribute("id"))
            series.clear();
        if (xml.name() == QLatin1String("use") && moved.hasMatch())
            uses << qMakePair(series, at);
        if (xml.name() == QLatin1String("text")) {
            const QString text = xml.readElementText(QXmlStreamReader::IncludeChildElements);
            picture.texts << text;
            if (series.isNull())
                series = text;
            texts << qMakePair(text, at);
            if (QRegularExpression("^\\d\\d:\\d\\d:\\d\\d$").match(text).hasMatch()) {
                ticks << QPointF(at.x(), secondsOfDay(text));
                tickY = at.y();
            }
        }
    }
    picture.parsed = !xml.hasError() && ticks.size() >= 2;
    if (!picture.parsed)
        return picture;
    const double scale =
        (ticks.last().y() - ticks.first().y()) / (ticks.last().x() - ticks.first().x());
    for (const auto& use : qAsConst(uses)) {
        if (use.second.y() < tickY) // above the axis labels: in the plot, not in the key
            picture.markers[use.first]
                << ticks.first().y() + (use.second.x() - ticks.first().x()) * scale;
        else if (use.second.x() < 0 || use.second.x() > width)
            picture.keyOutside << use.first + " (its sample)";
    }
    // A title of the key ends at its anchor, and a character of the 12-point font is narrower
    // than 8 px.
    for (const auto& text : qAsConst(texts)) {
        if (text.second.y() > tickY &&
            (text.second.x() > width || text.second.x() - 8.0 * text.first.size() < 0))
            picture.keyOutside << text.first;
    }
    return picture;
}
} // namespace

class tst_Logview : public QObject
{
    Q_OBJECT
private slots:
    void cleanup() { h.cleanup(); }
    void summaryAndPictureTellTheStory_data()
    {
        QTest::addColumn<int>("threshold");
        QTest::addColumn<QStringList>("environment"); // of the daemon
        // Sandbox commands; "=text": wait until the log holds the text once more than at the last
        // wait for it.
        QTest::addColumn<QStringList>("play");
        QTest::addColumn<bool>("endsItself");
        // "path=value" or "path>value" in the JSON summary; as value "#text": how many times the
        // log holds the text, "@text": the time of its first line that does.
        QTest::addColumn<QStringList>("expect");

        const QString lib = QStringLiteral(D627_LIB_DIR);
        const QStringList running{"connections=1",
                                  "failureList/0/cause=",
                                  "messages/0/kind=",
                                  "statusChecks=0",
                                  "runs/0/ended=asked to exit by the main application",
                                  "logins/0/text=user " + kUserId};
        const QString toRunning = "=" + QString(kRunning);
        QTest::newRow("login and running")
            << 1 << QStringList() << QStringList{toRunning} << false << running;
        QTest::newRow("login and running, tracing")
            << -1 << QStringList() << QStringList{toRunning} << false
            << running + QStringList{"traceLines=#----[", "lines=#]20"};
        const QStringList drop{toRunning, "drop", toRunning};
        const QStringList dropped{
            "connections=2",        "failures/disconnection=1",
            "failureList/1/cause=", "statusResults/session valid, reconnect=1",
            "backoffs=1",           "longestBackoffMs>0",
            "messages/0/kind=",     "failureList/0/time=@server disconnect to socket"};
        QTest::newRow("drop and reconnection") << 1 << QStringList() << drop << false << dropped;
        QTest::newRow("drop and reconnection, tracing")
            << -1 << QStringList() << drop << false << dropped;
        QTest::newRow("logout elsewhere")
            << 1 << QStringList() << QStringList{toRunning, "logout kicked"} << true
            << QStringList{"messages/0/kind=logout",   "messages/0/text=kicked",
                           "messages/1/kind=",         "statusResults/logged out=1",
                           "failures/disconnection=1", "runs/0/ended=after reporting a logout"};
        // Every lane busy and every kind of entry in the key at once, as in the demo.
        QTest::newRow("changes, notice and drop")
            << 1 << QStringList()
            << QStringList{toRunning,      "avatar url=http://127.0.0.1/a.png",
                           "vip level=5",  "=\"vip_level\":5",
                           "notice id=42", "=\"notice_id\":\"42\"",
                           "drop",         toRunning}
            << false
            << QStringList{"messages/0/kind=avatar", "messages/1/kind=membership", "connections=2",
                           "longestOutageMs>0"};
        QTest::newRow("address lookup failure")
            << 1 << QStringList() << QStringList{toRunning,
                                                 "address mode=state0",
                                                 "drop",
                                                 "=GetServerAddress failed!",
                                                 "address mode=ok",
                                                 toRunning}
            << false
            << QStringList{"failures/address lookup failure=#GetServerAddress failed!",
                           "failures/disconnection=1", "connections=2"};
        QTest::newRow("cipher failure")
            << 1
            << QStringList{"LD_LIBRARY_PATH=" + lib + "/fake-ec627",
                           "FAKE_EC627_REAL=" + lib + "/libec627.so",
                           "FAKE_EC627_FAIL=ec627_decode"}
            << QStringList{"=decode failed!", "=check status is login, would reconnect"} << false
            << QStringList{"failures/cipher failure=#decode failed!",
                           "failures/read failure=", "connections=#current process is 1!",
                           "notices=0", "longestOutageMs>0"};
    }
    void summaryAndPictureTellTheStory()
    {
        QFETCH(int, threshold);
        QFETCH(QStringList, environment);
        QFETCH(QStringList, play);
        QFETCH(bool, endsItself);
        QFETCH(QStringList, expect);

        QVERIFY(h.prepare() && h.startSandbox());
        QVERIFY(h.startDaemon(environment) && h.login(0, threshold));
        const qint64 pid = h.daemon().processId();
        QVERIFY2(h.waitLog("MsgClient::onRun current process is 1!", 1, 15000), "no connection");
        QMap<QString, int> waited;
        for (const QString& step : qAsConst(play)) {
            if (step.startsWith('='))
                QVERIFY2(h.waitLog(step.mid(1).toUtf8(), ++waited[step], 30000), qPrintable(step));
            else
                QVERIFY(h.ctl(step));
        }
        QVERIFY(h.exitDaemon(!endsItself));

        const QStringList logs = QDir(h.logFolder()).entryList({"*.log"}, QDir::Files, QDir::Name);
        QCOMPARE(logs.size(), 1);
        const QString log = h.logFolder() + '/' + logs.first();
        const QString svg = h.dir() + "/timeline.svg";
        const Run json = logview({"--json", "--svg", svg, log});
        QCOMPARE(json.code, 0);
        const QJsonObject summary = QJsonDocument::fromJson(json.out).object();
        // Every line the daemon wrote is one the reader knows.
        QCOMPARE(valueAt(summary, "unknownLines"), QString("0"));
        QCOMPARE(valueAt(summary, "runs/0/pid"), QString::number(pid));
        for (const QString& check : qAsConst(expect)) {
            const int at = check.indexOf(QRegularExpression("[=>]"));
            const QString found = valueAt(summary, check.left(at)), value = check.mid(at + 1);
            const QByteArray text = value.mid(1).toUtf8();
            QString wanted = value;
            if (value.startsWith('#'))
                wanted = QString::number(h.logCount(text));
            else if (value.startsWith('@') && !h.logTimes(text).isEmpty())
                wanted = QDateTime::fromMSecsSinceEpoch(h.logTimes(text).first())
                             .toString("yyyy-MM-dd hh:mm:ss.zzz");
            if (check.at(at) == '>')
                QVERIFY2(found.toLongLong() > wanted.toLongLong(),
                         qPrintable(check + ": " + found));
            else
                QCOMPARE(found + "  <- " + check, wanted + "  <- " + check);
        }
        // The stretches not connected make up the time not connected: the longest lies within it,
        // and there is one whenever that time is not zero.
        const qint64 notConnected = valueAt(summary, "notConnectedMs").toLongLong();
        const qint64 longestOutage = valueAt(summary, "longestOutageMs").toLongLong();
        QVERIFY2(longestOutage <= notConnected && (longestOutage > 0) == (notConnected > 0),
                 qPrintable(QString("longest outage %1 ms, not connected %2 ms")
                                .arg(longestOutage)
                                .arg(notConnected)));
        // The text summary tells the same.
        const Run text = logview({log});
        QVERIFY(text.out.contains("push connections made: " +
                                  valueAt(summary, "connections").toUtf8()));
        QVERIFY(text.out.contains("messages to the main application: " +
                                  QByteArray::number(summary.value("messages").toArray().size())));

        // The picture: one lane per concern, each failure marked at its time.
        const Picture picture = readSvg(readFile(svg));
        QVERIFY2(picture.parsed, "the timeline is no readable SVG with a time axis");
        for (const QString& lane : kLanes)
            QCOMPARE(picture.texts.count(lane), 1);
        QVERIFY2(picture.keyOutside.isEmpty(), qPrintable(picture.keyOutside.join(", ")));
        for (const QJsonValue failure : summary.value("failureList").toArray()) {
            const QString cause = failure.toObject().value("cause").toString();
            const double at = secondsOfDay(failure.toObject().value("time").toString());
            const QList<double> marks = picture.markers.value(cause);
            QVERIFY2(std::any_of(marks.cbegin(), marks.cend(),
                                 [&](double x) { return qAbs(x - at) < 0.5; }),
                     qPrintable(cause + " not marked at " +
                                failure.toObject().value("time").toString()));
        }
    }
    void damagedFilesAreNamedPlainly_data()
    {
        QTest::addColumn<QStringList>("arguments"); // "%f": the file
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("says");

        const QByteArray line1 =
            "[140570370504384]2026-11-25 03:49:32.790  MsgClient::onRun current "
            "process is 0!\n";
        const QByteArray line2 = "[140570370504384]2026-11-25 03:49:36.973  server disconnect to "
                                 "socket, error is The remote host closed the connection\n";
        const QStringList file{"%f"};
        QTest::newRow("whole") << file << "1!!!\n" + line1 + line2 << 0 << "failures: 1";
        QTest::newRow("empty") << file << QByteArray() << 1 << "is empty";
        QTest::newRow("binary") << file
                                << QByteArray("\x7f"
                                              "ELF\x02\x01\x01\0\0\0",
                                              10) +
                                       line1
                                << 1 << "is a binary file";
        QTest::newRow("foreign") << file << QByteArray("Nov 25 03:49:31 host sshd[42]: accepted\n")
                                 << 1 << "is not a d627 log";
        QTest::newRow("marker only") << file << QByteArray("1!!!\n") << 1 << "only the marker";
        QTest::newRow("truncated")
            << file << "1!!!\n" + line1 + line2.left(60) << 0 << "ends in a cut-off line (line 3";
        QTest::newRow("truncated in the time")
            << file << "1!!!\n" + line1 + line2.left(30) << 0 << "push connections made: 0";
        QTest::newRow("restarted hour") << file << line2 + "2!!!\n" + line1 << 0
                                        << "restarted by the hourly recycling (marker 2 on line 2)";
        QTest::newRow("beginning missing")
            << file << line1 + line2 << 0 << "does not start with the marker";
        QTest::newRow("unknown line")
            << QStringList{"--unknown", "%f"} << "1!!!\n" + line1 + line1.left(42) + "hello\n"
            << 0 << ":3: [140570370504384]2026-11-25 03:49:32.790  hello";
        QTest::newRow("no file") << QStringList() << QByteArray() << 2 << "no log file given";
        QTest::newRow("unknown option")
            << QStringList{"--bogus", "%f"} << QByteArray() << 2 << "Unknown option 'bogus'";
        QTest::newRow("missing file")
            << QStringList{"%f.missing"} << QByteArray() << 1 << "cannot be read";
    }
    void damagedFilesAreNamedPlainly()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, content);
        QFETCH(int, code);
        QFETCH(QString, says);

        QTemporaryDir dir;
        QFile file(dir.filePath("1125_034931_13682_627.log"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
        file.close();
        arguments.replaceInStrings("%f", file.fileName());
        const Run run = logview(arguments);
        QCOMPARE(run.code, code);
        QVERIFY2((run.out + run.err).contains(says.toUtf8()), (run.out + run.err).constData());
    }

private:
    E2eHarness h;
};

QTEST_GUILESS_MAIN(tst_Logview)
#include "tst_logview.moc"
