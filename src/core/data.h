#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>

// Login record handed over by the main application. The whole cookie string of the main
// application sits under the key "cookie".
struct CLoginInfor
{
    QMap<QString, QString> cookies;
    QString userId;
};

// Set once the user has been logged out elsewhere; message is shown by the main application.
struct CLogoutInfor
{
    bool isLogout = false;
    QString message;
};

// User information as the service describes it.
struct CUserInfor
{
    QString userId;
    QString userName;
    QString face;
    int vipMark = 0;
    qint64 expire = 0;
    QString mobile;
    QString nickName;
    QString sizeTotal;
    QString sizeUsed;
    double sizeUsedPercent = 0.0;
    qint64 byteSizeRemain = 0;
};

// Base of the shared records: one non-recursive mutex for the subclass's state.
class CData : public QObject
{
    Q_OBJECT
public:
    CData();
    ~CData() override;

protected:
    QMutex m_mutex;
};
