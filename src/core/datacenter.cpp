// SPDX-License-Identifier: Apache-2.0
#include "datacenter.h"

#include "constants.h"
#include "sync.h"

DataCenter* DataCenter::m_this = nullptr;

DataCenter::DataCenter() = default;

DataCenter::~DataCenter() = default;

DataCenter* DataCenter::getInstance()
{
    if (!m_this)
        m_this = new DataCenter;
    return m_this;
}

void DataCenter::destroyInstance()
{
    delete m_this;
    m_this = nullptr;
}

void DataCenter::GetLoginInfor(CLoginInfor& info)
{
    m_loginData.GetLoginInfor(info);
}

void DataCenter::SetLoginInfor(const CLoginInfor& info)
{
    m_loginData.SetLoginInfor(info);
}

void DataCenter::GetLogoutInfor(CLogoutInfor& info)
{
    m_loginData.GetLogoutInfor(info);
}

void DataCenter::SetLogoutInfor(const CLogoutInfor& info)
{
    m_loginData.SetLogoutInfor(info);
}

void DataCenter::SetSetting(int setting)
{
    Sync lock(&m_mutex);
    m_rcEnvironment = (setting & kSettingRcEnvironment) != 0;
    m_httpsRequest = (setting & kSettingHttps) != 0;
    m_encryptRequest = (setting & kSettingEncryptRequest) != 0;
}

bool DataCenter::isRcEnvironment()
{
    Sync lock(&m_mutex);
    return m_rcEnvironment;
}

bool DataCenter::isHttpsRequest()
{
    Sync lock(&m_mutex);
    return m_httpsRequest;
}

bool DataCenter::isEncryptRequest()
{
    Sync lock(&m_mutex);
    return m_encryptRequest;
}

void DataCenter::SetUserAgent(const QString& userAgent)
{
    Sync lock(&m_mutex);
    m_userAgent = userAgent;
}

QString DataCenter::GetUserAgent()
{
    Sync lock(&m_mutex);
    return m_userAgent;
}

void DataCenter::SetMainAppId(int pid)
{
    Sync lock(&m_mutex);
    m_mainAppId = pid;
}

int DataCenter::GetMainAppId()
{
    Sync lock(&m_mutex);
    return m_mainAppId;
}

void DataCenter::SetMainLockFile(const QString& path)
{
    Sync lock(&m_mutex);
    m_mainLockFile = path;
}

QString DataCenter::GetMainLockFile()
{
    Sync lock(&m_mutex);
    return m_mainLockFile;
}

void DataCenter::SetMainAppExist(bool exist)
{
    Sync lock(&m_mutex);
    m_mainAppExist = exist;
}

bool DataCenter::IsMainAppExist()
{
    Sync lock(&m_mutex);
    return m_mainAppExist;
}

void DataCenter::SetNetError(bool error)
{
    Sync lock(&m_mutex);
    m_netError = error;
}

bool DataCenter::isNetError()
{
    Sync lock(&m_mutex);
    return m_netError;
}

void DataCenter::SetUserFace(const QString& face)
{
    Sync lock(&m_mutex);
    m_userFace = face;
}

QString DataCenter::GetUserFace()
{
    Sync lock(&m_mutex);
    return m_userFace;
}

bool DataCenter::isUserFaceChanged()
{
    Sync lock(&m_mutex);
    return !m_userFace.isEmpty();
}

void DataCenter::SetVipInfor(int level, qint64 expire)
{
    m_vipLevel.store(level, std::memory_order_relaxed);
    m_expireTime.store(expire, std::memory_order_relaxed);
}

void DataCenter::GetVipInfor(int& level, qint64& expire)
{
    level = m_vipLevel.load(std::memory_order_relaxed);
    expire = m_expireTime.load(std::memory_order_relaxed);
}

bool DataCenter::IsVipChanged()
{
    return m_vipLevel.load(std::memory_order_relaxed) != kNoVipLevel ||
           m_expireTime.load(std::memory_order_relaxed) != kNoExpireTime;
}

void DataCenter::SetLogLevel(int level)
{
    Sync lock(&m_mutex);
    m_logLevel = level;
}

int DataCenter::GetLogLevel()
{
    Sync lock(&m_mutex);
    return m_logLevel;
}
