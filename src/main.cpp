// SPDX-License-Identifier: Apache-2.0
#include "entry.h"

int main(int argc, char** argv)
{
    return entry::run(argc, argv);
}
