// SPDX-License-Identifier: Apache-2.0
#include "log.h"

#include "constants.h"
#include "datacenter.h"
#include "sync.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QStandardPaths>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr int kPrefixBytes = 512;
constexpr int kBodyBytes = 2048;
constexpr time_t kRecycleSeconds = 3600;
constexpr mode_t kOwnerOnlyDirMode = 0700;
constexpr mode_t kOwnerOnlyFileMode = 0600;

time_t systemClock()
{
    return time(nullptr);
}

// The log may hold the session cookie: its folders are 0700 and its files 0600 whatever the
// umask, and folders or files left by an earlier run with wider modes are tightened.
void makeOwnerOnlyDir(const QString& path)
{
    const QByteArray native = QFile::encodeName(path);
    ::mkdir(native.constData(), kOwnerOnlyDirMode);
    ::chmod(native.constData(), kOwnerOnlyDirMode);
}

void openOwnerOnly(QFile& file)
{
    // Created (or tightened) here first, so that QFile only ever opens an owner-only file.
    const int fd = ::open(QFile::encodeName(file.fileName()).constData(),
                          O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kOwnerOnlyFileMode);
    if (fd >= 0) {
        ::fchmod(fd, kOwnerOnlyFileMode);
        ::close(fd);
    }
    file.open(QIODevice::WriteOnly | QIODevice::Append);
}
} // namespace

LogManager* LogManager::m_this = nullptr;

LogManager::LogManager() : m_clock(systemClock) {}

LogManager* LogManager::getInstance()
{
    if (!m_this)
        m_this = new LogManager;
    return m_this;
}

void LogManager::destroyInstance()
{
    delete m_this;
    m_this = nullptr;
}

bool LogManager::isEnabled(int level)
{
    const int threshold = DataCenter::getInstance()->GetLogLevel();
    return threshold != kLogOff && threshold <= level;
}

void LogManager::init()
{
    if (DataCenter::getInstance()->GetLogLevel() == kLogOff)
        return;

    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    const QString dirPath = documents + "/627log/support/";
    QDir().mkpath(documents);
    makeOwnerOnlyDir(documents + "/627log");
    makeOwnerOnlyDir(dirPath);

    Sync lock(&m_mutex);
    // Named by the second it is opened in, on the same clock as the recycling.
    const QString name = QDateTime::fromSecsSinceEpoch(m_clock()).toString("MMdd_hhmmss_") +
                         QString::number(getpid()) + "_627.log";
    m_stream.setDevice(nullptr);
    m_file.close();
    m_fileName = dirPath + name;
    m_file.setFileName(m_fileName);
    m_stream.setDevice(&m_file);
    openOwnerOnly(m_file);
    m_isNewFile = true;
    m_fileCount = 0;
}

void LogManager::Msg(int level, const char* format, ...)
{
    if (!isEnabled(level))
        return;
    char body[kBodyBytes] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(body, sizeof body, format, args); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(args);
    write(body);
}

void LogManager::write(const char* body)
{
    char prefix[kPrefixBytes] = {};
    snprintf(prefix, sizeof prefix, "[%05llu]%s", static_cast<unsigned long long>(pthread_self()),
             QDateTime::currentDateTime()
                 .toString("yyyy-MM-dd hh:mm:ss.zzz  ")
                 .toLocal8Bit()
                 .constData());
    const QString line = QString::fromLocal8Bit(prefix) + QString::fromLocal8Bit(body);
    qDebug().noquote() << line;

    Sync lock(&m_mutex);
    const time_t now = m_clock();
    if (m_isNewFile) {
        m_fileStart = now;
        m_isNewFile = false;
        ++m_fileCount;
        m_stream << m_fileCount << "!!!" << '\n';
    } else if (now - m_fileStart > kRecycleSeconds) {
        // Start the same file afresh; the marker follows on the next line.
        m_isNewFile = true;
        m_stream.setDevice(nullptr);
        m_file.remove();
        m_file.close();
        m_file.setFileName(m_fileName);
        m_stream.setDevice(&m_file);
        openOwnerOnly(m_file);
    }
    m_stream << line << Qt::endl;
}

QString LogManager::fileName()
{
    Sync lock(&m_mutex);
    return m_fileName;
}

void LogManager::setClock(Clock clock)
{
    Sync lock(&m_mutex);
    m_clock = clock ? clock : systemClock;
}

Infor::Infor(int level, const std::string& name) : m_name(name), m_level(level)
{
    enter("");
}

Infor::Infor(int level, const std::string& name, const char* format, ...)
    : m_name(name), m_level(level)
{
    if (!LogManager::isEnabled(level))
        return;
    char text[kBodyBytes] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(args);
    enter(text);
}

void Infor::enter(const char* text)
{
    if (!LogManager::isEnabled(m_level)) {
        m_name.clear();
        return;
    }
    m_name += text;
    LogManager::getInstance()->Msg(m_level, "%s----[Enter]", m_name.c_str());
}

Infor::~Infor()
{
    if (!LogManager::isEnabled(m_level))
        return;
    LogManager::getInstance()->Msg(m_level, "%s----[Leave]", m_name.c_str());
}
