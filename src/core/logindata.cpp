// SPDX-License-Identifier: Apache-2.0
#include "logindata.h"

#include "sync.h"

void CLoginData::GetLoginInfor(CLoginInfor& info)
{
    Sync lock(&m_mutex);
    info = m_loginInfor;
}

void CLoginData::SetLoginInfor(const CLoginInfor& info)
{
    Sync lock(&m_mutex);
    m_loginInfor = info;
}

void CLoginData::GetLogoutInfor(CLogoutInfor& info)
{
    Sync lock(&m_mutex);
    info = m_logoutInfor;
}

void CLoginData::SetLogoutInfor(const CLogoutInfor& info)
{
    Sync lock(&m_mutex);
    m_logoutInfor = info;
}
