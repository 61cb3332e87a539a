// Splitting of URLs, as a model has it that looks for the separators one after another. Fields that a URL does not fill
// keep what they held.

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "net/kvxurl.h"

namespace kvxfuzz {

namespace {

struct ModelUrl {
    std::string m_Scheme = "old scheme";
    std::string m_User = "old user";
    std::string m_Password = "old password";
    std::string m_Host = "old host";
    std::string m_Port = "old port";
    std::string m_Path = "old path";

    /// Whether the end of the text was reached.
    bool split(std::string const& text);

private:
    void splitHost(std::string const& text, std::size_t host, std::size_t from);
};

bool isLetterOrDigit(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9');
}

bool ModelUrl::split(std::string const& text) {
    std::size_t at = 0;
    while (at < text.size() && isLetterOrDigit(text[at])) {
        ++at;
    }
    for (char const separator : std::string("://")) {
        if (at == text.size()) {
            return true;
        }
        if (text[at] != separator) {
            return false;
        }
        if (separator == ':') {
            m_Scheme = text.substr(0, at);
        }
        ++at;
    }
    if (at == text.size()) {
        return true;
    }
    // The first character behind "//" separates nothing.
    std::size_t const query = std::min(text.find('?', at), text.size());
    if (text.find('@', at) >= query) {
        splitHost(text, at, at + 1);
        return true;
    }
    std::size_t const colon = text.find(':', at + 1);
    if (colon == std::string::npos) {
        return true;
    }
    m_User = text.substr(at, colon - at);
    std::size_t const end = text.find('@', colon + 1);
    if (end == std::string::npos) {
        return true;
    }
    m_Password = text.substr(colon + 1, end - colon - 1);
    splitHost(text, end + 1, end + 1);
    return true;
}

void ModelUrl::splitHost(std::string const& text, std::size_t host, std::size_t from) {
    std::size_t const end = text.find_first_of(":/", from);
    if (end == std::string::npos) {
        return;
    }
    m_Host = text.substr(host, end - host);
    std::size_t const path = text.find('/', end);
    if (path == std::string::npos) {
        return;
    }
    if (text[end] == ':') {
        m_Port = text.substr(end + 1, path - end - 1);
    } else if (m_Scheme == "http") {
        m_Port = "80";
    } else if (m_Scheme == "https") {
        m_Port = "443";
    }
    m_Path = text.substr(path);
}

}  // namespace

void runTarget(Input input) {
    std::string const text = input.rest();
    std::string const visible = upToZero(text);
    ModelUrl model;
    URL_INFO info;
    info.scheme = model.m_Scheme.c_str();
    info.user = model.m_User.c_str();
    info.password = model.m_Password.c_str();
    info.host = model.m_Host.c_str();
    info.port = model.m_Port.c_str();
    info.path = model.m_Path.c_str();
    requireEqual(SplitUrl(tbText(text), info), model.split(visible) ? -1 : 0, "result of splitting");
    requireEqual(textOf(info.scheme), model.m_Scheme, "scheme");
    requireEqual(textOf(info.user), model.m_User, "user");
    requireEqual(textOf(info.password), model.m_Password, "password");
    requireEqual(textOf(info.host), model.m_Host, "host");
    requireEqual(textOf(info.port), model.m_Port, "port");
    requireEqual(textOf(info.path), model.m_Path, "path");

    std::string const start = text.substr(0, 5);
    require(IsHttp(tbText(text)) == (start == "http:" || start == "https"), "five characters make a URL of HTTP");
}

}  // namespace kvxfuzz
