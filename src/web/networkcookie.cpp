// SPDX-License-Identifier: Apache-2.0
#include "networkcookie.h"

NetworkCookie::NetworkCookie(QObject* parent) : QNetworkCookieJar(parent) {}

NetworkCookie::~NetworkCookie() = default;

QList<QNetworkCookie> NetworkCookie::getCookies() const
{
    return allCookies();
}

void NetworkCookie::setCookies(const QList<QNetworkCookie>& cookies)
{
    setAllCookies(cookies);
}
