// SPDX-License-Identifier: Apache-2.0
// libFuzzer entry for the one target of targets.cpp named by D627_FUZZ_TARGET at build time.
#include "targets.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const FuzzTarget* target = [] {
        const FuzzTarget* found = findFuzzTarget(D627_FUZZ_TARGET);
        if (!found) {
            std::fprintf(stderr, "no fuzz target %s\n", D627_FUZZ_TARGET);
            std::abort();
        }
        return found;
    }();
    return target->run(data, size);
}
