#pragma once
// SPDX-License-Identifier: Apache-2.0

// Sends the daemon's log to a file under a temporary HOME and reads back what was written
// since the last mark(). Tests that set up HOME and the log themselves use mark() only.

#include "core/datacenter.h"
#include "core/log.h"

#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>

class LogCapture
{
public:
    void start(int threshold)
    {
        qputenv("HOME", m_home.path().toUtf8());
        DataCenter::getInstance()->SetLogLevel(threshold);
        LogManager::getInstance()->init();
        mark();
    }
    void mark() { m_offset = QFileInfo(LogManager::getInstance()->fileName()).size(); }
    QString since() const
    {
        QFile file(LogManager::getInstance()->fileName());
        if (!file.open(QIODevice::ReadOnly))
            return QString();
        file.seek(m_offset);
        return QString::fromLocal8Bit(file.readAll());
    }
    bool contains(const QString& text) const { return since().contains(text); }
    int count(const QString& text) const { return since().count(text); }

private:
    QTemporaryDir m_home;
    qint64 m_offset = 0;
};
