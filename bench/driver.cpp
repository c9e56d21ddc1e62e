// SPDX-License-Identifier: Apache-2.0
// bench_driver: plays the daemon's surroundings for bench/run and measures the daemon beside the
// floor programs (bench/floor.cpp). One process holds the service stand-ins (address and status
// service on 127.0.0.1:18627, push server on :18628, the ports the bench build compiles in) and
// the main application's end of the local link, so every moment is stamped on one monotonic clock.
// bench/run starts each mode in a private network namespace, so the fixed ports never clash.
//
//   bench_driver footprint --seconds S   memory, threads, wake-ups and CPU beside both floors
//   bench_driver latency   --count N     notice -> membership refresh, beside the tick floor
//   bench_driver growth    --count N --avatars A --table FILE   drop-and-reconnect cycles
//   bench_driver startup   --count N     exec -> local server accepting; login -> query frame
// Common: --daemon PATH --floor PATH --work DIR. Results are lines "<key> <values...>" on stdout.
#include "httpstub.h"
#include "jsonstream.h"
#include "link/communication.h"
#include "pushstub.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QRandomGenerator>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <unistd.h>
#include <vector>

namespace {

QElapsedTimer g_clock;
double nowMs()
{
    return double(g_clock.nsecsElapsed()) / 1e6;
}

// Runs the event loop until `done` holds or `timeoutMs` passes; false on time-out.
bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    const double end = nowMs() + timeoutMs;
    while (!done()) {
        if (nowMs() > end)
            return false;
        QEventLoop loop;
        QTimer::singleShot(2, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

void pause(int ms)
{
    waitUntil([] { return false; }, ms);
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t i =
        std::min(values.size() - 1, size_t(std::lround(p * double(values.size() - 1))));
    return values[i];
}

double median(const std::vector<double>& values)
{
    return percentile(values, 0.5);
}

void printDistribution(const char* key, const std::vector<double>& values)
{
    std::printf("%s %.1f %.1f %.1f %d\n", key, percentile(values, 0.5), percentile(values, 0.99),
                values.empty() ? 0.0 : *std::max_element(values.begin(), values.end()),
                int(values.size()));
    std::fflush(stdout);
}

// One look at a process in /proc.
struct Sample
{
    double rssKb = 0;
    int threads = 0;
    int fds = 0;
    qint64 switches = 0; // voluntary + involuntary context switches of all threads
    qint64 cpuTicks = 0; // user + system
};

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

qint64 statusField(const QByteArray& status, const QByteArray& name)
{
    const int at = status.indexOf("\n" + name + ":");
    if (at < 0)
        return 0;
    const int end = status.indexOf('\n', at + 1);
    return status.mid(at + name.size() + 2, end - at - name.size() - 2)
        .trimmed()
        .split(' ')[0]
        .toLongLong();
}

Sample sample(qint64 pid)
{
    Sample s;
    const QString base = QString("/proc/%1").arg(pid);
    const QByteArray status = "\n" + readFile(base + "/status");
    s.rssKb = double(statusField(status, "VmRSS"));
    s.threads = int(statusField(status, "Threads"));
    s.fds = int(QDir(base + "/fd").entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size());
    const QStringList tasks = QDir(base + "/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& task : tasks) {
        const QByteArray t = "\n" + readFile(base + "/task/" + task + "/status");
        s.switches += statusField(t, "voluntary_ctxt_switches") +
                      statusField(t, "nonvoluntary_ctxt_switches");
    }
    const QByteArray stat = readFile(base + "/stat");
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    if (fields.size() > 12)
        s.cpuTicks = fields[11].toLongLong() + fields[12].toLongLong(); // utime, stime
    return s;
}

// Resident kB of the cipher library (the stand-in and its libsodium) and of LZ4: what the
// daemon must load beyond Qt, since the protocol seals its frames and compresses its answers.
double libraryRssKb(qint64 pid)
{
    double kb = 0;
    bool counted = false;
    const QList<QByteArray> lines = readFile(QString("/proc/%1/smaps").arg(pid)).split('\n');
    for (const QByteArray& line : lines) {
        const QByteArray first = line.left(line.indexOf(' '));
        if (first.contains('-') && !first.endsWith(':')) // a mapping's header line
            counted =
                line.contains("libec627") || line.contains("libsodium") || line.contains("liblz4");
        else if (counted && line.startsWith("Rss:"))
            kb += line.mid(4).trimmed().split(' ')[0].toDouble();
    }
    return kb;
}

// The remote services and their stamps.
class Services : public QObject
{
public:
    HttpStub http;
    PushStub push;
    QJsonArray pending;   // items for the next first query answer (avatar changes)
    int connections = 0;  // push connections accepted
    int firstQueries = 0; // first queries of a connection received
    int firstAnswers = 0; // answers to them sent
    double firstQueryMs = 0;
    double firstAnswerMs = 0;
    int statusChecks = 0; // status requests answered
    double statusAnsweredMs = 0;

    bool start()
    {
        http.route("/get_tcp_server", [this](const HttpStubRequest&) {
            return HttpStubResponse::json("{\"state\":1,\"data\":{\"server\":[\"" + push.address() +
                                          "\"]}}");
        });
        http.route("/app/1.0/linux/5.0.1/check/sso", [this](const HttpStubRequest&) {
            statusAnsweredMs = nowMs();
            ++statusChecks;
            return HttpStubResponse::json("{\"state\":0}");
        });
        push.setRequestHandler([this](const PushFrame& frame) {
            QJsonArray list;
            if (frame.isQuery() && frame.requestIndex == 0) {
                list = pending;
                pending = QJsonArray();
                m_answerIsFirst = true;
            }
            return QJsonDocument(QJsonObject{{"code", 0}, {"data", QJsonObject{{"list", list}}}})
                .toJson(QJsonDocument::Compact);
        });
        connect(&push, &PushStub::clientConnected, this, [this](int) { ++connections; });
        connect(&push, &PushStub::frameReceived, this, [this](const PushFrame& frame) {
            if (frame.isQuery() && frame.requestIndex == 0) {
                firstQueryMs = nowMs();
                ++firstQueries;
            }
        });
        connect(&push, &PushStub::answerSent, this, [this](int, quint32, const QByteArray&, bool) {
            if (m_answerIsFirst) {
                firstAnswerMs = nowMs();
                ++firstAnswers;
                m_answerIsFirst = false;
            }
        });
        return push.listen(18628) && http.listen(18627);
    }

private:
    bool m_answerIsFirst = false;
};

// The main application's end of the local link.
class MainApp : public QObject
{
public:
    QLocalSocket socket;
    int vipCount = 0;
    int faceCount = 0;
    double vipMs = 0;
    double faceMs = 0;

    MainApp()
    {
        connect(&socket, &QLocalSocket::readyRead, this, [this] {
            const double at = nowMs();
            m_buffer += socket.readAll();
            for (const QByteArray& text : takeJsonObjects(m_buffer)) {
                const QJsonObject object = QJsonDocument::fromJson(text).object();
                if (object.contains("vip_level")) {
                    vipMs = at;
                    ++vipCount;
                }
                if (object.contains("user_face")) {
                    faceMs = at;
                    ++faceCount;
                }
            }
        });
    }

    bool connectTo(const QString& name, int timeoutMs)
    {
        return waitUntil(
            [&] {
                socket.connectToServer(name);
                if (socket.state() == QLocalSocket::ConnectedState)
                    return true;
                socket.abort();
                return false;
            },
            timeoutMs);
    }

    void login()
    {
        const QJsonObject login{{"user_id", "10001"},
                                {"cookie", "USERSESSIONID=bench;PHPSESSID=bench;"},
                                {"setting", 0},
                                {"user_agent", "bench/1.0"},
                                {"pid", int(QCoreApplication::applicationPid())},
                                {"lockfile", QDir::tempPath() + "/bench-mainapp.lock"},
                                {"loglevel", 0}};
        send(QJsonDocument(login).toJson(QJsonDocument::Compact));
    }

    void send(const QByteArray& bytes)
    {
        socket.write(bytes);
        socket.flush();
    }

private:
    QByteArray m_buffer;
};

struct Options
{
    QString mode;
    QString daemon;
    QString floor;
    QString work;
    QString table;
    int count = 0;
    int avatars = 0;
    int seconds = 30;
};

QProcess* startProcess(const Options& o, const QString& program, const QStringList& args,
                       const QString& logName)
{
    auto* process = new QProcess;
    process->setStandardOutputFile(o.work + "/" + logName + ".out");
    process->setStandardErrorFile(o.work + "/" + logName + ".err");
    process->start(program, args);
    process->waitForStarted(10000);
    return process;
}

void stopProcess(QProcess* process)
{
    process->terminate();
    if (!process->waitForFinished(5000)) {
        process->kill();
        process->waitForFinished(5000);
    }
    delete process;
}

// Daemon started, main application connected and logged in, running step reached.
struct Session
{
    QProcess* daemon = nullptr;
    MainApp app;

    bool open(const Options& o, const Services& services)
    {
        daemon = startProcess(o, o.daemon, {}, "daemon");
        if (!app.connectTo(QString::fromLatin1(kInstanceId), 10000))
            return false;
        const int before = services.firstAnswers;
        app.login();
        if (!waitUntil([&] { return services.firstAnswers > before; }, 20000))
            return false;
        pause(1500); // step 3 starts the heartbeat 1 s after the answer: running
        return true;
    }

    void close()
    {
        app.send(R"({"exit":true})");
        if (!daemon->waitForFinished(5000))
            daemon->kill();
        stopProcess(daemon);
    }
};

int footprint(const Options& o, Services& services)
{
    Session session;
    if (!session.open(o, services))
        return 1;
    const QString url = services.http.baseUrl() + "/get_tcp_server";
    const QString push = services.push.address();
    struct Subject
    {
        const char* name;
        qint64 pid;
        QProcess* process;
    };
    std::vector<Subject> subjects{{"d627", session.daemon->processId(), nullptr}};
    const std::vector<std::pair<const char*, QStringList>> floors{
        {"bare", {"bare", "--listen", "bench-floor-bare"}},
        {"network", {"network", "--listen", "bench-floor-net", "--url", url, "--push", push}},
        {"network_noplugins",
         {"network", "--listen", "bench-floor-np", "--url", url, "--push", push, "--no-plugins"}}};
    for (const auto& floor : floors) {
        QProcess* p = startProcess(o, o.floor, floor.second, floor.first);
        subjects.push_back({floor.first, p->processId(), p});
    }
    const int before = services.connections;
    waitUntil([&] { return services.connections >= before + 2; }, 10000);
    // Each local server gets its main application, as the daemon has one.
    std::vector<QLocalSocket*> links;
    for (const char* name : {"bench-floor-bare", "bench-floor-net", "bench-floor-np"}) {
        auto* link = new QLocalSocket;
        waitUntil(
            [&] {
                link->connectToServer(name);
                // cppcheck-suppress knownConditionTrueFalse ; the event loop changes it
                return link->state() == QLocalSocket::ConnectedState || (link->abort(), false);
            },
            5000);
        links.push_back(link);
    }
    pause(3000);

    std::vector<Sample> first;
    first.reserve(subjects.size());
    for (const Subject& s : subjects)
        first.push_back(sample(s.pid));
    std::vector<std::vector<double>> rss(subjects.size());
    const double start = nowMs();
    while (nowMs() - start < o.seconds * 1000.0) {
        pause(1000);
        for (size_t i = 0; i < subjects.size(); ++i)
            rss[i].push_back(sample(subjects[i].pid).rssKb);
    }
    const double seconds = (nowMs() - start) / 1000.0;
    const double tick = double(sysconf(_SC_CLK_TCK));
    for (size_t i = 0; i < subjects.size(); ++i) {
        const Sample last = sample(subjects[i].pid);
        std::printf("fp %s %.0f %d %.2f %.1f %d %.0f\n", subjects[i].name, median(rss[i]),
                    last.threads, double(last.switches - first[i].switches) / seconds,
                    double(last.cpuTicks - first[i].cpuTicks) * 1000.0 / tick, last.fds,
                    libraryRssKb(subjects[i].pid));
    }
    std::fflush(stdout);
    for (QLocalSocket* link : links)
        delete link;
    for (const Subject& s : subjects) {
        if (s.process)
            stopProcess(s.process);
    }
    session.close();
    return 0;
}

int latency(const Options& o, Services& services)
{
    Session session;
    if (!session.open(o, services))
        return 1;
    QProcess* tick = startProcess(o, o.floor, {"bare", "--tick", QString::number(o.count)}, "tick");
    std::vector<double> delays;
    std::vector<double> chains; // notice sent -> status check answered: the daemon's own part
    for (int i = 0; i < o.count; ++i) {
        // Random gaps over two whole tick periods spread the notices evenly over the phase of
        // the 200 ms tick (each refresh arrives on a tick).
        pause(250 + int(QRandomGenerator::global()->bounded(400)));
        const int before = session.app.vipCount;
        const int checks = services.statusChecks;
        const double sent = nowMs();
        services.push.sendNotice(quint32(1000 + i));
        // cppcheck-suppress knownConditionTrueFalse ; the event loop changes it
        if (waitUntil([&] { return session.app.vipCount > before; }, 5000)) {
            delays.push_back(session.app.vipMs - sent);
            if (services.statusChecks > checks)
                chains.push_back(services.statusAnsweredMs - sent);
        }
    }
    printDistribution("lat notice", delays);
    printDistribution("lat chain", chains);
    tick->waitForFinished(120000);
    const QByteArray floorLine = readFile(o.work + "/tick.out").trimmed();
    std::printf("lat %s\n", floorLine.isEmpty() ? "tick 0 0 0 0" : floorLine.constData());
    std::fflush(stdout);
    delete tick;
    session.close();
    return 0;
}

int growth(const Options& o, Services& services)
{
    Session session;
    if (!session.open(o, services))
        return 1;
    const qint64 pid = session.daemon->processId();
    QFile table(o.table);
    table.open(QIODevice::WriteOnly | QIODevice::Truncate);
    table.write("# cycle rss_kb fds threads\n");
    std::vector<double> rss;
    std::vector<Sample> samples;
    std::vector<double> reconnects;
    std::vector<double> avatars;
    double lastDrop = -1e9;
    for (int cycle = 0;; ++cycle) {
        const Sample s = sample(pid);
        samples.push_back(s);
        table.write(
            QString("%1 %2 %3 %4\n").arg(cycle).arg(s.rssKb).arg(s.fds).arg(s.threads).toUtf8());
        table.flush();
        if (cycle == o.count)
            break;
        // A quiet spell of more than 5 whole seconds since the last reconnection keeps the
        // back-off at 1 s; the connection has been in its running step for over a second.
        // The random part spreads the drops over the phase of the 200 ms tick.
        const int quiet = 6100 + int(QRandomGenerator::global()->bounded(200));
        waitUntil([&] { return nowMs() - lastDrop > quiet; }, 10000);
        const bool avatar = cycle < o.avatars;
        if (avatar) {
            services.pending.append(QJsonObject{
                {"t", 599999},
                {"data",
                 QJsonObject{{"t", 138}, {"face_l", QString("http://a/%1.png").arg(cycle)}}}});
        }
        const int answers = services.firstAnswers;
        const int faces = session.app.faceCount;
        lastDrop = nowMs();
        services.push.dropConnections();
        if (!waitUntil([&] { return services.firstAnswers > answers; }, 60000)) {
            std::fprintf(stderr, "no reconnection in cycle %d\n", cycle);
            break;
        }
        reconnects.push_back(services.firstAnswerMs - lastDrop);
        // cppcheck-suppress knownConditionTrueFalse ; the event loop changes it
        if (avatar && waitUntil([&] { return session.app.faceCount > faces; }, 5000))
            avatars.push_back(session.app.faceMs - services.firstAnswerMs);
        pause(1500);
    }
    // Least-squares slope of resident memory over the cycles after the first tenth (warm-up).
    const size_t from = std::max<size_t>(1, samples.size() / 10);
    double sx = 0, sy = 0, sxx = 0, sxy = 0, n = 0;
    for (size_t i = from; i < samples.size(); ++i) {
        sx += double(i);
        sy += samples[i].rssKb;
        sxx += double(i) * double(i);
        sxy += double(i) * samples[i].rssKb;
        n += 1;
    }
    const double slope = n > 1 ? (n * sxy - sx * sy) / (n * sxx - sx * sx) : 0;
    const Sample& a = samples.front();
    const Sample& b = samples.back();
    std::printf("grow %d %.3f %.0f %.0f %d %d %d %d %.2f\n", int(samples.size()) - 1, slope,
                a.rssKb, b.rssKb, a.fds, b.fds, a.threads, b.threads, median(reconnects) / 1000.0);
    printDistribution("lat avatar", avatars);
    session.close();
    return 0;
}

// Starts `program` and returns the milliseconds until its local server `name` accepts.
double timeToAccept(const Options& o, const QString& program, const QStringList& args,
                    const QString& name, QProcess*& process, MainApp& app)
{
    const double start = nowMs();
    process = startProcess(o, program, args, "start");
    if (!app.connectTo(name, 10000))
        return -1;
    return nowMs() - start;
}

int startup(const Options& o, Services& services)
{
    std::vector<double> daemonMs, floorMs, loginMs;
    for (int i = 0; i < o.count; ++i) {
        {
            MainApp app;
            QProcess* floor = nullptr;
            const QString lock = QDir::tempPath() + QString("/bench-floor-%1.lock").arg(i);
            const double ms =
                timeToAccept(o, o.floor, {"bare", "--listen", "bench-floor-start", "--lock", lock},
                             "bench-floor-start", floor, app);
            if (ms >= 0)
                floorMs.push_back(ms);
            stopProcess(floor);
        }
        MainApp app;
        QProcess* daemon = nullptr;
        const double ms = timeToAccept(o, o.daemon, {}, kInstanceId, daemon, app);
        if (ms >= 0) {
            daemonMs.push_back(ms);
            const int before = services.firstQueries;
            const double sent = nowMs();
            app.login();
            if (waitUntil([&] { return services.firstQueries > before; }, 20000))
                loginMs.push_back(services.firstQueryMs - sent);
            app.send(R"({"exit":true})");
            daemon->waitForFinished(5000);
        }
        stopProcess(daemon);
    }
    // Login to query: three 1000 ms steps are paced (first step, after connecting, after the
    // login answer); the rest is the address lookup, connecting, both encodings and the
    // stand-in's answers.
    std::printf("start %.1f %.1f %.1f %.1f %d\n", median(daemonMs), median(floorMs),
                median(loginMs), median(loginMs) - 3000.0, int(daemonMs.size()));
    std::fflush(stdout);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    g_clock.start();
    Options o;
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        const QString value = i + 1 < argc ? QString::fromLocal8Bit(argv[i + 1]) : QString();
        if (!arg.startsWith("--")) {
            o.mode = arg;
            continue;
        }
        ++i;
        if (arg == "--daemon")
            o.daemon = value;
        else if (arg == "--floor")
            o.floor = value;
        else if (arg == "--work")
            o.work = value;
        else if (arg == "--table")
            o.table = value;
        else if (arg == "--count")
            o.count = value.toInt();
        else if (arg == "--avatars")
            o.avatars = value.toInt();
        else if (arg == "--seconds")
            o.seconds = value.toInt();
    }
    // The daemon, the floors and this process share the temporary folder (local server names).
    QDir().mkpath(o.work + "/tmp");
    qputenv("TMPDIR", QFile::encodeName(o.work + "/tmp"));
    qputenv("HOME", QFile::encodeName(o.work));
    QCoreApplication app(argc, argv);

    Services services;
    if (!services.start()) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:18627/18628\n");
        return 1;
    }
    int code = 2;
    if (o.mode == "footprint")
        code = footprint(o, services);
    else if (o.mode == "latency")
        code = latency(o, services);
    else if (o.mode == "growth")
        code = growth(o, services);
    else if (o.mode == "startup")
        code = startup(o, services);
    if (code != 0)
        std::fprintf(stderr, "bench_driver %s failed (see %s)\n", qPrintable(o.mode),
                     qPrintable(o.work));
    return code;
}
