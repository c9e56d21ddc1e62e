#pragma once
// SPDX-License-Identifier: Apache-2.0

// The session as a timeline picture: one lane per concern (the push connection and its steps,
// status checks, back-off waits, notices and queries, messages to the main application), time
// on the x axis, failures marked by cause. gnuplot draws it; this class only writes its script.

#include "session.h"

#include <QByteArray>
#include <QString>

class Timeline
{
public:
    enum Format
    {
        Svg,
        Png
    };
    explicit Timeline(const Summary& summary) : m_summary(summary) {}
    // The gnuplot script that draws the picture into `output`.
    QByteArray script(const QString& output, Format format) const;
    // Runs gnuplot; 0 on success, else -1 with the reason in `error`.
    int render(const QString& output, Format format, QString& error) const;

    static const char* const kLanes[]; // lane names, top lane first

private:
    // The key's entries and the longest title among them.
    struct Key
    {
        int entries = 0;
        int longest = 0;
    };
    void addSeries(QByteArray& blocks, QByteArray& plots, Key& key, const QByteArray& rows,
                   const QString& title, const QByteArray& style) const;
    qint64 first() const;
    qint64 last() const;

    const Summary& m_summary;
};
