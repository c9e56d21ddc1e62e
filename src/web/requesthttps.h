#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QByteArray>
#include <QEventLoop>
#include <QList>
#include <QMap>
#include <QNetworkCookie>
#include <QNetworkReply>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>

class QNetworkAccessManager;
class QNetworkRequest;
class NetworkCookie;

// True when the URL's scheme equals `scheme`, ignoring case.
bool isUrlProtocol(const QUrl& url, const QString& scheme);

// One-shot blocking HTTP(S) client. A caller makes it on its own stack, sends one request with
// SendRequest and reads the reply. The wait runs a private QEventLoop on the calling thread
// (the client thread in the daemon), so that thread's other events keep being delivered while
// it waits. The object must be used on the thread that created it.
//
// Method codes (web/constants.h): kHttpGet, kHttpPost, kHttpHead and kHttpDelete (the last two
// in the five-argument overload only). Code 2 and any other code make no request; such a call
// returns -1 at once.
class CRequestHttps : public QObject
{
    Q_OBJECT
public:
    CRequestHttps();
    ~CRequestHttps() override;

    CRequestHttps(const CRequestHttps&) = delete;
    CRequestHttps& operator=(const CRequestHttps&) = delete;

    // Returns 0 for HTTP status 200, -1 for anything else, 1 when the wait was abandoned through
    // m_abort. `reply` gets the body, or the error text when no HTTP answer came.
    int SendRequest(QString url, int method, QMap<QString, QString> headers, const QByteArray& body,
                    QByteArray& reply);
    // Form-capable variant: with method 1 and a non-null `formParts` it posts a multipart form.
    // Adds no Content-Type, installs no cookie jar and never returns 1.
    int SendRequest(QString url, int method, QMap<QString, QString> headers, const QByteArray& body,
                    QByteArray& reply, QMap<QString, QString>* formParts);

    // Rewrites the URL for the rc environment (".627." -> ".627rc." in the host) or, outside it,
    // for HTTPS. Returns true when the resulting scheme is https.
    bool ConfigUrl(QString& url);
    // Classifies a finished reply into `out` and schedules its deletion.
    int ReplyFinishHttpsRequest(QNetworkReply* reply, QByteArray& out);
    // TLS settings: no certificate verification, TLS 1.0 or later.
    void config();
    // Sets every entry as a raw request header.
    void setCookie(const QMap<QString, QString>& headers);

    bool SetCookieValue(QStringList& cookies, const QString& cookie);
    void SetCookieBasedRelyHeader(const QString& setCookieHeader);

    QList<QNetworkCookie> getCookies();
    QString GetETag();

    // Lets a caller abandon a running wait: set the flag, then quit the wait loop.
    void Abort();

    // Called once by the entry, on the main thread, before the application object goes. From
    // then on no access manager is made or destroyed (the destructor leaves its manager to the
    // end of the process) and every request fails at once with -1, as a network failure would.
    // Waits for a manager being made or a request being started on another thread.
    static void closeNetworkGate();

signals:
    void sendHttpsResult(QByteArray);
    void sendHttpsErr(QByteArray);
    void sendHttpResult(QByteArray);
    void sendHttpErr(QByteArray);

public slots:
    int httpError(QNetworkReply::NetworkError);
    int httpsError(QNetworkReply::NetworkError);

private:
    // Runs m_loop until `reply` finishes or reports an error; afterwards the reply can no longer
    // reach the loop, so a late signal cannot end a later wait early.
    void waitForReply(QNetworkReply* reply);

    QNetworkAccessManager* m_manager;
    QNetworkRequest* m_request;
    QList<QNetworkCookie> m_cookies;
    QString m_eTag;
    QEventLoop m_loop;
    bool m_abort;
    // The jar of the current call. The manager owns it (it becomes its parent) and deletes it
    // when the next call installs a new one or when the manager goes.
    NetworkCookie* m_jar = nullptr;
};
