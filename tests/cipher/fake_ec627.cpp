// Failure-injection stand-in with the thirteen ec627 entry points, built as
// lib/fake-ec627/libec627.so. FAKE_EC627_MODE (read on every call) selects the behaviour:
//   ""/"ok"    transparent: bodies are "ENC:"/"MSG:" + input, tokens are fixed patterns
//   "fail"     every call returns 7 (ec627_encode_token returns 0: no token)
//   "initfail" ec627_init and m627_edinit return 1, the rest as "ok"
//   "token47"  ec627_msg_encode writes a 47-byte token
//   "shortlen" ec627_encode_len returns -1 (so a "+1" capacity is 0)
//   "negative" ec627_encode_len and ec627_decode_len return -600
//   "overlong" encoders report 100 bytes more than the capacity they were given
//   "fill"     m627_encode fills the whole buffer with 'A' and no terminator
// Extra exports for the tests: fake_ec627_calls(name), fake_ec627_reset(), fake_ec627_last_key().
//
// With FAKE_EC627_REAL naming a real library file, every entry point forwards to it instead,
// except the one named by FAKE_EC627_FAIL, which fails (-1; ec627_encode_token: 0, no token).
// FAKE_EC627_FAIL=token_length makes ec627_msg_encode hand back a 47-byte token. This lets the
// real daemon talk to a real push server with one entry point broken.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <string>

#define FAKE_API extern "C" __attribute__((visibility("default")))

namespace {

std::mutex g_mutex;
std::map<std::string, int> g_calls;
std::string g_lastKey;

std::string mode()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment is never written while tests run
    const char* m = std::getenv("FAKE_EC627_MODE");
    return m ? m : "";
}

bool is(const char* m)
{
    return mode() == m;
}

void count(const char* name)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_calls[name];
}

// Writes prefix + input into out when it fits; returns 0, or -2 for too small a capacity.
int wrap(const char* prefix, const unsigned char* in, int n, unsigned char* out, int* len)
{
    const int p = static_cast<int>(std::strlen(prefix));
    if (!out || !len || n < 0 || *len < p + n)
        return -2;
    std::memcpy(out, prefix, static_cast<size_t>(p));
    if (n)
        std::memcpy(out + p, in, static_cast<size_t>(n));
    *len = is("overlong") ? *len + 100 : p + n;
    return 0;
}

// The real library's entry point `name`, or null when not forwarding.
void* real(const char* name)
{
    static void* handle = [] {
        const char* path = std::getenv("FAKE_EC627_REAL");
        return path && *path ? dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
    }();
    return handle ? dlsym(handle, name) : nullptr;
}

bool failing(const char* name)
{
    const char* f = std::getenv("FAKE_EC627_FAIL");
    if (!f || std::strcmp(f, name) != 0)
        return false;
    std::fprintf(stderr, "fake_ec627: %s fails\n", name); // shows that the switch took effect
    return true;
}

} // namespace

// Forwards an entry point (see the top of this file); `failure` is its failing result.
#define FORWARD(name, failure, ...)                                                                \
    if (void* target = real(#name))                                                                \
        return failing(#name) ? (failure) : reinterpret_cast<decltype(&name)>(target)(__VA_ARGS__);

FAKE_API int fake_ec627_calls(const char* name)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_calls.find(name);
    return it == g_calls.end() ? 0 : it->second;
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
    count("ec627_init");
    FORWARD(ec627_init, -1)
    return is("initfail") ? 1 : 0;
}

FAKE_API int ec627_encode_len(int n)
{
    count("ec627_encode_len");
    FORWARD(ec627_encode_len, -1, n)
    if (is("shortlen"))
        return -1;
    if (is("negative"))
        return -600;
    return n + 64;
}

FAKE_API int ec627_encode_token(unsigned int product, unsigned char* token, int* len)
{
    count("ec627_encode_token");
    FORWARD(ec627_encode_token, 0, product, token, len)
    if (is("fail"))
        return 0;
    char text[64];
    const int n = std::snprintf(text, sizeof text, "fake-token-%u", product);
    if (*len < n)
        return 0;
    std::memcpy(token, text, static_cast<size_t>(n));
    *len = n;
    return 1;
}

FAKE_API int ec627_encode_data(const unsigned char* in, int n, unsigned char* out, int* len)
{
    count("ec627_encode_data");
    FORWARD(ec627_encode_data, -1, in, n, out, len)
    return is("fail") ? 7 : wrap("ENC:", in, n, out, len);
}

FAKE_API int ec627_decode_len(const unsigned char* in, int n)
{
    count("ec627_decode_len");
    FORWARD(ec627_decode_len, -1, in, n)
    return is("negative") ? -600 : n;
}

FAKE_API int ec627_decode(const unsigned char* in, int n, unsigned char* out, int* len)
{
    count("ec627_decode");
    FORWARD(ec627_decode, -1, in, n, out, len)
    if (is("fail"))
        return 7;
    if (n < 4 || std::memcmp(in, "ENC:", 4) != 0)
        return -3;
    return wrap("", in + 4, n - 4, out, len);
}

FAKE_API int ec627_get_token(unsigned int a, long long b, long long c, const unsigned char* d,
                             int dn, const unsigned char* e, int en, const unsigned char* in, int n,
                             unsigned char* token, int* len)
{
    count("ec627_get_token");
    FORWARD(ec627_get_token, -1, a, b, c, d, dn, e, en, in, n, token, len)
    return is("fail") ? 7 : wrap("get-token", nullptr, 0, token, len);
}

FAKE_API int ec627_msg_encode_token(unsigned int type, unsigned char* token, int* len)
{
    count("ec627_msg_encode_token");
    FORWARD(ec627_msg_encode_token, -1, type, token, len)
    if (is("fail"))
        return 7;
    if (*len < 48)
        return -2;
    for (int i = 0; i < 48; ++i)
        token[i] = static_cast<unsigned char>(i + 1);
    *len = 48;
    return 0;
}

FAKE_API int ec627_msg_encode(unsigned int type, const unsigned char* in, int n, unsigned char* out,
                              int* len, unsigned char* token, int* tlen)
{
    count("ec627_msg_encode");
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
    const int size = is("token47") ? 47 : 48;
    if (*tlen < size)
        return -2;
    const int rc = wrap("MSG:", in, n, out, len);
    if (rc != 0)
        return rc;
    for (int i = 0; i < size; ++i)
        token[i] = static_cast<unsigned char>(i + 1);
    *tlen = size;
    return 0;
}

FAKE_API int ec627_encode(unsigned int type, const unsigned char* in, int n, unsigned char* out,
                          int* len, unsigned char* token, int* tlen)
{
    count("ec627_encode");
    FORWARD(ec627_encode, -1, type, in, n, out, len, token, tlen)
    return ec627_msg_encode(type, in, n, out, len, token, tlen);
}

FAKE_API int m627_edinit()
{
    count("m627_edinit");
    FORWARD(m627_edinit, -1)
    return is("initfail") ? 1 : 0;
}

// Output: the text "k=" + key + "&p=" + input, NUL-terminated.
FAKE_API int m627_encode(const unsigned char* in, unsigned int n, unsigned char* out,
                         unsigned int* len, unsigned char* key, unsigned char* extra)
{
    count("m627_encode");
    FORWARD(m627_encode, -1, in, n, out, len, key, extra)
    g_lastKey = key ? reinterpret_cast<const char*>(key) : "(null)";
    if (is("fail"))
        return 7;
    if (is("fill")) {
        std::memset(out, 'A', *len);
        return 0;
    }
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
    count("m627_decode");
    FORWARD(m627_decode, -1, in, n, out, len, key, scratch)
    g_lastKey = key ? reinterpret_cast<const char*>(key) : "(null)";
    if (is("fail"))
        return 7;
    if (*len < n)
        return -2;
    if (n)
        std::memcpy(out, in, n);
    *len = n;
    return 0;
}
