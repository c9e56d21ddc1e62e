#pragma once
// SPDX-License-Identifier: Apache-2.0

// How many bytes the push frame at the front of the received data needs in all, from what of
// its head has arrived, so that a reader can wait for a frame that comes in several segments
// instead of reading it in pieces. Peek the socket (Msg_client::kMsgHeadSize bytes are enough):
//   > 0  the frame's whole size: 4 for a heartbeat echo, 12 for a notice, 16 + the head's
//        length for a response; read it once bytesAvailable() reaches that
//   0    too little of the head yet to tell (under 4 bytes, or under 16 of a response)
//   -1   no frame a reader can wait for (another magic, a response length of 0 or beyond
//        INT_MAX): read at once, the reader's own checks react to it

#include <QByteArray>
#include <QtGlobal>

qint64 pushFrameSize(const QByteArray& front);
