// SPDX-License-Identifier: Apache-2.0
#include "locallink.h"

#include <sys/socket.h>

qint64 GetPeerUserId(qintptr socketDescriptor)
{
    struct ucred credentials = {};
    socklen_t size = sizeof credentials;
    if (socketDescriptor < 0 ||
        ::getsockopt(int(socketDescriptor), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        size != sizeof credentials)
        return -1;
    return qint64(credentials.uid);
}
