#pragma once
// SPDX-License-Identifier: Apache-2.0

// Reads one d627 log file into its timed lines, and says in plain words what is wrong with it:
// not readable, empty, binary, not a d627 log, cut off, or restarted by the hourly recycling.

#include "logline.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

struct LogFile
{
    QString path;
    qint64 pid = -1;      // from the file name "MMdd_hhmmss_<pid>_627.log", -1 if not so named
    QList<LogLine> lines; // the timed lines in file order, continuation lines joined in
    QList<QPair<int, QByteArray>> unknown; // line number and text of lines no d627 writes
    QStringList problems; // what a reader should know about the file, one sentence each
    int restarts = 0;     // times the hourly recycling restarted the file before this content

    bool readable() const { return !lines.isEmpty(); }
};

class LogFileReader
{
public:
    static LogFile read(const QString& path);

private:
    static void readLines(const QByteArray& data, LogFile& file);
    static void checkStart(const QList<QByteArray>& raw, LogFile& file);
};
