// SPDX-License-Identifier: Apache-2.0
#include "logfile.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

LogFile LogFileReader::read(const QString& path)
{
    LogFile file;
    file.path = path;
    const QRegularExpressionMatch name =
        QRegularExpression("^\\d{4}_\\d{6}_(\\d+)_627\\.log$").match(QFileInfo(path).fileName());
    if (name.hasMatch())
        file.pid = name.captured(1).toLongLong();

    QFile in(path);
    if (QFileInfo(path).isDir() || !in.open(QIODevice::ReadOnly)) {
        file.problems << QStringLiteral("cannot be read: %1")
                             .arg(QFileInfo(path).isDir() ? "it is a folder" : in.errorString());
        return file;
    }
    const QByteArray data = in.readAll();
    if (data.isEmpty()) {
        file.problems << QStringLiteral("is empty: the daemon had not written a line yet");
        return file;
    }
    // The daemon writes text only; a NUL byte means some other kind of file.
    if (data.contains('\0')) {
        file.problems << QStringLiteral("is a binary file, not a d627 log");
        return file;
    }
    readLines(data, file);
    if (!file.readable()) {
        const bool markerOnly = file.unknown.isEmpty() && LineParser::marker(data.trimmed()) > 0;
        file.problems.clear();
        file.unknown.clear();
        if (markerOnly) {
            file.problems << QStringLiteral("holds only the marker of a new file: the daemon had "
                                            "not written a line yet");
            return file;
        }
        file.problems << QStringLiteral("is not a d627 log: no line reads "
                                        "\"[<thread>]yyyy-MM-dd hh:mm:ss.zzz  <text>\"");
        return file;
    }
    if (!data.endsWith('\n'))
        file.problems << QStringLiteral("ends in a cut-off line (line %1, no line end): the file "
                                        "was copied while the daemon wrote, or truncated")
                             .arg(data.count('\n') + 1);
    return file;
}

void LogFileReader::readLines(const QByteArray& data, LogFile& file)
{
    QList<QByteArray> raw = data.split('\n');
    // After the last line end: nothing, or a line cut off (dropped if not even its time is whole).
    LogLine probe;
    if (raw.last().isEmpty() || !LineParser::parse(raw.last(), probe))
        raw.removeLast();
    checkStart(raw, file);
    for (int i = 0; i < raw.size(); ++i) {
        LogLine line;
        line.lineNo = i + 1;
        if (LineParser::parse(raw.at(i), line)) {
            if (line.kind == LineKind::Unknown)
                file.unknown.append({line.lineNo, raw.at(i)});
            file.lines.append(line);
        } else if (LineParser::marker(raw.at(i)) > 0) {
            continue;
        } else if (!file.lines.isEmpty()) {
            // A text that held a line end: it belongs to the line before.
            file.lines.last().text += '\n' + raw.at(i);
        } else {
            file.unknown.append({i + 1, raw.at(i)});
        }
    }
}

void LogFileReader::checkStart(const QList<QByteArray>& raw, LogFile& file)
{
    // A new file starts with the marker 1; a file that the hourly recycling emptied starts with
    // the line that caused it, followed by the marker of the new start.
    const int first = LineParser::marker(raw.value(0));
    const int second = LineParser::marker(raw.value(1));
    if (first == 1)
        return;
    if (second > 1) {
        file.restarts = second - 1;
        file.problems << QStringLiteral("was restarted by the hourly recycling (marker %1 on line "
                                        "2): what the daemon wrote in the %2 hour(s) before line 1 "
                                        "is gone")
                             .arg(second)
                             .arg(second - 1);
    } else if (first > 1) {
        file.restarts = first - 1;
        file.problems << QStringLiteral("starts with the marker %1: the file was restarted by the "
                                        "hourly recycling and its earlier lines are gone")
                             .arg(first);
    } else {
        file.problems << QStringLiteral("does not start with the marker of a new file: its "
                                        "beginning is missing");
    }
}
