#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QList>
#include <QNetworkCookie>
#include <QNetworkCookieJar>

// Cookie jar installed on each request so that the cookies the server set can be read back.
// It only opens the jar's protected cookie list.
class NetworkCookie : public QNetworkCookieJar
{
    Q_OBJECT
public:
    explicit NetworkCookie(QObject* parent = nullptr);
    ~NetworkCookie() override;

    QList<QNetworkCookie> getCookies() const;
    void setCookies(const QList<QNetworkCookie>& cookies);
};
