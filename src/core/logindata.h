#pragma once
// SPDX-License-Identifier: Apache-2.0

#include "data.h"

// Login and logout records, copied in and out whole under the record mutex.
class CLoginData : public CData
{
    Q_OBJECT
public:
    void GetLoginInfor(CLoginInfor& info);
    void SetLoginInfor(const CLoginInfor& info);
    void GetLogoutInfor(CLogoutInfor& info);
    void SetLogoutInfor(const CLogoutInfor& info);

private:
    CLoginInfor m_loginInfor;
    CLogoutInfor m_logoutInfor;
};
