/// Exchanges with libcurl's easy interface.
#ifndef TALLOWIN_BENCH_CURLFETCH_H
#define TALLOWIN_BENCH_CURLFETCH_H

#include <curl/curl.h>

#include <memory>
#include <string>

#include "bench/require.h"

namespace kvxbench {

constexpr char kUser[] = "merchant";
constexpr char kPassword[] = "secret";

/// A handle for one HTTP/1.0 exchange after another with 127.0.0.1, each on a connection of its own.
class CurlFetch {
public:
    /// `scheme` is "http", or "https" with the PEM file of authorities `trustFile`.
    CurlFetch(std::string const& scheme, std::string const& port, std::string const& trustFile = "")
        : m_Handle(::curl_easy_init()) {
        std::string const url = scheme + "://127.0.0.1:" + port + "/vt/auto?DATA=some";
        CURL* const handle = m_Handle.get();
        ::curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
        ::curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_0});
        ::curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
        ::curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
        ::curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
        ::curl_easy_setopt(handle, CURLOPT_USERNAME, kUser);
        ::curl_easy_setopt(handle, CURLOPT_PASSWORD, kPassword);
        ::curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &append);
        ::curl_easy_setopt(handle, CURLOPT_WRITEDATA, &m_Body);
        if (!trustFile.empty()) {
            ::curl_easy_setopt(handle, CURLOPT_CAINFO, trustFile.c_str());
            ::curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
        }
    }

    /// The body of a response. Empty after a failure.
    std::string const& body() {
        m_Body.clear();
        if (::curl_easy_perform(m_Handle.get()) != CURLE_OK) {
            m_Body.clear();
        }
        return m_Body;
    }

private:
    struct FreeHandle {
        void operator()(CURL* handle) const { ::curl_easy_cleanup(handle); }
    };

    static std::size_t append(char* data, std::size_t size, std::size_t count, void* into) {
        static_cast<std::string*>(into)->append(data, size * count);
        return size * count;
    }

    std::unique_ptr<CURL, FreeHandle> m_Handle;
    std::string m_Body;
};

}  // namespace kvxbench

#endif
