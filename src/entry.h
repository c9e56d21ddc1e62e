#pragma once

#include <QString>

namespace entry {
// <temp dir>/<application name>_<instance id>-lockfile
QString lockFilePath();

// Takes the single-instance lock, runs the adapter's event loop and returns the exit code.
// A second instance prints who holds the lock and returns 0.
int run(int argc, char** argv);
} // namespace entry
