// nginx, tinyproxy and openssl s_server, each started on a directory of its own.
//
// A free port can be taken by another process before the server opens it, so a start is tried up to five times with a
// new port. s_server picks its port itself and reports it.

#include "tests/peers/peerssupport.h"

#include <functional>
#include <stdexcept>

#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"

namespace kvxtest {

namespace {

/// Another process may take a free port before the program opens it.
constexpr int kAttempts = 5;

/// Starts a program until it listens on the port that `configure` chose and wrote into its configuration.
std::unique_ptr<ChildProcess> startListening(std::vector<std::string> const& arguments,
                                             TemporaryDirectory const& directory,
                                             std::function<std::uint16_t()> const& configure) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        std::uint16_t const port = configure();
        auto process = std::make_unique<ChildProcess>(arguments, directory.path(), directory.file("output"));
        if (process->waitForPort(port)) {
            return process;
        }
    }
    throw std::runtime_error(arguments.front() + " does not start: " + contentOf(directory.file("output")));
}

void writeIdentity(TemporaryDirectory const& directory) {
    directory.write("certificate.pem", TlsIdentity::shared().certificatePem());
    directory.write("key.pem", TlsIdentity::shared().keyPem());
}

std::string nginxConfiguration(std::string const& directory, std::uint16_t port, std::uint16_t securePort) {
    return "daemon off;\n"
           "master_process off;\n"
           "worker_processes 1;\n"
           "pid " +
           directory +
           "/pid;\n"
           "error_log " +
           directory +
           "/error.log;\n"
           "events { worker_connections 64; }\n"
           "http {\n"
           "  access_log off;\n"
           "  client_body_temp_path " +
           directory +
           "/t1;\n"
           "  proxy_temp_path " +
           directory +
           "/t2;\n"
           "  fastcgi_temp_path " +
           directory +
           "/t3;\n"
           "  uwsgi_temp_path " +
           directory +
           "/t4;\n"
           "  scgi_temp_path " +
           directory +
           "/t5;\n"
           "  default_type text/plain;\n"
           "  server {\n"
           "    listen 127.0.0.1:" +
           std::to_string(port) +
           ";\n"
           "    listen 127.0.0.1:" +
           std::to_string(securePort) +
           " ssl;\n"
           "    ssl_certificate " +
           directory +
           "/certificate.pem;\n"
           "    ssl_certificate_key " +
           directory +
           "/key.pem;\n"
           "    root " +
           directory +
           "/site;\n"
           "    location = /echo { return 200 \"$request\\n$http_authorization\\n$http_useragent\\n\"; }\n"
           "    location = /private {\n"
           "      auth_basic \"private\";\n"
           "      auth_basic_user_file " +
           directory +
           "/users;\n"
           "    }\n"
           "    location = /moved { return 302 /file; }\n"
           "    location = /busy { return 503; }\n"
           "  }\n"
           "}\n";
}

}  // namespace

Nginx::Nginx(std::string const& file) {
    m_Directory.write("site/file", file);
    m_Directory.write("site/private", "welcome");
    m_Directory.write("users", "user:{PLAIN}pass\n");
    writeIdentity(m_Directory);
    m_Process = startListening(
        {"nginx", "-c", m_Directory.file("nginx.conf"), "-e", m_Directory.file("error.log")}, m_Directory, [this] {
            m_Port = freePort();
            m_SecurePort = freePort();
            m_Directory.write("nginx.conf", nginxConfiguration(m_Directory.path(), m_Port, m_SecurePort));
            return m_SecurePort;
        });
}

std::string Nginx::plain(std::string const& path) const {
    return "http://127.0.0.1:" + std::to_string(m_Port) + path;
}

std::string Nginx::secure(std::string const& path) const {
    return "https://127.0.0.1:" + std::to_string(m_SecurePort) + path;
}

Tinyproxy::Tinyproxy(std::string const& password) {
    m_Process = startListening({"tinyproxy", "-d", "-c", m_Directory.file("tinyproxy.conf")}, m_Directory, [&] {
        m_Port = freePort();
        m_Directory.write("tinyproxy.conf", "Port " + std::to_string(m_Port) +
                                                "\n"
                                                "Listen 127.0.0.1\n"
                                                "Timeout 20\n"
                                                "Allow 127.0.0.1\n"
                                                "MaxClients 10\n"
                                                "LogLevel Connect\n"
                                                "PidFile \"" +
                                                m_Directory.file("pid") + "\"\n" +
                                                (password.empty() ? "" : "BasicAuth user " + password + "\n"));
        return m_Port;
    });
}

std::string Tinyproxy::log() const {
    return contentOf(m_Directory.file("output"));
}

OpensslServer::OpensslServer(std::string const& option, std::string const& file) {
    m_Directory.write("file", file);
    writeIdentity(m_Directory);
    m_Process = std::make_unique<ChildProcess>(
        std::vector<std::string>{"openssl", "s_server", "-accept", "127.0.0.1:0", "-cert", "certificate.pem", "-key",
                                 "key.pem", "-WWW", option},
        m_Directory.path(), m_Directory.file("output"));
    m_Port = m_Process->waitForLine("ACCEPT 127.0.0.1:");
    if (m_Port.empty()) {
        throw std::runtime_error("openssl s_server does not start: " + contentOf(m_Directory.file("output")));
    }
}

std::string OpensslServer::url(std::string const& path) const {
    return "https://127.0.0.1:" + m_Port + path;
}

std::string fetchThrough(Tinyproxy const& proxy, std::string const& url) {
    KVX_RequestInfo request = requestFor(url);
    request.proxyHost = "127.0.0.1";
    request.proxyPort = stringOf(proxy.port());
    return fetch(request);
}

}  // namespace kvxtest
