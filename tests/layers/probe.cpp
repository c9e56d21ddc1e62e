// SPDX-License-Identifier: Apache-2.0
// One include, named by the build (D627_PROBE_HEADER), from a file that links one layer: it
// compiles when the header is of that layer or a lower one, and fails when it is of a higher one.
#include D627_PROBE_HEADER
