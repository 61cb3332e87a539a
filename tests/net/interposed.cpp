// Definitions that replace gethostbyname_r() and functions of the TLS library in the test program.
//
// Each passes its call on to the shared library unless a test has put a script in its place. The scripted resolver
// demands as much memory as the test says, like a real one.

#include "tests/net/interposed.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

namespace kvxtest {

namespace {

ScriptedResolver* g_Resolver = nullptr;
thread_local int g_Contexts = 0;
thread_local std::optional<FailingTls::What> g_Failing;

thread_local FailingTls::Why g_Why = FailingTls::Why::kNone;
thread_local std::vector<TlsCallEnd> g_Ends;  ///< The next one last.
thread_local std::optional<long> g_Verdict;
thread_local std::function<void()> g_WithoutAlgorithms;  ///< Called meanwhile.

bool fails(FailingTls::What what) {
    if (g_Failing != what) {
        return false;
    }
    if (g_Why == FailingTls::Why::kMemory) {
        ERR_raise(ERR_LIB_SSL, ERR_R_MALLOC_FAILURE);
    }
    return true;
}

template <class Call>
int asScripted(Call call) {
    if (g_Ends.empty()) {
        return call();
    }
    TlsCallEnd const end = g_Ends.back();
    g_Ends.pop_back();
    int const result = end.m_IsMade ? call() : -1;
    int const number = end.m_Errno == TlsCallEnd::kAsItIs ? errno : end.m_Errno;
    for (int const reason : end.m_Reasons) {
        ERR_raise(ERR_LIB_SSL, reason);
    }
    errno = number;
    return result;
}

/// The function that would have been called.
template <class Function>
Function* original(char const* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// The parts of a scripted answer in the caller's memory.
struct AnswerMemory {
    char* m_Aliases[1];
    char* m_Addresses[2];
    char m_Address[4];
};

}  // namespace

struct Interposition {
    static int lookUp(char const* name, hostent* storage, char* buffer, std::size_t bytes, hostent** result,
                      int* reason) {
        ScriptedResolver& resolver = *g_Resolver;
        resolver.m_LookUps.emplace_back(name);
        *result = nullptr;
        *reason = HOST_NOT_FOUND;
        if (resolver.m_Answer == ScriptedResolver::Answer::kUnknown) {
            return ENOENT;
        }
        if (bytes < sizeof(AnswerMemory) || bytes < resolver.m_Bytes) {
            *reason = NETDB_INTERNAL;
            return ERANGE;
        }
        auto* const memory = reinterpret_cast<AnswerMemory*>(buffer);
        *memory = {};
        if (resolver.m_Answer == ScriptedResolver::Answer::kAddress) {
            ::inet_pton(AF_INET, resolver.m_Address.c_str(), memory->m_Address);
            memory->m_Addresses[0] = memory->m_Address;
        }
        *storage = {};
        storage->h_aliases = memory->m_Aliases;
        storage->h_addrtype = AF_INET;
        storage->h_length = sizeof memory->m_Address;
        storage->h_addr_list = memory->m_Addresses;
        *result = storage;
        return 0;
    }
};

ScriptedResolver::ScriptedResolver(Answer answer, std::string const& address, std::size_t bytes)
    : m_Answer(answer), m_Address(address), m_Bytes(bytes) {
    g_Resolver = this;
}

ScriptedResolver::~ScriptedResolver() {
    g_Resolver = nullptr;
}

int contextsMade() {
    return g_Contexts;
}

FailingTls::FailingTls(What what, Why why) {
    g_Failing = what;
    g_Why = why;
}

FailingTls::~FailingTls() {
    g_Failing.reset();
}

LackingContexts::LackingContexts(std::function<void()> meanwhile) {
    g_WithoutAlgorithms = std::move(meanwhile);
}

LackingContexts::~LackingContexts() {
    g_WithoutAlgorithms = nullptr;
}

ScriptedTls::ScriptedTls(std::vector<TlsCallEnd> ends) {
    g_Ends.assign(ends.rbegin(), ends.rend());
}

ScriptedTls::~ScriptedTls() {
    g_Ends.clear();
}

ScriptedVerdict::ScriptedVerdict(long verdict) {
    g_Verdict = verdict;
}

ScriptedVerdict::~ScriptedVerdict() {
    g_Verdict.reset();
}

}  // namespace kvxtest

extern "C" int gethostbyname_r(char const* name, hostent* storage, char* buffer, std::size_t bytes, hostent** result,
                               int* reason) {
    if (kvxtest::g_Resolver != nullptr) {
        return kvxtest::Interposition::lookUp(name, storage, buffer, bytes, result, reason);
    }
    static auto* const real = kvxtest::original<decltype(gethostbyname_r)>("gethostbyname_r");
    return real(name, storage, buffer, bytes, result, reason);
}

extern "C" SSL_CTX* SSL_CTX_new(SSL_METHOD const* method) {
    static auto* const real = kvxtest::original<decltype(SSL_CTX_new)>("SSL_CTX_new");
    ++kvxtest::g_Contexts;
    if (kvxtest::g_WithoutAlgorithms) {
        kvxtest::g_WithoutAlgorithms();
        ERR_raise(ERR_LIB_SSL, ERR_R_MALLOC_FAILURE);
    }
    return kvxtest::fails(kvxtest::FailingTls::What::kContext) ? nullptr : real(method);
}

extern "C" long SSL_get_verify_result(SSL const* session) {
    static auto* const real = kvxtest::original<decltype(SSL_get_verify_result)>("SSL_get_verify_result");
    return kvxtest::g_Verdict.value_or(real(session));
}

extern "C" unsigned long ERR_peek_error() {
    static auto* const real = kvxtest::original<decltype(ERR_peek_error)>("ERR_peek_error");
    bool const hasNoQueue = kvxtest::g_Failing && kvxtest::g_Why == kvxtest::FailingTls::Why::kNoQueue;
    return hasNoQueue ? 0 : real();
}

extern "C" SSL* SSL_new(SSL_CTX* context) {
    static auto* const real = kvxtest::original<decltype(SSL_new)>("SSL_new");
    return kvxtest::fails(kvxtest::FailingTls::What::kSession) ? nullptr : real(context);
}

extern "C" int SSL_set_fd(SSL* session, int socket) {
    static auto* const real = kvxtest::original<decltype(SSL_set_fd)>("SSL_set_fd");
    return kvxtest::fails(kvxtest::FailingTls::What::kSocket) ? 0 : real(session, socket);
}

extern "C" long SSL_CTX_ctrl(SSL_CTX* context, int command, long value, void* pointer) {
    static auto* const real = kvxtest::original<decltype(SSL_CTX_ctrl)>("SSL_CTX_ctrl");
    bool const isVersion = command == SSL_CTRL_SET_MIN_PROTO_VERSION;
    return isVersion && kvxtest::fails(kvxtest::FailingTls::What::kVersion) ? 0
                                                                            : real(context, command, value, pointer);
}

extern "C" BIO* BIO_new_mem_buf(void const* bytes, int length) {
    static auto* const real = kvxtest::original<decltype(BIO_new_mem_buf)>("BIO_new_mem_buf");
    return kvxtest::fails(kvxtest::FailingTls::What::kTrustText) ? nullptr : real(bytes, length);
}

extern "C" int X509_STORE_add_cert(X509_STORE* store, X509* certificate) {
    static auto* const real = kvxtest::original<decltype(X509_STORE_add_cert)>("X509_STORE_add_cert");
    return kvxtest::fails(kvxtest::FailingTls::What::kTrustedEntry) ? 0 : real(store, certificate);
}

extern "C" int SSL_CTX_set_default_verify_dir(SSL_CTX* context) {
    static auto* const real =
        kvxtest::original<decltype(SSL_CTX_set_default_verify_dir)>("SSL_CTX_set_default_verify_dir");
    return kvxtest::fails(kvxtest::FailingTls::What::kTrustedFolder) ? 0 : real(context);
}

extern "C" int SSL_connect(SSL* session) {
    static auto* const real = kvxtest::original<decltype(SSL_connect)>("SSL_connect");
    return kvxtest::asScripted([&] { return real(session); });
}

extern "C" int SSL_read(SSL* session, void* buffer, int bytes) {
    static auto* const real = kvxtest::original<decltype(SSL_read)>("SSL_read");
    return kvxtest::asScripted([&] { return real(session, buffer, bytes); });
}
