// SPDX-License-Identifier: Apache-2.0
// bench_fleet_apps: plays the main application for a whole fleet of daemons in one process, so
// that hundreds of real daemons fit on a small machine beside their services. For each daemon it
// makes a home and a temporary folder of its own, starts the daemon there, connects to its local
// server, sends the login message (user id 100000 + its number) and records every message the
// daemon sends back. Once a second it samples each daemon's open descriptors and threads.
//
//   bench_fleet_apps --daemon PATH --count N --work DIR [--stagger-ms MS] [--loglevel L]
//
// Output on standard output, one line per event, the first field the wall clock in ms:
//   <ms> start <i> <pid>          the daemon was started
//   <ms> linked <i>               its local link is up and the login message sent
//   <ms> msg <i> <json>           a message from the daemon
//   <ms> gone <i> <exit code>     the daemon ended
//   <ms> clocks <wall us> <monotonic us>   read together at the start
//   <ms> proc <alive> <fd min> <fd max> <fd sum> <threads min> <threads max> <threads sum>
// The line "quit" on standard input (or SIGTERM, SIGINT) sends {"exit":true} to every daemon,
// waits up to 5 s for them and kills whatever is left; then the program ends.
#include "jsonstream.h"
#include "link/communication.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSocketNotifier>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<bool> g_stop{false};

void onSignal(int)
{
    g_stop.store(true);
}

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

void emitLine(const QByteArray& text)
{
    const QByteArray line = QByteArray::number(nowMs()) + ' ' + text + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
}

int countEntries(const QString& dir)
{
    return int(QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size());
}

int threadCount(qint64 pid)
{
    QFile status(QString("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("Threads:"))
            return line.mid(8).trimmed().toInt();
    }
    return -1;
}

// One daemon and its end of the local link.
struct Member
{
    int index = 0;
    QString tmp;
    QProcess* process = nullptr;
    QLocalSocket* socket = nullptr;
    QByteArray buffer;
    bool linked = false;
    bool gone = false;
};

class Fleet : public QObject
{
public:
    Fleet(QString daemon, QString work, int count, int staggerMs, int logLevel)
        : m_daemon(std::move(daemon)), m_work(std::move(work)), m_count(count),
          m_staggerMs(staggerMs), m_logLevel(logLevel)
    {
    }

    void start()
    {
        // The daemons' timers round their due times on the monotonic clock: its offset from the
        // wall clock tells the model where those round times fall.
        timespec wall{};
        timespec mono{};
        clock_gettime(CLOCK_REALTIME, &wall);
        clock_gettime(CLOCK_MONOTONIC, &mono);
        emitLine("clocks " +
                 QByteArray::number(qint64(wall.tv_sec) * 1000000 + wall.tv_nsec / 1000) + ' ' +
                 QByteArray::number(qint64(mono.tv_sec) * 1000000 + mono.tv_nsec / 1000));
        m_members.resize(size_t(m_count));
        for (int i = 0; i < m_count; ++i)
            QTimer::singleShot(i * m_staggerMs, this, [this, i] { startMember(i); });
        connect(&m_sampler, &QTimer::timeout, this, [this] { sample(); });
        m_sampler.start(1000);
        connect(&m_linker, &QTimer::timeout, this, [this] { linkPending(); });
        m_linker.start(100);
        connect(&m_signals, &QTimer::timeout, this, [this] {
            if (g_stop.load())
                stop();
        });
        m_signals.start(100);
    }

    void stop()
    {
        if (m_stopping)
            return;
        m_stopping = true;
        m_linker.stop();
        for (Member& m : m_members) {
            if (m.socket && m.socket->state() == QLocalSocket::ConnectedState) {
                m.socket->write("{\"exit\":true}");
                m.socket->flush();
            }
        }
        QTimer::singleShot(5000, this, [this] { killAll(); });
        connect(&m_reaper, &QTimer::timeout, this, [this] {
            if (std::all_of(m_members.begin(), m_members.end(), [](const Member& m) {
                    return !m.process || m.process->state() == QProcess::NotRunning;
                }))
                QCoreApplication::quit();
        });
        m_reaper.start(100);
    }

private:
    void startMember(int i)
    {
        if (m_stopping)
            return;
        Member& m = m_members[size_t(i)];
        m.index = i;
        const QString base = QString("%1/d%2").arg(m_work).arg(i, 4, 10, QChar('0'));
        QDir().mkpath(base + "/home");
        QDir().mkpath(base + "/tmp");
        m.tmp = base + "/tmp";
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", base + "/home");
        env.insert("TMPDIR", m.tmp);
        env.remove("XDG_RUNTIME_DIR");
        m.process = new QProcess(this);
        m.process->setProcessEnvironment(env);
        m.process->setWorkingDirectory(base);
        m.process->setStandardInputFile(QProcess::nullDevice());
        m.process->setStandardOutputFile(QProcess::nullDevice());
        m.process->setStandardErrorFile(base + "/stderr.log");
        connect(m.process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
                [this, i](int code, QProcess::ExitStatus) {
                    Member& gone = m_members[size_t(i)];
                    gone.gone = true;
                    emitLine("gone " + QByteArray::number(i) + ' ' + QByteArray::number(code));
                });
        m.process->start(m_daemon, QStringList());
        if (!m.process->waitForStarted(5000)) {
            emitLine("gone " + QByteArray::number(i) + " -1");
            m.gone = true;
            return;
        }
        emitLine("start " + QByteArray::number(i) + ' ' +
                 QByteArray::number(m.process->processId()));
    }

    // Connects every started daemon whose local server is not reached yet.
    void linkPending()
    {
        for (Member& m : m_members) {
            if (!m.process || m.gone || m.linked)
                continue;
            if (m.socket && m.socket->state() != QLocalSocket::UnconnectedState)
                continue;
            if (!m.socket) {
                m.socket = new QLocalSocket(this);
                const int i = m.index;
                connect(m.socket, &QLocalSocket::connected, this, [this, i] { onConnected(i); });
                connect(m.socket, &QLocalSocket::readyRead, this, [this, i] { onReadable(i); });
            }
            m.socket->connectToServer(m.tmp + '/' + QString::fromLatin1(kInstanceId));
        }
    }

    void onConnected(int i)
    {
        Member& m = m_members[size_t(i)];
        m.linked = true;
        const QJsonObject login{{"user_id", QString::number(100000 + i)},
                                {"cookie", QString("USERSESSIONID=fleet%1;").arg(i)},
                                {"setting", 0},
                                {"user_agent", "d627-fleet/1.0"},
                                {"pid", int(QCoreApplication::applicationPid())},
                                {"lockfile", m_work + "/fleet.lock"},
                                {"loglevel", m_logLevel}};
        m.socket->write(QJsonDocument(login).toJson(QJsonDocument::Compact));
        m.socket->flush();
        emitLine("linked " + QByteArray::number(i));
    }

    void onReadable(int i)
    {
        Member& m = m_members[size_t(i)];
        m.buffer += m.socket->readAll();
        for (const QByteArray& object : takeJsonObjects(m.buffer))
            emitLine("msg " + QByteArray::number(i) + ' ' + object);
    }

    void sample()
    {
        int alive = 0;
        int fdMin = INT_MAX;
        int fdMax = 0;
        int thrMin = INT_MAX;
        int thrMax = 0;
        qint64 fdSum = 0;
        qint64 thrSum = 0;
        for (const Member& m : m_members) {
            if (!m.process || m.gone || m.process->state() != QProcess::Running)
                continue;
            const qint64 pid = m.process->processId();
            const int fds = countEntries(QString("/proc/%1/fd").arg(pid));
            const int threads = threadCount(pid);
            if (threads < 0)
                continue;
            ++alive;
            fdMin = std::min(fdMin, fds);
            fdMax = std::max(fdMax, fds);
            fdSum += fds;
            thrMin = std::min(thrMin, threads);
            thrMax = std::max(thrMax, threads);
            thrSum += threads;
        }
        if (alive == 0)
            fdMin = thrMin = 0;
        emitLine(QByteArray("proc ") + QByteArray::number(alive) + ' ' + QByteArray::number(fdMin) +
                 ' ' + QByteArray::number(fdMax) + ' ' + QByteArray::number(fdSum) + ' ' +
                 QByteArray::number(thrMin) + ' ' + QByteArray::number(thrMax) + ' ' +
                 QByteArray::number(thrSum));
    }

    void killAll()
    {
        for (Member& m : m_members) {
            if (m.process && m.process->state() != QProcess::NotRunning)
                m.process->kill();
        }
    }

    QString m_daemon;
    QString m_work;
    int m_count;
    int m_staggerMs;
    int m_logLevel;
    std::vector<Member> m_members;
    QTimer m_sampler;
    QTimer m_linker;
    QTimer m_signals;
    QTimer m_reaper;
    bool m_stopping = false;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription("Main-application stand-in for a fleet of d627 daemons.");
    parser.addHelpOption();
    const QCommandLineOption daemon("daemon", "Path of the d627 binary.", "path");
    const QCommandLineOption count("count", "Number of daemons.", "n", "20");
    const QCommandLineOption work("work", "Folder for the daemons' homes and temp folders.", "dir");
    const QCommandLineOption stagger("stagger-ms", "Pause between two daemon starts.", "ms", "50");
    const QCommandLineOption logLevel("loglevel", "Log threshold sent to the daemons.", "n", "0");
    parser.addOptions({daemon, count, work, stagger, logLevel});
    parser.process(app);
    if (!parser.isSet(daemon) || !parser.isSet(work)) {
        std::fprintf(stderr, "bench_fleet_apps: --daemon and --work are needed\n");
        return 2;
    }

    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    Fleet fleet(parser.value(daemon), QDir(parser.value(work)).absolutePath(),
                parser.value(count).toInt(), parser.value(stagger).toInt(),
                parser.value(logLevel).toInt());

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, &fleet, [&] {
        char chunk[256];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            input.setEnabled(false);
            return;
        }
        pending.append(chunk, int(n));
        if (pending.contains("quit"))
            fleet.stop();
    });
    fleet.start();
    return QCoreApplication::exec();
}
