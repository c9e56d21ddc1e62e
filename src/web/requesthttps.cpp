// SPDX-License-Identifier: Apache-2.0
#include "requesthttps.h"

#include "constants.h"
#include "core/constants.h"
#include "core/datacenter.h"
#include "core/log.h"
#include "core/sync.h"
#include "networkcookie.h"

#include <QDebug>
#include <QHttpMultiPart>
#include <QMutex>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QVariant>
#include <vector>

namespace {
const char* const kContentType = "Content-Type";
const char* const kFormContentType = "application/x-www-form-urlencoded;charset=UTF-8";
// Session cookies that are folded back into the login record.
const char* const kKeptCookies[] = {"USERSESSIONID", "PHPSESSID", "acw_tc"};
const char* const kGateClosed = "network access closed";
// The rc environment's host: the first ".627." becomes ".627rc.".
const char* const kRcHostFrom = ".627.";
const char* const kRcHostTo = ".627rc.";
constexpr int kCookieParts = 2; // name=value

// The network gate: once closed (the process is ending), no access manager is made or
// destroyed and no request is issued. Held while a manager is made, destroyed or used to start
// a request, so that closing it waits for those to end.
QMutex g_gateMutex;
bool g_gateClosed = false;
// Managers left behind the closed gate. They stay reachable from here until the process ends,
// so that a leak checker does not count them (and what hangs on them) as lost.
std::vector<QNetworkAccessManager*> g_leftManagers;
} // namespace

bool isUrlProtocol(const QUrl& url, const QString& scheme)
{
    return url.scheme().compare(scheme, Qt::CaseInsensitive) == 0;
}

CRequestHttps::CRequestHttps() : m_manager(nullptr), m_request(new QNetworkRequest), m_abort(false)
{
    const Sync gate(&g_gateMutex);
    if (!g_gateClosed)
        m_manager = new QNetworkAccessManager;
}

CRequestHttps::~CRequestHttps()
{
    {
        // The manager deletes the jar it owns. Behind a closed gate it is left to the end of
        // the process: its destructor reaches Qt's network configuration manager, which the
        // application object is tearing down.
        const Sync gate(&g_gateMutex);
        if (!g_gateClosed)
            delete m_manager;
        else if (m_manager)
            g_leftManagers.push_back(m_manager);
    }
    delete m_request;
}

void CRequestHttps::closeNetworkGate()
{
    const Sync gate(&g_gateMutex);
    g_gateClosed = true;
}

int CRequestHttps::SendRequest(QString url, int method, QMap<QString, QString> headers,
                               const QByteArray& body, QByteArray& reply)
{
    Sync gate(&g_gateMutex);
    if (g_gateClosed || !m_manager) {
        reply = QByteArray(kGateClosed);
        return -1;
    }
    const bool useTls = ConfigUrl(url);
    headers["User-Agent"] = DataCenter::getInstance()->GetUserAgent();
    if (method == kHttpPost && !headers.contains(kContentType))
        headers[kContentType] = kFormContentType;
    setCookie(headers);
    m_request->setUrl(QUrl(url));
    // Deprecated in favour of RedirectPolicyAttribute, but it is the switch this client uses.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    m_request->setAttribute(QNetworkRequest::FollowRedirectsAttribute, true);
    QT_WARNING_POP
    if (useTls)
        config();

    // A fresh, empty jar per call; the manager takes it over and frees the previous one.
    m_cookies.clear();
    m_jar = new NetworkCookie;
    m_manager->setCookieJar(m_jar);

    QNetworkReply* networkReply = nullptr;
    switch (method) {
    case kHttpGet:
        networkReply = m_manager->get(*m_request);
        break;
    case kHttpPost:
        networkReply = m_manager->post(*m_request, body);
        break;
    case kHttpHead:
        networkReply = m_manager->head(*m_request);
        break;
    case kHttpDelete:
        networkReply = m_manager->deleteResource(*m_request);
        break;
    default:
        break;
    }
    if (!networkReply) {
        // No request exists for this code; waiting would never end.
        reply = QByteArray("unsupported request method");
        return -1;
    }
    gate.unlock();

    waitForReply(networkReply);
    if (m_abort)
        return kRequestAbandoned;

    m_cookies = m_jar->getCookies();
    if (networkReply->hasRawHeader("set-cookie")) {
        const QByteArray setCookieValue = networkReply->rawHeader("set-cookie");
        qDebug() << "cookies is " << setCookieValue;
        SetCookieBasedRelyHeader(QString::fromUtf8(setCookieValue.constData()));
    }
    m_eTag = networkReply->header(QNetworkRequest::ETagHeader).toString();
    return ReplyFinishHttpsRequest(networkReply, reply);
}

int CRequestHttps::SendRequest(QString url, int method, QMap<QString, QString> headers,
                               const QByteArray& body, QByteArray& reply,
                               QMap<QString, QString>* formParts)
{
    Sync gate(&g_gateMutex);
    if (g_gateClosed || !m_manager) {
        reply = QByteArray(kGateClosed);
        return -1;
    }
    const bool useTls = ConfigUrl(url);
    headers["User-Agent"] = DataCenter::getInstance()->GetUserAgent();
    setCookie(headers);
    m_request->setUrl(QUrl(url));
    if (useTls)
        config();

    QNetworkReply* networkReply = nullptr;
    if (method == kHttpGet) {
        networkReply = m_manager->get(*m_request);
    } else if (method == kHttpPost) {
        if (formParts) {
            auto* multiPart = new QHttpMultiPart(QHttpMultiPart::FormDataType);
            for (auto it = formParts->constBegin(); it != formParts->constEnd(); ++it) {
                QHttpPart part;
                part.setHeader(QNetworkRequest::ContentDispositionHeader,
                               QString("form-data; name=\"%1\"").arg(it.key()));
                part.setBody(it.value().toLatin1());
                multiPart->append(part);
            }
            networkReply = m_manager->post(*m_request, multiPart);
            // The form must live as long as the upload; it goes with the reply.
            multiPart->setParent(networkReply);
        } else {
            networkReply = m_manager->post(*m_request, body);
        }
    }
    if (!networkReply) {
        reply = QByteArray("unsupported request method");
        return -1;
    }
    gate.unlock();

    waitForReply(networkReply);
    return ReplyFinishHttpsRequest(networkReply, reply);
}

void CRequestHttps::waitForReply(QNetworkReply* reply)
{
    // The string syntax is the one form of the error signal that connects without a warning.
    connect(reply, SIGNAL(finished()), &m_loop, SLOT(quit()));
    connect(reply, SIGNAL(error(QNetworkReply::NetworkError)), &m_loop, SLOT(quit()));
    // A reply that errors first and finishes right after quits the loop twice; that is harmless.
    // exec() forgets a quit() that came before it, so a reply that is already finished must not
    // be waited for.
    if (!reply->isFinished())
        m_loop.exec();
    // Cut the reply off from the loop: if it finishes later (after its error), that late signal
    // must not end the wait of the next request made with this object.
    disconnect(reply, nullptr, &m_loop, nullptr);
}

void CRequestHttps::Abort()
{
    m_abort = true;
    m_loop.quit();
}

bool CRequestHttps::ConfigUrl(QString& url)
{
    QUrl qurl(url);
    if (!qurl.isValid())
        return false;

    DataCenter* data = DataCenter::getInstance();
    if (data->isRcEnvironment()) {
        QString host = qurl.host(QUrl::FullyDecoded);
        const QLatin1String from(kRcHostFrom);
        const int at = host.indexOf(from);
        if (at >= 0) {
            host.replace(at, from.size(), QLatin1String(kRcHostTo));
            qurl.setHost(host, QUrl::DecodedMode);
        }
    } else if (data->isHttpsRequest() && isUrlProtocol(qurl, "http")) {
        qurl.setScheme("https");
    }
    url = qurl.toString();
    return isUrlProtocol(qurl, "https");
}

int CRequestHttps::ReplyFinishHttpsRequest(QNetworkReply* reply, QByteArray& out)
{
    int result = -1;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid()) {
        out = reply->readAll();
        result = status.toInt() == kHttpStatusOk ? 0 : -1;
    } else {
        qDebug() << status.toInt();
        qDebug() << "url is " << reply->url();
        qDebug() << "error is " << reply->error();
        qDebug() << "errors" << reply->errorString();
        out = reply->errorString().toLatin1();
    }
    reply->deleteLater();
    return result;
}

void CRequestHttps::config()
{
    QSslConfiguration sslConfig = m_request->sslConfiguration();
    sslConfig.setPeerVerifyMode(QSslSocket::VerifyNone);
    sslConfig.setProtocol(QSsl::TlsV1SslV3);
    m_request->setSslConfiguration(sslConfig);
}

void CRequestHttps::setCookie(const QMap<QString, QString>& headers)
{
    for (auto it = headers.constBegin(); it != headers.constEnd(); ++it)
        m_request->setRawHeader(it.key().toLatin1(), it.value().toLatin1());
}

bool CRequestHttps::SetCookieValue(QStringList& cookies, const QString& cookie)
{
    const QStringList nameValue = cookie.split("=", Qt::KeepEmptyParts);
    if (nameValue.size() != kCookieParts)
        return false;

    for (int i = 0; i < cookies.size(); ++i) {
        // Prefix test on the name alone, case-sensitive: the first entry that starts with it
        // is the one to update.
        if (!cookies.at(i).startsWith(nameValue.at(0)))
            continue;
        const QStringList entry = cookies.at(i).split("=", Qt::KeepEmptyParts);
        if (entry.size() != kCookieParts)
            return false;
        if (entry.at(1) == nameValue.at(1))
            return false;
        cookies[i] = cookie;
        return true;
    }
    cookies.append(cookie);
    return true;
}

void CRequestHttps::SetCookieBasedRelyHeader(const QString& setCookieHeader)
{
    if (setCookieHeader.isEmpty())
        return;
    const QStringList parts = setCookieHeader.split(";", Qt::KeepEmptyParts);

    CLoginInfor info;
    DataCenter::getInstance()->GetLoginInfor(info);
    QStringList cookies;
    if (!info.cookies.isEmpty())
        cookies = info.cookies.value("cookie").split(";", Qt::KeepEmptyParts);

    // Only the result for the last kept cookie decides whether the record is saved.
    bool changed = false;
    for (const QString& part : parts) {
        for (const char* name : kKeptCookies) {
            if (part.startsWith(QLatin1String(name))) {
                changed = SetCookieValue(cookies, part);
                break;
            }
        }
    }
    if (!changed)
        return;

    QString cookieText;
    for (const QString& entry : qAsConst(cookies)) {
        if (!entry.isEmpty())
            cookieText += entry + ";"; // cppcheck-suppress useStlAlgorithm
    }
    LogManager::getInstance()->Msg(kLogTrace, "cookie changed and cookie is %s",
                                   cookieText.toUtf8().constData());
    info.cookies["cookie"] = cookieText;
    DataCenter::getInstance()->SetLoginInfor(info);
}

QList<QNetworkCookie> CRequestHttps::getCookies()
{
    return m_cookies;
}

QString CRequestHttps::GetETag()
{
    return m_eTag;
}

int CRequestHttps::httpError(QNetworkReply::NetworkError)
{
    return -1;
}

int CRequestHttps::httpsError(QNetworkReply::NetworkError)
{
    return -1;
}
