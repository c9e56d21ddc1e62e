#pragma once
// SPDX-License-Identifier: Apache-2.0

#include "constants.h"
#include "logindata.h"

#include <QMutex>
#include <QString>
#include <atomic>

// Process-wide shared state. The main thread fills it from the main application's messages
// and polls it for pending changes; worker threads read settings and write results.
// getInstance() is first called on the main thread, before any worker exists.
class DataCenter
{
public:
    static DataCenter* getInstance();
    static void destroyInstance();
    virtual ~DataCenter();

    void init() {}
    void destroy() {}

    void GetLoginInfor(CLoginInfor& info);
    void SetLoginInfor(const CLoginInfor& info);
    void GetLogoutInfor(CLogoutInfor& info);
    void SetLogoutInfor(const CLogoutInfor& info);

    void SetSetting(int setting);
    bool isRcEnvironment();
    bool isHttpsRequest();
    bool isEncryptRequest();

    void SetUserAgent(const QString& userAgent);
    QString GetUserAgent();
    void SetMainAppId(int pid);
    int GetMainAppId();
    void SetMainLockFile(const QString& path);
    QString GetMainLockFile();
    void SetMainAppExist(bool exist);
    bool IsMainAppExist();

    void SetNetError(bool error);
    bool isNetError();

    void SetUserFace(const QString& face);
    QString GetUserFace();
    bool isUserFaceChanged();

    // The membership pair is read and written without the lock: a reader may see one new and
    // one old value, which the next poll corrects. Relaxed atomics keep that race well defined.
    void SetVipInfor(int level, qint64 expire);
    void GetVipInfor(int& level, qint64& expire);
    bool IsVipChanged();

    void SetLogLevel(int level);
    int GetLogLevel();

private:
    DataCenter();

    static DataCenter* m_this;

    CLoginData m_loginData;
    QMutex m_mutex;
    bool m_netError = false;
    QString m_userFace;
    std::atomic<int> m_vipLevel{kNoVipLevel};
    std::atomic<qint64> m_expireTime{kNoExpireTime};
    bool m_rcEnvironment = false;
    bool m_httpsRequest = false;
    bool m_encryptRequest = false;
    int m_logLevel = kLogOff;
    QString m_userAgent;
    int m_mainAppId = kNoMainAppId;
    QString m_mainLockFile;
    bool m_mainAppExist = true;
};
