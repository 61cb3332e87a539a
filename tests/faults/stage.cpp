#include "tests/faults/stage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "tests/faults/failingheap.h"
#include "tests/support/rawserver.h"
#include "tests/support/testdata.h"

namespace kvxtest {

std::string const kServedConfig =
    R"(<KVX MSGTYPE="SetupResponse" VTURL="http://127.0.0.1:7/pay" CAPTUREURL="http://127.0.0.1:7/capture" )"
    R"(VTKEYID="server" CUSTOMERID="c2" VERSION="2"/>)";
std::string const kServedDefaults = R"(<KVX MSGTYPE="LoadDefaultsResponse" LANGID="fr"/>)";

namespace {

constexpr char kConfig[] =
    R"(<KVX VTURL="http://127.0.0.1:7/pay" CAPTUREURL="http://127.0.0.1:7/capture" VTKEYID="server" )"
    R"(CUSTOMERID="c1" VERSION="1"/>)";
constexpr char kDefaults[] =
    R"(<KVX ISVALID="no" ALLOWCOLLECT="1" DELIVERY="2" LANGID="de" SUCCESSLINK="http://s" NOTIFYADDRESS="http://n" )"
    R"(DEFAULTVALIDITY="5" BACKLINK="http://b" FAILLINK="http://f" PAYINITTTL="3600"/>)";
constexpr char kTemporaryPrefix[] = ".tallowin-";
constexpr char kEndOfRequest[] = "\r\n\r\n";

bool isHexText(std::string const& text) {
    constexpr std::size_t kLeast = 100;
    return text.size() > kLeast && text.size() % 2 == 0 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

// The state of the scripted network.
std::function<std::string(std::string const&)> g_Respond;
std::vector<std::string> g_Requests;
std::string g_Response;
std::size_t g_Sent = 0;
bool g_HasResponse = false;

bool isComplete(std::string const& request) {
    std::size_t const length = std::strlen(kEndOfRequest);
    return request.size() >= length && request.compare(request.size() - length, length, kEndOfRequest) == 0;
}

int scriptedSocket(int, int, int) {
    HeapPause const own;
    g_Requests.emplace_back();
    g_HasResponse = false;
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool isSocket(int socket) {
    errno = socket < 0 ? EBADF : errno;
    return socket >= 0;
}

int scriptedConnect(int socket, sockaddr const*, socklen_t) {
    return isSocket(socket) ? 0 : -1;
}

ssize_t scriptedSend(int socket, void const* buffer, std::size_t bytes, int) {
    HeapPause const own;
    if (!isSocket(socket)) {
        return -1;
    }
    g_Requests.back().append(static_cast<char const*>(buffer), bytes);
    return static_cast<ssize_t>(bytes);
}

ssize_t scriptedReceive(int socket, void* buffer, std::size_t bytes, int) {
    HeapPause const own;
    if (!isSocket(socket)) {
        return -1;
    }
    if (!g_HasResponse) {
        g_Response = isComplete(g_Requests.back()) ? httpResponse(g_Respond(g_Requests.back())) : "";
        g_Sent = 0;
        g_HasResponse = true;
    }
    std::size_t const count = std::min(bytes, g_Response.size() - g_Sent);
    std::memcpy(buffer, g_Response.data() + g_Sent, count);
    g_Sent += count;
    return static_cast<ssize_t>(count);
}

}  // namespace

std::string bodyFor(std::string const& text) {
    auto const has = [&](char const* part) { return text.find(part) != std::string::npos; };
    if (has("SetupRequest")) {
        return kServedConfig;
    }
    if (has("LoadDefaultsRequest")) {
        return kServedDefaults;
    }
    if (has("KeyQueryRequest")) {
        return R"(<KVX MSGTYPE="KeyQueryResponse" KEYID="server" KEYBLOB=")" + dataHex("rsa/key512.public.hex") +
               "\"/>";
    }
    if (has("KeyExportRequest")) {
        return R"(<KVX MSGTYPE="KeyExportResponse"/>)";
    }
    if (has("ProbeRequest")) {
        return R"(<KVX MSGTYPE="ProbeResponse" ANSWER="42"/>)";
    }
    return has("/capture?") ? R"(<KVX MSGTYPE="PayConfirm"/>)" : R"(<KVX MSGTYPE="Error" MESSAGE="what?"/>)";
}

Stage::Stage(std::string path) : m_Path(std::move(path)) {
    std::filesystem::remove_all(m_Path);
    std::filesystem::create_directories(m_Path + "/keys/private");
    std::filesystem::create_directories(m_Path + "/keys/public");
    write("keys/private/own", dataHex("rsa/key512.private.hex"));
    write("keys/public/own", dataHex("rsa/key512.public.hex"));
    write("keys/public/server", dataHex("rsa/key512.public.hex"));
    write("keys/current", "own");
    write("config.xml", kConfig);
    write("default.xml", kDefaults);
}

Stage::~Stage() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

void Stage::write(std::string const& name, std::string const& content) const {
    std::ofstream(m_Path + "/" + name, std::ios::binary) << content;
}

void Stage::remove(std::string const& name) const {
    std::filesystem::remove(m_Path + "/" + name);
}

std::string Stage::read(std::string const& name) const {
    std::ifstream in(m_Path + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::map<std::string, std::string> Stage::files() const {
    std::map<std::string, std::string> found;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(m_Path)) {
        if (entry.is_regular_file()) {
            std::string const name = entry.path().lexically_relative(m_Path);
            found[name] = read(name);
        }
    }
    return found;
}

void Stage::remember() {
    m_Remembered = files();
}

std::string Stage::whatIsBroken(std::map<std::string, std::set<std::string>> const& newTexts) const {
    std::map<std::string, std::string> const now = files();
    std::string broken;
    for (auto const& [name, content] : now) {
        auto const old = m_Remembered.find(name);
        auto const fresh = newTexts.find(name);
        bool const isKey = name.rfind("keys/p", 0) == 0;
        if (name.find(kTemporaryPrefix) != std::string::npos) {
            broken += "left behind: " + name + "; ";
        } else if ((old != m_Remembered.end() && content == old->second) ||
                   (fresh != newTexts.end() && fresh->second.count(content) != 0)) {
            continue;
        } else if (name == "keys/current") {
            if (now.count("keys/public/" + content) == 0 || now.count("keys/private/" + content) == 0) {
                broken += "the current key is no key: " + content + "; ";
            }
        } else if (!isKey || !isHexText(content)) {
            broken += "neither old nor new: " + name + "; ";
        }
    }
    for (auto const& [name, content] : m_Remembered) {
        if (now.count(name) == 0 && name.find(kTemporaryPrefix) == std::string::npos) {
            broken += "gone: " + name + "; ";
        }
    }
    return broken;
}

ScriptedNetwork::ScriptedNetwork(std::function<std::string(std::string const&)> respond) {
    g_Respond = std::move(respond);
    g_Requests.clear();
    m_Calls->socket = &scriptedSocket;
    m_Calls->connect = &scriptedConnect;
    m_Calls->send = &scriptedSend;
    m_Calls->recv = &scriptedReceive;
    m_Calls->shutdown = [](int, int) { return 0; };
    m_Calls->setsockopt = [](int, int, int, void const*, socklen_t) { return 0; };
    m_Calls->poll = [](pollfd* files, nfds_t, int) {
        files->revents = files->events;
        return 1;
    };
    m_Calls->getsockopt = [](int, int, int, void* value, socklen_t*) {
        *static_cast<int*>(value) = 0;
        return 0;
    };
}

ScriptedNetwork::~ScriptedNetwork() {
    forgetRequests();
    g_Response.clear();
    g_Response.shrink_to_fit();
    g_Respond = nullptr;
}

std::vector<std::string> const& ScriptedNetwork::requests() {
    return g_Requests;
}

void ScriptedNetwork::forgetRequests() {
    g_Requests.clear();
    g_Requests.shrink_to_fit();
}

}  // namespace kvxtest
