// SPDX-License-Identifier: Apache-2.0
#include "data.h"

CData::CData() : QObject(nullptr) {}

CData::~CData() = default;
