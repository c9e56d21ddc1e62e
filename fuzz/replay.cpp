// SPDX-License-Identifier: Apache-2.0
// Replays every corpus file through its fuzz target with the ordinary compiler, so that each
// test run checks the inputs that fuzzing kept or that once found a fault.
// Usage: fuzz_replay [corpus-folder]   (default: the source tree's fuzz/corpus)
#include "targets.h"

#include <QDir>
#include <QFile>
#include <cstdio>

int main(int argc, char** argv)
{
    const QDir root(QString::fromLocal8Bit(argc > 1 ? argv[1] : D627_CORPUS_DIR));
    for (const FuzzTarget* target = fuzzTargets(); target->name; ++target) {
        const QDir dir(root.filePath(QString::fromLatin1(target->name)));
        const QStringList names = dir.entryList(QDir::Files, QDir::Name);
        if (names.isEmpty()) {
            std::fprintf(stderr, "%s: no corpus in %s\n", target->name, qPrintable(dir.path()));
            return 1;
        }
        for (const QString& name : names) {
            QFile file(dir.filePath(name));
            if (!file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(file.fileName()));
                return 1;
            }
            const QByteArray input = file.readAll();
            std::fprintf(stderr, "%s/%s\n", target->name, qPrintable(name));
            target->run(reinterpret_cast<const uint8_t*>(input.constData()),
                        static_cast<size_t>(input.size()));
        }
        std::printf("%s: %d inputs\n", target->name, static_cast<int>(names.size()));
    }
    return 0;
}
