#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QByteArray>
#include <QMutex>
#include <QObject>
#include <QString>

// Binding to the closed cipher library "ec627". The daemon never links the library: it is
// loaded at run time by file name through QLibrary (the dynamic loader's search, so
// LD_LIBRARY_PATH decides) and each entry point is resolved into a function pointer.
namespace enctypt {

using ec627_init_t = int (*)();
using ec627_encode_len_t = int (*)(int);
using ec627_encode_token_t = int (*)(unsigned int, unsigned char*, int*);
using ec627_encode_data_t = int (*)(const unsigned char*, int, unsigned char*, int*);
using ec627_encode_t = int (*)(unsigned int, const unsigned char*, int, unsigned char*, int*,
                               unsigned char*, int*);
using ec627_decode_len_t = int (*)(const unsigned char*, int);
using ec627_decode_t = int (*)(const unsigned char*, int, unsigned char*, int*);
using ec627_get_token_t = int (*)(unsigned int, long long, long long, const unsigned char*, int,
                                  const unsigned char*, int, const unsigned char*, int,
                                  unsigned char*, int*);
using ec627_msg_encode_token_t = int (*)(unsigned int, unsigned char*, int*);
using ec627_msg_encode_t = int (*)(unsigned int, const unsigned char*, int, unsigned char*, int*,
                                   unsigned char*, int*);
using m627_edinit_t = int (*)();
using m627_encode_t = int (*)(const unsigned char*, unsigned int, unsigned char*, unsigned int*,
                              unsigned char*, unsigned char*);
using m627_decode_t = int (*)(const unsigned char*, unsigned int, unsigned char*, unsigned int*,
                              unsigned char*, unsigned char*);

// Null until loadLibray() has resolved them.
extern ec627_init_t f_ec627_init;
extern ec627_encode_len_t f_ec627_encode_len;
extern ec627_encode_token_t f_ec627_encode_token;
extern ec627_encode_data_t f_ec627_encode_data;
extern ec627_encode_t f_ec627_encode;
extern ec627_decode_len_t f_ec627_decode_len;
extern ec627_decode_t f_ec627_decode;
extern ec627_get_token_t f_ec627_get_token;
extern ec627_msg_encode_token_t f_ec627_msg_encode_token;
extern ec627_msg_encode_t f_ec627_msg_encode;
extern m627_edinit_t f_m627_edinit;
extern m627_encode_t f_m627_encode;
extern m627_decode_t f_m627_decode;

// Loads "ec627" and resolves the thirteen entry points; a missing symbol stays null.
// The library stays mapped after the call.
void loadLibray();
// Clears every pointer (after the library has been unloaded).
void resetPointers();

// The wrappers return -1 while their pointer is null, else the library's result.
// ec627_init() and m627_edinit() load the library first when their pointer is null.
int ec627_init();
int ec627_encode_len(int inLength);
int ec627_encode_token(unsigned int product, unsigned char* token, int* tokenLength);
int ec627_encode_data(const unsigned char* in, int inLength, unsigned char* out, int* outLength);
int ec627_encode(unsigned int product, const unsigned char* in, int inLength, unsigned char* out,
                 int* outLength, unsigned char* token, int* tokenLength);
int ec627_decode_len(const unsigned char* in, int inLength);
int ec627_decode(const unsigned char* in, int inLength, unsigned char* out, int* outLength);
int ec627_get_token(unsigned int a, long long b, long long c, const unsigned char* d, int dLength,
                    const unsigned char* e, int eLength, const unsigned char* in, int inLength,
                    unsigned char* token, int* tokenLength);
int ec627_msg_encode_token(unsigned int type, unsigned char* token, int* tokenLength);
int ec627_msg_encode(unsigned int type, const unsigned char* in, int inLength, unsigned char* out,
                     int* outLength, unsigned char* token, int* tokenLength);
int m627_edinit();
int m627_encode(const unsigned char* in, unsigned int inLength, unsigned char* out,
                unsigned int* outLength, unsigned char* key, unsigned char* extra);
int m627_decode(const unsigned char* in, unsigned int inLength, unsigned char* out,
                unsigned int* outLength, unsigned char* key, unsigned char* scratch);

} // namespace enctypt

// Singleton façade over the cipher library: QByteArray in, QByteArray out. Every operation
// holds m_mutex for its whole run, so at most one call into the library is in flight (the
// library is not assumed thread-safe); callers may be on any thread. getInstance() has no
// lock: its first call is made on one thread (the push codec's init) before others use it.
class StringEncrypt : public QObject
{
    Q_OBJECT
public:
    // The daemon's product number: the first argument of the library's token and encode calls.
    static constexpr int kProductNumber = 627;

    static StringEncrypt* getInstance();
    static void destroyInstance();
    ~StringEncrypt() override;

    // Retries the initialisations that have not succeeded yet and fetches a fresh token.
    void Init();
    // Unloads the library if it is loaded.
    void Destroy();

    QString token();

    int M627Encode(const QByteArray& in, QByteArray& out);
    int M627Decode(const QByteArray& in, QByteArray& out);
    int Ec627Encode(const QByteArray& in, QByteArray& out, QByteArray& token);
    int Ec627Decode(const QByteArray& in, QByteArray& out);
    int Ec627EncodeData(const QByteArray& in, QByteArray& out);
    int Ec627DecodeLen(const QByteArray& in);
    int Ec627MsgEncodeToken(unsigned int type, unsigned char* token, int* tokenLength);
    int Ec627MsgEncode(unsigned int type, const QByteArray& in, QByteArray& out,
                       unsigned char* token, int* tokenLength);
    int Ec627GetToken(unsigned int a, unsigned int b, long c, const unsigned char* d, int dLength,
                      const unsigned char* e, int eLength, const QByteArray& in, QByteArray& out);

private:
    StringEncrypt();

    static StringEncrypt* m_this;

    QString m_token;
    QString m_key;
    bool m_m627Ready = false;
    bool m_ec627Ready = false;
    int m_productNumber = kProductNumber;
    QMutex m_mutex;
};

// The m-family key text for a moment: the lower-case hex MD5 of "#&@!*&@<seconds>KQWZ&!*@".
QString m627KeyForTime(qint64 seconds);

// Body of an "application/x-www-form-urlencoded" POST: "data=" + the percent-encoded m627
// cipher text of `plain` under the key of the current second; empty on any failure.
// Loads "ec627" by itself (independently of StringEncrypt).
QString get_m627_encode(QString const& plain);
// The same with the second given explicitly (get_m627_encode passes time(nullptr)).
QString get_m627_encode_at(QString const& plain, qint64 seconds);
