#include "data.h"

CData::CData() : QObject(nullptr) {}

CData::~CData() = default;
