#pragma once

// Reads what the daemon's log file gained since a mark. Tests set HOME to a temporary folder,
// a non-zero log threshold and call LogManager::init() before using it.

#include "core/log.h"

#include <QFile>
#include <QFileInfo>
#include <QString>

class LogWatch
{
public:
    void mark() { m_offset = QFileInfo(LogManager::getInstance()->fileName()).size(); }

    QString since() const
    {
        QFile file(LogManager::getInstance()->fileName());
        if (!file.open(QIODevice::ReadOnly))
            return QString();
        file.seek(m_offset);
        return QString::fromLocal8Bit(file.readAll());
    }

    int count(const QString& text) const { return since().count(text); }
    bool contains(const QString& text) const { return since().contains(text); }

private:
    qint64 m_offset = 0;
};
