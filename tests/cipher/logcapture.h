#pragma once

#include "core/datacenter.h"
#include "core/log.h"

#include <QFile>
#include <QTemporaryDir>

// Sends the daemon's log to a file under a temporary HOME and reads back what was written
// since the last mark().
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
    void mark() { m_offset = all().size(); }
    QByteArray since() const { return all().mid(m_offset); }
    bool contains(const char* line) const { return since().contains(line); }
    int count(const char* line) const { return since().count(line); }

private:
    QByteArray all() const
    {
        QFile file(LogManager::getInstance()->fileName());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir m_home;
    qint64 m_offset = 0;
};
