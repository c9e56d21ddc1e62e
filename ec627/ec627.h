#pragma once
// SPDX-License-Identifier: Apache-2.0

// Development stand-in for the closed cipher library "ec627". Same thirteen entry points as the
// production library, plus ec627_msg_decode for the server side of the push login frame.
// See README.md in this folder for the byte formats, the key and the length bounds.
//
// Length convention: every int* / unsigned int* length is the capacity of the output buffer on
// entry and the number of bytes written on return. A capacity that is too small makes the call
// fail and leaves the output buffer and the length untouched.

#ifdef __cplusplus
extern "C" {
#endif

#if defined(EC627_BUILDING)
#define EC627_API __attribute__((visibility("default")))
#else
#define EC627_API
#endif

// Bytes every sealed body carries on top of its plaintext: a 24-byte nonce and a 16-byte tag.
#define EC627_SEAL_OVERHEAD 40
// Size of the token written by ec627_msg_encode, ec627_msg_encode_token and ec627_encode.
#define EC627_MSG_TOKEN_SIZE 48

EC627_API int ec627_init(void);
EC627_API int ec627_encode_len(int inLength);
EC627_API int ec627_encode_token(unsigned int product, unsigned char* token, int* tokenLength);
EC627_API int ec627_encode_data(const unsigned char* in, int inLength, unsigned char* out,
                                int* outLength);
EC627_API int ec627_encode(unsigned int product, const unsigned char* in, int inLength,
                           unsigned char* out, int* outLength, unsigned char* token,
                           int* tokenLength);
EC627_API int ec627_decode_len(const unsigned char* in, int inLength);
EC627_API int ec627_decode(const unsigned char* in, int inLength, unsigned char* out,
                           int* outLength);
EC627_API int ec627_get_token(unsigned int a, long long b, long long c, const unsigned char* d,
                              int dLength, const unsigned char* e, int eLength,
                              const unsigned char* in, int inLength, unsigned char* token,
                              int* tokenLength);
EC627_API int ec627_msg_encode_token(unsigned int type, unsigned char* token, int* tokenLength);
EC627_API int ec627_msg_encode(unsigned int type, const unsigned char* in, int inLength,
                               unsigned char* out, int* outLength, unsigned char* token,
                               int* tokenLength);
EC627_API int m627_edinit(void);
EC627_API int m627_encode(const unsigned char* in, unsigned int inLength, unsigned char* out,
                          unsigned int* outLength, unsigned char* key, unsigned char* extra);
EC627_API int m627_decode(const unsigned char* in, unsigned int inLength, unsigned char* out,
                          unsigned int* outLength, unsigned char* key, unsigned char* scratch);

// Server side of ec627_msg_encode / ec627_encode: opens a body sealed for message type `type`
// (the user id in a login frame) with the 48-byte token that travelled beside it.
EC627_API int ec627_msg_decode(unsigned int type, const unsigned char* token, int tokenLength,
                               const unsigned char* in, int inLength, unsigned char* out,
                               int* outLength);

// Result codes of the stand-in (ec627_encode_token uses 1 / 0 instead, see README.md).
#define EC627_OK 0
#define EC627_ERR_ARGUMENT (-1)
#define EC627_ERR_CAPACITY (-2)
#define EC627_ERR_AUTH (-3)
#define EC627_ERR_SODIUM (-4)

#ifdef __cplusplus
}
#endif
