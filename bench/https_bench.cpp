// One HTTPS exchange with a server in this process: connects, verifies the server's certificate, receives 1 KB.
//
// Contestants: libcurl's easy interface with a new handle per exchange; with a handle kept, which resumes sessions. The
// library resumes them with its setting TLSREUSE alone. Processor time of the client.
//
// Times faster in one run:
//   HTTPS exchange, libcurl             1.08
//   HTTPS exchange, TLSREUSE, libcurl   3.09

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/bench_support.h"
#include "bench/curlfetch.h"
#include "bench/responder.h"
#include "core/kvxbase.h"
#include "net/kvxhttp.h"

namespace {

using kvxbench::require;
using kvxbench::Responder;
using kvxbench::TlsIdentity;

constexpr std::size_t kBytes = 1024;

/// A file with a text. Removed by the destructor.
class TemporaryFile {
public:
    explicit TemporaryFile(std::string const& text)
        : m_Path((std::filesystem::temp_directory_path() / "kvxbench-XXXXXX").string()) {
        int const file = ::mkstemp(m_Path.data());
        require(file != -1, "cannot create a temporary file");
        ::close(file);
        std::ofstream out(m_Path);
        out << text;
        require(out.flush().good(), "cannot write a temporary file");
    }
    TemporaryFile(TemporaryFile const&) = delete;
    TemporaryFile& operator=(TemporaryFile const&) = delete;
    ~TemporaryFile() { ::unlink(m_Path.c_str()); }

    [[nodiscard]] std::string const& path() const { return m_Path; }

private:
    std::string m_Path;
};

/// The size of the body; 0 after a failure.
std::size_t oursFetch(std::string const& port, std::string const& trustFile, bool reusesTls) {
    KVX_RequestInfo info;
    info.scheme = "https";
    info.user = kvxbench::kUser;
    info.password = kvxbench::kPassword;
    info.host = "127.0.0.1";
    info.port = port.c_str();
    info.path = "/vt/auto?DATA=some";
    info.transfer.verifyPeer = true;
    info.transfer.trustFile = trustFile.c_str();
    info.transfer.reuseTls = reusesTls;
    info.transfer.isQuiet = true;
    TbStringStream body;
    try {
        KVX_HttpSession session(info);
        session.ConnectNetwork();
        session.BuildRequest();
        session.SendRequest();
        session.ReceiveResponse();
        session.ExtractResponse(body);
    } catch (KVX_Exception const&) {
        return 0;
    }
    return body.length();
}

std::size_t curlFetch(std::string const& port, std::string const& trustFile) {
    return kvxbench::CurlFetch("https", port, trustFile).body().size();
}

void setUp() {
    require(::curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK, "libcurl cannot start");
    static TlsIdentity const s_Identity;
    static TemporaryFile const s_Trust(s_Identity.pem());
    static TemporaryFile const s_OtherTrust(TlsIdentity().pem());
    static Responder const s_Server(std::string(kBytes, 'x'), &s_Identity);
    static kvxbench::CurlFetch s_KeptHandle("https", s_Server.port(), s_Trust.path());
    static std::string const& s_Port = s_Server.port();

    require(oursFetch(s_Port, s_Trust.path(), false) == kBytes && curlFetch(s_Port, s_Trust.path()) == kBytes,
            "a response is incomplete");
    require(oursFetch(s_Port, s_OtherTrust.path(), false) == 0 && curlFetch(s_Port, s_OtherTrust.path()) == 0,
            "a server is trusted without an authority");
    require(s_Server.resumed() == 0, "a session is resumed");
    for (int i = 0; i < 2; ++i) {
        require(oursFetch(s_Port, s_Trust.path(), true) == kBytes && s_KeptHandle.body().size() == kBytes,
                "a response is incomplete");
    }
    require(s_Server.resumed() == 2, "a session is not resumed");

    auto const newHandle = [] { benchmark::DoNotOptimize(curlFetch(s_Port, s_Trust.path())); };
    kvxbench::addContest("HTTPS exchange", [] { benchmark::DoNotOptimize(oursFetch(s_Port, s_Trust.path(), false)); },
                         {{"libcurl", newHandle, 1}});
    kvxbench::addContest("HTTPS exchange, TLSREUSE",
                         [] { benchmark::DoNotOptimize(oursFetch(s_Port, s_Trust.path(), true)); },
                         {{"libcurl", newHandle, 1.8},
                          {"libcurl, handle kept", [] { benchmark::DoNotOptimize(s_KeptHandle.body().size()); }}});
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
