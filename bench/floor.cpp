// SPDX-License-Identifier: Apache-2.0
// The floor: the least a Qt 5 process can do to play the daemon's part, for side-by-side
// comparison with the real daemon (bench/run starts them in the same minute).
//
//   bench_floor bare    [--listen NAME] [--lock PATH] [--seconds S] [--tick N]
//   bench_floor network [--listen NAME] [--seconds S] --url URL --push HOST:PORT [--no-plugins]
//
// bare: the event loop of the main thread with the two timers the daemon must run (200 ms report
// tick, 1000 ms alive check), a local server, and a second thread with its own event loop and the
// 60 s heartbeat timer. Nothing else. --lock: first takes a single-instance lock file, as the
// daemon must before it listens (for the start-up comparison).
// network: the same, plus in the second thread one QNetworkAccessManager request (a POST like
// the address lookup; the manager is deleted afterwards, as the daemon does) and one held TCP
// connection. --no-plugins clears the library paths first, so Qt loads no plugins at all.
// --tick N (bare only): the second thread marks N events at random moments (100-500 ms apart);
// the 200 ms tick picks each up. Prints the delays (event to tick) as "tick p50 p99 max n" in ms:
// the tick's own share of every latency the main application sees.
// The program ends after --seconds (default: run until killed) or after its N tick events.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLocalServer>
#include <QLockFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <vector>

namespace {

QElapsedTimer g_clock;
std::atomic<qint64> g_eventNs{-1}; // moment of the pending tick event, -1: none

// The second thread: its own event loop with the heartbeat timer, and optionally the network work
// or the random tick events.
class Worker : public QThread
{
public:
    QString url;
    QString push;
    int tickEvents = 0;

protected:
    void run() override
    {
        QTimer heartbeat;
        heartbeat.start(60000);
        QTcpSocket socket;
        if (!url.isEmpty()) {
            {
                QNetworkAccessManager manager;
                QNetworkRequest request{QUrl(url)};
                request.setHeader(QNetworkRequest::ContentTypeHeader,
                                  "application/x-www-form-urlencoded;charset=UTF-8");
                QNetworkReply* reply = manager.post(request, QByteArray());
                QEventLoop wait;
                connect(reply, &QNetworkReply::finished, &wait, &QEventLoop::quit);
                wait.exec();
                reply->deleteLater();
            }
            const int colon = push.lastIndexOf(':');
            socket.connectToHost(push.left(colon), quint16(push.mid(colon + 1).toUInt()));
            socket.waitForConnected(30000);
        }
        QTimer events;
        if (tickEvents > 0) {
            events.setSingleShot(true);
            connect(&events, &QTimer::timeout, [&events] {
                g_eventNs.store(g_clock.nsecsElapsed());
                events.start(100 + int(QRandomGenerator::global()->bounded(400)));
            });
            events.start(300);
        }
        exec();
    }
};

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    const size_t i =
        std::min(values.size() - 1, size_t(std::lround(p * double(values.size() - 1))));
    return values[i];
}

QString option(const QStringList& args, const QString& name, const QString& fallback = {})
{
    const int i = args.indexOf(name);
    return i >= 0 && i + 1 < args.size() ? args.at(i + 1) : fallback;
}

} // namespace

int main(int argc, char** argv)
{
    g_clock.start();
    const QStringList args = [&] {
        QStringList list;
        for (int i = 1; i < argc; ++i)
            list << QString::fromLocal8Bit(argv[i]);
        return list;
    }();
    if (args.contains("--no-plugins"))
        QCoreApplication::setLibraryPaths(QStringList());
    QCoreApplication app(argc, argv);

    QLockFile lock(option(args, "--lock"));
    if (args.contains("--lock") && !lock.tryLock(100))
        return 1;

    QLocalServer server;
    const QString name = option(args, "--listen");
    if (!name.isEmpty()) {
        QLocalServer::removeServer(name);
        server.listen(name);
    }
    std::vector<QLocalSocket*> peers; // accepted links are kept, as the daemon keeps its one
    QObject::connect(&server, &QLocalServer::newConnection,
                     [&] { peers.push_back(server.nextPendingConnection()); });

    Worker worker;
    if (args.value(0) == "network") {
        worker.url = option(args, "--url");
        worker.push = option(args, "--push");
    }
    worker.tickEvents = option(args, "--tick", "0").toInt();

    std::vector<double> delays;
    QTimer alive;
    alive.start(1000);
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] {
        const qint64 event = g_eventNs.exchange(-1);
        if (event < 0)
            return;
        delays.push_back(double(g_clock.nsecsElapsed() - event) / 1e6);
        if (int(delays.size()) >= worker.tickEvents)
            QCoreApplication::quit();
    });
    tick.start(200);

    const int seconds = option(args, "--seconds", "0").toInt();
    if (seconds > 0)
        QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);

    worker.start();
    const int code = QCoreApplication::exec();
    worker.quit();
    worker.wait();
    if (!delays.empty()) {
        std::printf("tick %.1f %.1f %.1f %d\n", percentile(delays, 0.5), percentile(delays, 0.99),
                    *std::max_element(delays.begin(), delays.end()), int(delays.size()));
    }
    return code;
}
