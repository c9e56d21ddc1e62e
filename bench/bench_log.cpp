// SPDX-License-Identifier: Apache-2.0
// Log throughput: lines/s for written lines (one and two threads) and for lines that the
// threshold filters out, which is what every call costs when logging is off.
#include "core/datacenter.h"
#include "core/log.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>
#include <cstdio>

namespace {
void measure(const char* name, int threads, int linesPerThread, int level)
{
    QElapsedTimer timer;
    timer.start();
    QList<QThread*> workers;
    for (int t = 0; t < threads; ++t) {
        workers << QThread::create([=] {
            for (int i = 0; i < linesPerThread; ++i)
                LogManager::getInstance()->Msg(level, "bench line %d from %d", i, t);
        });
        workers.last()->start();
    }
    for (QThread* worker : workers) {
        worker->wait();
        delete worker;
    }
    const double seconds = timer.nsecsElapsed() / 1e9;
    std::printf("%-32s %10.0f lines/s\n", name, threads * linesPerThread / seconds);
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    // The debug echo would measure the terminal, not the log.
    qputenv("QT_LOGGING_RULES", "*.debug=false");

    DataCenter::getInstance()->SetLogLevel(3);
    LogManager::getInstance()->init();
    measure("filtered out (level 1 < 3)", 1, 2000000, 1);
    measure("written, 1 thread", 1, 100000, 3);
    measure("written, 2 threads", 2, 50000, 3);
    return 0;
}
