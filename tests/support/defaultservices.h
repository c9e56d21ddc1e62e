#pragma once
// SPDX-License-Identifier: Apache-2.0

// The services a default build talks to: both HTTP services on one fixed loopback port, served by
// the sandbox or by a test's stand-ins. A test that serves them there first makes sure that the
// build was configured for it, so that a build with other addresses never reaches another host.

#include "core/serviceurls.h"

#include <QByteArray>
#include <QtGlobal>

constexpr quint16 kDefaultServicesPort = 18627;

inline bool buildUsesDefaultServices()
{
    const QByteArray base = "http://127.0.0.1:" + QByteArray::number(kDefaultServicesPort) + '/';
    return QByteArray(serviceurls::kSsoStatusUrl).startsWith(base) &&
           QByteArray(serviceurls::kPushAddressUrl).startsWith(base);
}
