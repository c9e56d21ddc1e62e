#pragma once
// SPDX-License-Identifier: Apache-2.0

// Fuzz entry points, one per reader of outside bytes (targets.cpp).
#include <cstddef>
#include <cstdint>

struct FuzzTarget
{
    const char* name; // also the folder of its corpus: fuzz/corpus/<name>/
    int (*run)(const uint8_t* data, size_t size);
};

// All targets in a fixed order, ended by an entry with a null name.
const FuzzTarget* fuzzTargets();
const FuzzTarget* findFuzzTarget(const char* name);
