// SPDX-License-Identifier: Apache-2.0
// Test helper: takes a QLockFile on the path given as its argument, prints "locked" and
// holds the lock until its standard input closes or it is killed.
#include <QCoreApplication>
#include <QLockFile>
#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        return 2;
    QLockFile lock(QString::fromLocal8Bit(argv[1]));
    if (!lock.tryLock(5000))
        return 1;
    std::printf("locked\n");
    std::fflush(stdout);
    char buffer[64];
    while (std::fgets(buffer, sizeof buffer, stdin)) {
    }
    return 0;
}
