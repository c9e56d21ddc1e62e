#pragma once

#include <QString>

namespace entry {
// Names both the single-instance lock file and the local server the main application
// connects to.
constexpr const char* kInstanceId = "90f5b5e6317542f5aa4beb51d0b9abca2631d3ee";

// <temp dir>/<application name>_<instance id>-lockfile
QString lockFilePath();

// Takes the single-instance lock, runs the adapter's event loop and returns the exit code.
// A second instance prints who holds the lock and returns 0.
int run(int argc, char** argv);
} // namespace entry
