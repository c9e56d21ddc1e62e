// SPDX-License-Identifier: Apache-2.0
// Failure-injection library with the thirteen ec627 entry points (lib/fake-ec627/libec627.so),
// plus fake_ec627_calls(name), fake_ec627_reset() and fake_ec627_last_key() for the tests.
// FAKE_EC627_MODE, read on every call: ""/"ok" bodies "ENC:"/"MSG:" + input, fixed tokens;
// "fail" every call returns 7 (ec627_encode_token 0); "initfail" both inits return 1; "tokenN"
// an N-byte message token (N < 256); "shortlen" ec627_encode_len -1; "negative" both lengths -600;
// "overlong" lengths 100 bytes beyond the capacity; "fill" m627_encode fills its buffer with 'A'
// and no terminator. With FAKE_EC627_REAL naming a real library every entry point forwards to
// it, except the one named by FAKE_EC627_FAIL, which fails (-1; ec627_encode_token 0), so that
// the daemon meets a broken entry point; FAKE_EC627_FAIL=token_length: a 47-byte message token.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <numeric>
#include <string>

#define FAKE_API extern "C" __attribute__((visibility("default")))

namespace {
std::mutex g_mutex;
std::map<std::string, int> g_calls;
std::string g_lastKey;

const char* env(const char* name)
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment is never written while tests run
    return std::getenv(name);
}

bool is(const char* mode)
{
    const char* m = env("FAKE_EC627_MODE");
    return std::strcmp(m ? m : "", mode) == 0;
}

// Writes prefix + input into out when it fits; returns 0, or -2 for too small a capacity.
template <typename Length>
int wrap(const char* prefix, const unsigned char* in, Length n, unsigned char* out, Length* len)
{
    const auto p = static_cast<Length>(std::strlen(prefix));
    if (!out || !len || n < 0 || *len < p + n)
        return -2;
    std::memcpy(out, prefix, static_cast<size_t>(p));
    if (n)
        std::memcpy(out + p, in, static_cast<size_t>(n));
    *len = is("overlong") ? *len + 100 : p + n;
    return 0;
}

// Writes the bytes 1, 2, ... size (below 256) as a token.
int pattern(int size, unsigned char* token, int* len)
{
    unsigned char bytes[255];
    std::iota(bytes, bytes + size, 1);
    return wrap("", bytes, size, token, len);
}

// Counts the call; returns the real library's entry point `name`, or null when not forwarding.
void* real(const char* name)
{
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        ++g_calls[name];
    }
    static void* handle = [] {
        const char* path = env("FAKE_EC627_REAL");
        return path && *path ? dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
    }();
    return handle ? dlsym(handle, name) : nullptr;
}

bool failing(const char* name)
{
    const char* f = env("FAKE_EC627_FAIL");
    if (!f || std::strcmp(f, name) != 0)
        return false;
    std::fprintf(stderr, "fake_ec627: %s fails\n", name); // shows that the switch took effect
    return true;
}
} // namespace

// Counts and forwards an entry point (see the top of this file); `failure` is its failing result.
#define FORWARD(name, failure, ...)                                                                \
    if (void* target = real(#name))                                                                \
        return failing(#name) ? (failure) : reinterpret_cast<decltype(&name)>(target)(__VA_ARGS__);

FAKE_API int fake_ec627_calls(const char* name)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls[name];
}

FAKE_API void fake_ec627_reset()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.clear();
    g_lastKey.clear();
}

FAKE_API const char* fake_ec627_last_key()
{
    return g_lastKey.c_str();
}

FAKE_API int ec627_init()
{
    FORWARD(ec627_init, -1)
    return is("initfail") ? 1 : 0;
}

FAKE_API int ec627_encode_len(int n)
{
    FORWARD(ec627_encode_len, -1, n)
    return is("shortlen") ? -1 : is("negative") ? -600 : n + 64;
}

FAKE_API int ec627_encode_token(unsigned int product, unsigned char* token, int* len)
{
    FORWARD(ec627_encode_token, 0, product, token, len)
    const std::string text = "fake-token-" + std::to_string(product);
    return !is("fail") && wrap(text.c_str(), nullptr, 0, token, len) == 0 ? 1 : 0;
}

FAKE_API int ec627_encode_data(const unsigned char* in, int n, unsigned char* out, int* len)
{
    FORWARD(ec627_encode_data, -1, in, n, out, len)
    return is("fail") ? 7 : wrap("ENC:", in, n, out, len);
}

FAKE_API int ec627_decode_len(const unsigned char* in, int n)
{
    FORWARD(ec627_decode_len, -1, in, n)
    return is("negative") ? -600 : n;
}

FAKE_API int ec627_decode(const unsigned char* in, int n, unsigned char* out, int* len)
{
    FORWARD(ec627_decode, -1, in, n, out, len)
    if (is("fail"))
        return 7;
    return n < 4 || std::memcmp(in, "ENC:", 4) != 0 ? -3 : wrap("", in + 4, n - 4, out, len);
}

FAKE_API int ec627_get_token(unsigned int a, long long b, long long c, const unsigned char* d,
                             int dn, const unsigned char* e, int en, const unsigned char* in, int n,
                             unsigned char* token, int* len)
{
    FORWARD(ec627_get_token, -1, a, b, c, d, dn, e, en, in, n, token, len)
    return is("fail") ? 7 : wrap("get-token", nullptr, 0, token, len);
}

FAKE_API int ec627_msg_encode_token(unsigned int type, unsigned char* token, int* len)
{
    FORWARD(ec627_msg_encode_token, -1, type, token, len)
    return is("fail") ? 7 : pattern(48, token, len);
}

FAKE_API int ec627_msg_encode(unsigned int type, const unsigned char* in, int n, unsigned char* out,
                              int* len, unsigned char* token, int* tlen)
{
    if (void* target = real("ec627_msg_encode")) {
        if (failing("ec627_msg_encode"))
            return -1;
        const int rc = reinterpret_cast<decltype(&ec627_msg_encode)>(target)(type, in, n, out, len,
                                                                             token, tlen);
        if (rc == 0 && failing("token_length"))
            *tlen = 47;
        return rc;
    }
    if (is("fail"))
        return 7;
    const int rc = wrap("MSG:", in, n, out, len);
    const char* m = env("FAKE_EC627_MODE");
    // "tokenN" with N outside 0..255 is clamped: the token is built in a 255-byte buffer.
    const long size = m && std::strncmp(m, "token", 5) == 0
                          ? std::clamp(std::strtol(m + 5, nullptr, 10), 0L, 255L)
                          : 48;
    return rc != 0 ? rc : pattern(int(size), token, tlen);
}

FAKE_API int ec627_encode(unsigned int type, const unsigned char* in, int n, unsigned char* out,
                          int* len, unsigned char* token, int* tlen)
{
    FORWARD(ec627_encode, -1, type, in, n, out, len, token, tlen)
    return ec627_msg_encode(type, in, n, out, len, token, tlen);
}

FAKE_API int m627_edinit()
{
    FORWARD(m627_edinit, -1)
    return is("initfail") ? 1 : 0;
}

// Output: the text "k=" + key + "&p=" + input, NUL-terminated.
FAKE_API int m627_encode(const unsigned char* in, unsigned int n, unsigned char* out,
                         unsigned int* len, unsigned char* key, unsigned char* extra)
{
    FORWARD(m627_encode, -1, in, n, out, len, key, extra)
    g_lastKey = key ? reinterpret_cast<const char*>(key) : "(null)";
    if (is("fill"))
        std::memset(out, 'A', *len);
    if (is("fail") || is("fill"))
        return is("fail") ? 7 : 0;
    const std::string text =
        "k=" + g_lastKey + "&p=" + std::string(reinterpret_cast<const char*>(in), n);
    if (*len < text.size() + 1)
        return -2;
    std::memcpy(out, text.c_str(), text.size() + 1);
    *len = static_cast<unsigned int>(text.size());
    return 0;
}

FAKE_API int m627_decode(const unsigned char* in, unsigned int n, unsigned char* out,
                         unsigned int* len, unsigned char* key, unsigned char* scratch)
{
    FORWARD(m627_decode, -1, in, n, out, len, key, scratch)
    g_lastKey = key ? reinterpret_cast<const char*>(key) : "(null)";
    return is("fail") ? 7 : wrap("", in, n, out, len);
}
