// SPDX-License-Identifier: Apache-2.0
// Development stand-in for the closed cipher library: libsodium secretbox (XSalsa20-Poly1305)
// under a fixed development key. Not for production use; see README.md.

#define EC627_BUILDING 1
#include "ec627.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <sodium.h>
#include <vector>

namespace {

constexpr int kNonce = crypto_secretbox_NONCEBYTES;  // 24
constexpr int kTag = crypto_secretbox_MACBYTES;      // 16
constexpr int kSalt = EC627_MSG_TOKEN_SIZE - kNonce; // 24
constexpr int kTextTokenBytes = 16;
constexpr int kGetTokenBytes = 32;
constexpr char kKeySeed[] = "ec627 development stand-in key v1";
constexpr char kMsgLabel[] = "ec627-msg";
constexpr char kTextLabel[] = "m627-text";

static_assert(kNonce + kTag == EC627_SEAL_OVERHEAD, "seal overhead");
static_assert(kSalt == 24, "token layout");

struct DevKey
{
    bool ok = false;
    unsigned char bytes[crypto_secretbox_KEYBYTES] = {};

    DevKey()
    {
        if (sodium_init() < 0)
            return;
        crypto_generichash(bytes, sizeof bytes, reinterpret_cast<const unsigned char*>(kKeySeed),
                           sizeof kKeySeed - 1, nullptr, 0);
        ok = true;
    }
};

// Initialised once, thread-safe (C++ static local).
const DevKey& devKey()
{
    static const DevKey key;
    return key;
}

void putLe32(unsigned char* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

void putLe64(unsigned char* p, uint64_t v)
{
    for (int i = 0; i < 8; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

bool validInput(const unsigned char* in, long long length)
{
    return length >= 0 && (in != nullptr || length == 0);
}

const unsigned char* orEmpty(const unsigned char* p)
{
    static const unsigned char empty = 0;
    return p ? p : &empty;
}

// out = nonce || secretbox(in) under `key`. Capacity checked by the caller.
int sealTo(const unsigned char* key, const unsigned char* in, size_t inLength, unsigned char* out)
{
    randombytes_buf(out, kNonce);
    return crypto_secretbox_easy(out + kNonce, orEmpty(in), inLength, out, key) == 0
               ? EC627_OK
               : EC627_ERR_SODIUM;
}

// Opens nonce || box into a scratch vector; `out` is only touched on success.
int openTo(const unsigned char* key, const unsigned char* in, size_t inLength,
           std::vector<unsigned char>& plain)
{
    if (inLength < static_cast<size_t>(EC627_SEAL_OVERHEAD))
        return EC627_ERR_AUTH;
    plain.assign(inLength - EC627_SEAL_OVERHEAD + 1, 0);
    if (crypto_secretbox_open_easy(plain.data(), in + kNonce, inLength - kNonce, in, key) != 0)
        return EC627_ERR_AUTH;
    plain.resize(inLength - EC627_SEAL_OVERHEAD);
    return EC627_OK;
}

// Per-message key: BLAKE2b-256 keyed with the development key over
// "ec627-msg" || type (LE32) || salt (24 bytes).
void messageKey(unsigned int type, const unsigned char* salt, unsigned char* key)
{
    unsigned char msg[sizeof kMsgLabel - 1 + 4 + kSalt];
    std::memcpy(msg, kMsgLabel, sizeof kMsgLabel - 1);
    putLe32(msg + sizeof kMsgLabel - 1, type);
    std::memcpy(msg + sizeof kMsgLabel - 1 + 4, salt, kSalt);
    crypto_generichash(key, crypto_secretbox_KEYBYTES, msg, sizeof msg, devKey().bytes,
                       sizeof devKey().bytes);
}

// Text key: BLAKE2b-256 keyed with the development key over "m627-text" || key text.
void textKey(const unsigned char* keyText, unsigned char* key)
{
    const char* text = keyText ? reinterpret_cast<const char*>(keyText) : "";
    crypto_generichash_state st;
    crypto_generichash_init(&st, devKey().bytes, sizeof devKey().bytes, crypto_secretbox_KEYBYTES);
    crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(kTextLabel),
                              sizeof kTextLabel - 1);
    crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(text), std::strlen(text));
    crypto_generichash_final(&st, key, crypto_secretbox_KEYBYTES);
}

void toHex(const unsigned char* bytes, size_t n, unsigned char* out)
{
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = static_cast<unsigned char>(digits[bytes[i] >> 4]);
        out[2 * i + 1] = static_cast<unsigned char>(digits[bytes[i] & 0x0f]);
    }
}

// Writes a 48-byte message token (nonce || salt) and seals `in` under it.
int messageSeal(unsigned int type, const unsigned char* in, int inLength, unsigned char* out,
                int* outLength, unsigned char* token, int* tokenLength)
{
    if (!devKey().ok)
        return EC627_ERR_SODIUM;
    if (!validInput(in, inLength) || !out || !outLength || !token || !tokenLength)
        return EC627_ERR_ARGUMENT;
    if (*tokenLength < EC627_MSG_TOKEN_SIZE ||
        static_cast<long long>(*outLength) < static_cast<long long>(inLength) + kTag)
        return EC627_ERR_CAPACITY;
    unsigned char tok[EC627_MSG_TOKEN_SIZE];
    unsigned char key[crypto_secretbox_KEYBYTES];
    randombytes_buf(tok, sizeof tok);
    messageKey(type, tok + kNonce, key);
    if (crypto_secretbox_easy(out, orEmpty(in), static_cast<size_t>(inLength), tok, key) != 0)
        return EC627_ERR_SODIUM;
    sodium_memzero(key, sizeof key);
    std::memcpy(token, tok, sizeof tok);
    *tokenLength = EC627_MSG_TOKEN_SIZE;
    *outLength = inLength + kTag;
    return EC627_OK;
}

} // namespace

extern "C" {

int ec627_init(void)
{
    return devKey().ok ? EC627_OK : EC627_ERR_SODIUM;
}

int ec627_encode_len(int inLength)
{
    if (inLength < 0 || inLength > (INT_MAX - 1024) / 16)
        return -1;
    return 16 * inLength + 1024;
}

int ec627_encode_token(unsigned int product, unsigned char* token, int* tokenLength)
{
    // Token text: "<product>-" followed by 32 lower-case hex digits of 16 random bytes.
    if (!devKey().ok || !token || !tokenLength)
        return 0;
    char prefix[16];
    const int prefixLength = snprintf(prefix, sizeof prefix, "%u-", product);
    const int total = prefixLength + 2 * kTextTokenBytes;
    if (*tokenLength < total)
        return 0;
    unsigned char random[kTextTokenBytes];
    randombytes_buf(random, sizeof random);
    std::memcpy(token, prefix, static_cast<size_t>(prefixLength));
    toHex(random, sizeof random, token + prefixLength);
    *tokenLength = total;
    return 1;
}

int ec627_encode_data(const unsigned char* in, int inLength, unsigned char* out, int* outLength)
{
    if (!devKey().ok)
        return EC627_ERR_SODIUM;
    if (!validInput(in, inLength) || !out || !outLength)
        return EC627_ERR_ARGUMENT;
    if (static_cast<long long>(*outLength) < static_cast<long long>(inLength) + EC627_SEAL_OVERHEAD)
        return EC627_ERR_CAPACITY;
    const int rc = sealTo(devKey().bytes, in, static_cast<size_t>(inLength), out);
    if (rc == EC627_OK)
        *outLength = inLength + EC627_SEAL_OVERHEAD;
    return rc;
}

int ec627_encode(unsigned int product, const unsigned char* in, int inLength, unsigned char* out,
                 int* outLength, unsigned char* token, int* tokenLength)
{
    return messageSeal(product, in, inLength, out, outLength, token, tokenLength);
}

int ec627_decode_len(const unsigned char* in, int inLength)
{
    if (!validInput(in, inLength))
        return -1;
    return inLength > EC627_SEAL_OVERHEAD ? inLength - EC627_SEAL_OVERHEAD : 0;
}

int ec627_decode(const unsigned char* in, int inLength, unsigned char* out, int* outLength)
{
    if (!devKey().ok)
        return EC627_ERR_SODIUM;
    if (!validInput(in, inLength) || !out || !outLength)
        return EC627_ERR_ARGUMENT;
    if (inLength < EC627_SEAL_OVERHEAD)
        return EC627_ERR_AUTH;
    if (*outLength < inLength - EC627_SEAL_OVERHEAD)
        return EC627_ERR_CAPACITY;
    std::vector<unsigned char> plain;
    const int rc = openTo(devKey().bytes, in, static_cast<size_t>(inLength), plain);
    if (rc != EC627_OK)
        return rc;
    if (!plain.empty())
        std::memcpy(out, plain.data(), plain.size());
    *outLength = static_cast<int>(plain.size());
    sodium_memzero(plain.data(), plain.size());
    return EC627_OK;
}

int ec627_get_token(unsigned int a, long long b, long long c, const unsigned char* d, int dLength,
                    const unsigned char* e, int eLength, const unsigned char* in, int inLength,
                    unsigned char* token, int* tokenLength)
{
    // 64 lower-case hex digits of BLAKE2b-256, keyed with the development key, over
    // a (LE32) || b (LE64) || c (LE64) || dLength (LE32) || d || eLength (LE32) || e
    // || inLength (LE32) || in. Deterministic.
    if (!devKey().ok)
        return EC627_ERR_SODIUM;
    if (!validInput(d, dLength) || !validInput(e, eLength) || !validInput(in, inLength) || !token ||
        !tokenLength)
        return EC627_ERR_ARGUMENT;
    if (*tokenLength < 2 * kGetTokenBytes)
        return EC627_ERR_CAPACITY;
    unsigned char word[8];
    crypto_generichash_state st;
    crypto_generichash_init(&st, devKey().bytes, sizeof devKey().bytes, kGetTokenBytes);
    putLe32(word, a);
    crypto_generichash_update(&st, word, 4);
    putLe64(word, static_cast<uint64_t>(b));
    crypto_generichash_update(&st, word, 8);
    putLe64(word, static_cast<uint64_t>(c));
    crypto_generichash_update(&st, word, 8);
    const unsigned char* parts[] = {d, e, in};
    const int lengths[] = {dLength, eLength, inLength};
    for (int i = 0; i < 3; ++i) {
        putLe32(word, static_cast<uint32_t>(lengths[i]));
        crypto_generichash_update(&st, word, 4);
        crypto_generichash_update(&st, orEmpty(parts[i]), static_cast<size_t>(lengths[i]));
    }
    unsigned char digest[kGetTokenBytes];
    crypto_generichash_final(&st, digest, sizeof digest);
    toHex(digest, sizeof digest, token);
    *tokenLength = 2 * kGetTokenBytes;
    return EC627_OK;
}

int ec627_msg_encode_token(unsigned int type, unsigned char* token, int* tokenLength)
{
    (void)type;
    if (!devKey().ok)
        return EC627_ERR_SODIUM;
    if (!token || !tokenLength)
        return EC627_ERR_ARGUMENT;
    if (*tokenLength < EC627_MSG_TOKEN_SIZE)
        return EC627_ERR_CAPACITY;
    randombytes_buf(token, EC627_MSG_TOKEN_SIZE);
    *tokenLength = EC627_MSG_TOKEN_SIZE;
    return EC627_OK;
}

int ec627_msg_encode(unsigned int type, const unsigned char* in, int inLength, unsigned char* out,
                     int* outLength, unsigned char* token, int* tokenLength)
{
    return messageSeal(type, in, inLength, out, outLength, token, tokenLength);
}

int ec627_msg_decode(unsigned int type, const unsigned char* token, int tokenLength,
                     const unsigned char* in, int inLength, unsigned char* out, int* outLength)
{
    if (!devKey().ok)
        return EC627_ERR_SODIUM;
    if (!token || tokenLength != EC627_MSG_TOKEN_SIZE || !validInput(in, inLength) || !out ||
        !outLength)
        return EC627_ERR_ARGUMENT;
    if (inLength < kTag)
        return EC627_ERR_AUTH;
    if (*outLength < inLength - kTag)
        return EC627_ERR_CAPACITY;
    unsigned char key[crypto_secretbox_KEYBYTES];
    messageKey(type, token + kNonce, key);
    std::vector<unsigned char> plain(static_cast<size_t>(inLength - kTag) + 1);
    const int rc =
        crypto_secretbox_open_easy(plain.data(), in, static_cast<size_t>(inLength), token, key);
    sodium_memzero(key, sizeof key);
    if (rc != 0)
        return EC627_ERR_AUTH;
    const size_t n = static_cast<size_t>(inLength - kTag);
    if (n)
        std::memcpy(out, plain.data(), n);
    *outLength = static_cast<int>(n);
    return EC627_OK;
}

int m627_edinit(void)
{
    return devKey().ok ? EC627_OK : EC627_ERR_SODIUM;
}

int m627_encode(const unsigned char* in, unsigned int inLength, unsigned char* out,
                unsigned int* outLength, unsigned char* key, unsigned char* extra)
{
    // Output: standard base64 (with "=" padding) of nonce || secretbox(in), NUL-terminated.
    (void)extra;
    if (!devKey().ok)
        return EC627_ERR_SODIUM;
    if (inLength > INT_MAX / 2 || !validInput(in, inLength) || !out || !outLength)
        return EC627_ERR_ARGUMENT;
    const size_t sealed = inLength + static_cast<size_t>(EC627_SEAL_OVERHEAD);
    const size_t textCapacity =
        sodium_base64_encoded_len(sealed, sodium_base64_VARIANT_ORIGINAL); // includes the NUL
    if (*outLength < textCapacity)
        return EC627_ERR_CAPACITY;
    unsigned char k[crypto_secretbox_KEYBYTES];
    textKey(key, k);
    std::vector<unsigned char> box(sealed);
    const int rc = sealTo(k, in, inLength, box.data());
    sodium_memzero(k, sizeof k);
    if (rc != EC627_OK)
        return rc;
    sodium_bin2base64(reinterpret_cast<char*>(out), textCapacity, box.data(), box.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    *outLength = static_cast<unsigned int>(textCapacity - 1);
    return EC627_OK;
}

int m627_decode(const unsigned char* in, unsigned int inLength, unsigned char* out,
                unsigned int* outLength, unsigned char* key, unsigned char* scratch)
{
    (void)scratch;
    if (!devKey().ok)
        return EC627_ERR_SODIUM;
    if (inLength > INT_MAX / 2 || !validInput(in, inLength) || !out || !outLength)
        return EC627_ERR_ARGUMENT;
    // A trailing NUL (text copied with its terminator) is tolerated.
    while (inLength > 0 && in[inLength - 1] == 0)
        --inLength;
    std::vector<unsigned char> box(inLength / 4 * 3 + 3);
    size_t boxLength = 0;
    if (sodium_base642bin(box.data(), box.size(), reinterpret_cast<const char*>(orEmpty(in)),
                          inLength, nullptr, &boxLength, nullptr,
                          sodium_base64_VARIANT_ORIGINAL) != 0)
        return EC627_ERR_ARGUMENT;
    if (boxLength < static_cast<size_t>(EC627_SEAL_OVERHEAD))
        return EC627_ERR_AUTH;
    if (*outLength < boxLength - EC627_SEAL_OVERHEAD)
        return EC627_ERR_CAPACITY;
    unsigned char k[crypto_secretbox_KEYBYTES];
    textKey(key, k);
    std::vector<unsigned char> plain;
    const int rc = openTo(k, box.data(), boxLength, plain);
    sodium_memzero(k, sizeof k);
    if (rc != EC627_OK)
        return rc;
    if (!plain.empty())
        std::memcpy(out, plain.data(), plain.size());
    *outLength = static_cast<unsigned int>(plain.size());
    return EC627_OK;
}

} // extern "C"
