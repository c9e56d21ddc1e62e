#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QString>

namespace entry {
// <temp dir>/<application name>_<instance id>-lockfile
QString lockFilePath();

// Takes the single-instance lock and runs the adapter's event loop. After the teardown (adapter,
// then lock file, then application object) it ends the process with the loop's exit code at
// once, without exit-time destructors, so that nothing is torn down under the client thread.
// A second instance prints who holds the lock and ends with 0.
[[noreturn]] int run(int argc, char** argv);
} // namespace entry
