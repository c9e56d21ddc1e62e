#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QFile>
#include <QMutex>
#include <QString>
#include <QTextStream>
#include <cstdarg>
#include <ctime>
#include <string>

// The daemon's log file. Lines are filtered by the threshold the main application sends:
// a line of level L is written when the threshold T is non-zero and T <= L. With T == 0
// nothing is written and no file is created. The file is started afresh (same name) once
// it is older than an hour.
class LogManager
{
public:
    using Clock = time_t (*)();

    static LogManager* getInstance();
    static void destroyInstance();

    // Opens a new log file under the Documents folder; does nothing while the threshold is 0.
    void init();

    // printf-style; pass arbitrary text as Msg(level, "%s", text).
    void Msg(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    static bool isEnabled(int level);

    QString fileName();
    // Source of wall-clock seconds for the file name and the hourly recycling; tests replace it.
    void setClock(Clock clock);

private:
    LogManager();
    // Adds the thread and time prefix, echoes the line to the debug output and appends it to
    // the file, recycling the file once it is older than an hour.
    void write(const char* body);

    static LogManager* m_this;

    QString m_fileName;
    QTextStream m_stream;
    QFile m_file;
    bool m_isNewFile = true;
    int m_fileCount = 0;
    time_t m_fileStart = 0;
    QMutex m_mutex;
    Clock m_clock;
};

// Scope tracer: an "----[Enter]" line when built and a "----[Leave]" line when destroyed,
// both under the same threshold rule as LogManager::Msg.
class Infor
{
public:
    Infor(int level, const std::string& name);
    Infor(int level, const std::string& name, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    virtual ~Infor();

    Infor(const Infor&) = delete;
    Infor& operator=(const Infor&) = delete;

private:
    void enter(const char* text);

    std::string m_name;
    int m_level;
};
