#pragma once
// SPDX-License-Identifier: Apache-2.0

// The session summary for people (text) and for scripts (one JSON object).

#include "logfile.h"
#include "session.h"

#include <QJsonObject>

struct Reading
{
    QList<LogFile> files;
    Summary summary;
    int unknownLines() const;
};

class TextReport
{
public:
    static QString render(const Reading& reading, bool showUnknown);
    static QString time(qint64 ms);
    static QString duration(qint64 ms);
};

class JsonReport
{
public:
    static QJsonObject render(const Reading& reading, bool showUnknown);
};
