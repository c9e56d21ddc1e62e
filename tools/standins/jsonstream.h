#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QByteArray>
#include <QList>

// The local link carries compact JSON objects with no framing, so one read may hold several
// objects, or part of one. Takes the complete objects from the front of `buffer`; an
// incomplete tail stays in it for the next read.
QList<QByteArray> takeJsonObjects(QByteArray& buffer);
