// SPDX-License-Identifier: Apache-2.0
#include "adapter.h"

#include "communication.h"
#include "core/constants.h"
#include "core/datacenter.h"
#include "core/log.h"
#include "threads/constants.h"
#include "threads/threadmanager.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimerEvent>

namespace {
constexpr int kCheckIntervalMs = 1000;
constexpr int kSendIntervalMs = 200;
} // namespace

Adapter::Adapter() : m_communication(new Communication(this))
{
    m_checkTimerId = startTimer(kCheckIntervalMs);
    m_sendTimerId = startTimer(kSendIntervalMs);
    m_lastNetError = false;
}

Adapter::~Adapter()
{
    m_communication->stop();
    killTimer(m_sendTimerId);
    killTimer(m_checkTimerId);
    ThreadManager::GetInstance()->FinishAllThread();
}

int Adapter::start()
{
    Infor tracer(kLogTrace, "Adapter_start");
    if (!m_communication->start()) {
        LogManager::getInstance()->Msg(kLogError, "communication start failed!");
        return 0;
    }
    return 1;
}

void Adapter::onConnected()
{
    ThreadManager::GetInstance()->StopThread(kThreadMainAppDetect, QVariant(kMainAppDetectTag));
}

void Adapter::onDisconnected()
{
    ThreadManager::GetInstance()->CreateThread(kThreadMainAppDetect, QVariant(kMainAppDetectTag));
}

void Adapter::onReadyRead(const QByteArray& data)
{
    Infor tracer(kLogTrace, "Adapter_onReadyRead");
    LogManager::getInstance()->Msg(kLogProgress, "read from 627 data is %s", data.constData());

    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError)
        return;

    const QJsonObject object = document.object();
    if (object.contains("exit")) {
        if (object.value("exit").toBool(false))
            QCoreApplication::exit(0);
        return;
    }

    DataCenter* center = DataCenter::getInstance();
    CLoginInfor login;
    login.userId = object.value("user_id").toString();
    login.cookies.insert("cookie", object.value("cookie").toString());
    center->SetLoginInfor(login);
    center->SetSetting(object.value("setting").toInt(0));
    center->SetUserAgent(object.value("user_agent").toString());
    center->SetMainAppId(object.value("pid").toInt(0));
    center->SetMainLockFile(object.value("lockfile").toString());
    center->SetLogLevel(object.value("loglevel").toInt(0));
    center->SetMainAppExist(true);
    center->SetLogoutInfor(CLogoutInfor());
    LogManager::getInstance()->init();
    ThreadManager::GetInstance()->CreateThread(kThreadClient, QVariant(kClientThreadTag));
}

void Adapter::timerEvent(QTimerEvent* event)
{
    if (event->timerId() == m_checkTimerId) {
        CheckMainApp();
    } else if (event->timerId() == m_sendTimerId) {
        if (SendLogoutToMainApp())
            QCoreApplication::exit(0);
        else
            SendOtherToMainApp();
    }
}

void Adapter::CheckMainApp()
{
    if (DataCenter::getInstance()->IsMainAppExist()) {
        ThreadManager::GetInstance()->CleanThread();
        return;
    }
    LogManager::getInstance()->Msg(kLogImportant, "627 is not exist, exit app");
    QCoreApplication::exit(0);
}

bool Adapter::SendLogoutToMainApp()
{
    CLogoutInfor logout;
    DataCenter::getInstance()->GetLogoutInfor(logout);
    if (!logout.isLogout)
        return false;

    LogManager::getInstance()->Msg(kLogImportant, "user is logout! message is %s",
                                   logout.message.toUtf8().constData());
    QJsonObject object;
    object.insert("logout", logout.message);
    m_communication->sendMessage(QJsonDocument(object).toJson(QJsonDocument::Compact));
    return true;
}

bool Adapter::IsNeedSendNetError()
{
    const bool netError = DataCenter::getInstance()->isNetError();
    if (netError == m_lastNetError)
        return false;
    // The words are the reverse of the state; the main application's logs expect them so.
    LogManager::getInstance()->Msg(kLogProgress, "net is changed! net is %s",
                                   netError ? "normal" : "abnormal");
    m_lastNetError = netError;
    return true;
}

void Adapter::SendOtherToMainApp()
{
    DataCenter* center = DataCenter::getInstance();
    const bool net = IsNeedSendNetError();
    const bool face = center->isUserFaceChanged();
    const bool vip = center->IsVipChanged();
    if (!net && !face && !vip)
        return;

    QJsonObject object;
    if (net)
        object.insert("net_error", m_lastNetError);
    if (face) {
        object.insert("user_face", center->GetUserFace());
        center->SetUserFace(QString());
    }
    if (vip) {
        int level = kNoVipLevel;
        qint64 expire = kNoExpireTime;
        center->GetVipInfor(level, expire);
        object.insert("vip_level", level);
        object.insert("expire_time", expire);
        center->SetVipInfor(kNoVipLevel, kNoExpireTime);
    }
    m_communication->sendMessage(QJsonDocument(object).toJson(QJsonDocument::Compact));
}
