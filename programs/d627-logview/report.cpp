// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonArray>
#include <QTextStream>

namespace {
QJsonArray marksToJson(const QList<Mark>& marks, const char* whatKey)
{
    QJsonArray out;
    for (const Mark& mark : marks)
        out << QJsonObject{
            {"time", TextReport::time(mark.at)}, {whatKey, mark.what}, {"text", mark.detail}};
    return out;
}

QJsonObject countsToJson(const QMap<QString, int>& counts)
{
    QJsonObject out;
    for (auto it = counts.cbegin(); it != counts.cend(); ++it)
        out.insert(it.key(), it.value());
    return out;
}

int countOf(const QList<Mark>& marks, const QString& what)
{
    return Summary::countBy(marks).value(what);
}
} // namespace

int Reading::unknownLines() const
{
    int count = 0;
    for (const LogFile& file : files)
        count += file.unknown.size();
    return count;
}

QString TextReport::time(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString("yyyy-MM-dd hh:mm:ss.zzz");
}

QString TextReport::duration(qint64 ms)
{
    if (ms < 60000)
        return QString::number(ms / 1000.0, 'f', 1) + " s";
    const qint64 s = ms / 1000;
    if (s < 3600)
        return QStringLiteral("%1 min %2 s").arg(s / 60).arg(s % 60, 2, 10, QChar('0'));
    return QStringLiteral("%1 h %2 min %3 s")
        .arg(s / 3600)
        .arg(s / 60 % 60, 2, 10, QChar('0'))
        .arg(s % 60, 2, 10, QChar('0'));
}

QString TextReport::render(const Reading& reading, bool showUnknown)
{
    const Summary& s = reading.summary;
    QString text;
    QTextStream out(&text);
    out << "d627 log: " << reading.files.size() << " file(s), " << s.lines << " lines ("
        << s.traceLines << " tracing), " << reading.unknownLines() << " unknown\n";
    for (const LogFile& file : reading.files) {
        for (const QString& problem : file.problems)
            out << "  " << file.path << " " << problem << "\n";
    }
    out << "runs: " << s.runs.size() << "\n";
    for (const Run& run : s.runs)
        out << "  pid " << (run.pid >= 0 ? QString::number(run.pid) : QStringLiteral("?")) << "  "
            << time(run.start) << " to " << time(run.end) << " (" << duration(run.end - run.start)
            << "), ended: " << run.ended << "\n";
    for (const Mark& login : s.logins)
        out << "login: " << time(login.at) << "  " << login.detail << "\n";
    const qint64 total = s.connectedMs + s.notConnectedMs;
    out << "push connections made: " << s.connections << "\n"
        << "time connected: " << duration(s.connectedMs) << " ("
        << (total > 0 ? 100 * s.connectedMs / total : 0)
        << "%), not connected: " << duration(s.notConnectedMs) << "\n"
        << "longest outage: " << duration(s.longestOutageMs) << "\n";
    const auto counts = [&](const char* title, const QList<Mark>& marks) {
        out << title << ": " << marks.size() << "\n";
        const QMap<QString, int> by = Summary::countBy(marks);
        for (auto it = by.cbegin(); it != by.cend(); ++it)
            out << "  " << it.key().leftJustified(26) << " " << it.value() << "\n";
    };
    counts("failures", s.failures);
    counts("status checks", s.checks);
    out << "back-off waits: " << s.backoffs.size() << ", longest " << duration(s.longestBackoffMs())
        << "\n"
        << "notices: " << countOf(s.notices, "notice")
        << ", queries: " << countOf(s.notices, "query")
        << ", heartbeat echoes: " << s.heartbeatEchoes << "\n"
        << "messages to the main application: " << s.messages.size() << "\n";
    for (const Mark& message : s.messages)
        out << "  " << time(message.at) << "  " << message.what.leftJustified(10) << " "
            << message.detail << "\n";
    if (showUnknown) {
        for (const LogFile& file : reading.files) {
            for (const auto& line : file.unknown)
                out << "unknown: " << QFileInfo(file.path).fileName() << ":" << line.first << ": "
                    << QString::fromUtf8(line.second.left(300)) << "\n";
        }
    }
    return text;
}

QJsonObject JsonReport::render(const Reading& reading, bool showUnknown)
{
    const Summary& s = reading.summary;
    QJsonArray files, runs, logins, unknown;
    for (const LogFile& file : reading.files) {
        files << QJsonObject{
            {"file", file.path},          {"pid", file.pid},
            {"lines", file.lines.size()}, {"unknownLines", file.unknown.size()},
            {"restarts", file.restarts},  {"problems", QJsonArray::fromStringList(file.problems)}};
        for (const auto& line : file.unknown) {
            if (showUnknown)
                unknown << QJsonObject{{"file", file.path},
                                       {"line", line.first},
                                       {"text", QString::fromUtf8(line.second)}};
        }
    }
    for (const Run& run : s.runs)
        runs << QJsonObject{{"pid", run.pid},
                            {"start", TextReport::time(run.start)},
                            {"end", TextReport::time(run.end)},
                            {"ended", run.ended}};
    for (const Mark& login : s.logins)
        logins << QJsonObject{{"time", TextReport::time(login.at)}, {"text", login.detail}};
    QJsonObject out{
        {"files", files},
        {"lines", s.lines},
        {"traceLines", s.traceLines},
        {"unknownLines", reading.unknownLines()},
        {"runs", runs},
        {"logins", logins},
        {"connections", s.connections},
        {"connectedMs", s.connectedMs},
        {"notConnectedMs", s.notConnectedMs},
        {"longestOutageMs", s.longestOutageMs},
        {"failures", countsToJson(Summary::countBy(s.failures))},
        {"failureList", marksToJson(s.failures, "cause")},
        {"statusChecks", s.checks.size()},
        {"statusResults", countsToJson(Summary::countBy(s.checks))},
        {"backoffs", s.backoffs.size()},
        {"longestBackoffMs", s.longestBackoffMs()},
        {"notices", countOf(s.notices, "notice")},
        {"queries", countOf(s.notices, "query")},
        {"heartbeatEchoes", s.heartbeatEchoes},
        {"messages", marksToJson(s.messages, "kind")},
    };
    if (showUnknown)
        out.insert("unknown", unknown);
    return out;
}
