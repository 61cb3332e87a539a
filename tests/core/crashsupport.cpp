#include "tests/core/crashsupport.h"

#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "core/kvxfile.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"

namespace kvxtest {

namespace {

constexpr char kNewKeyPrefix[] = "0-4711-";
constexpr std::size_t kNewKeyDigits = 32;

std::string withoutPadding(std::string content) {
    content.erase(content.find_last_not_of('\0') + 1);
    return content;
}

bool isTemporary(std::filesystem::path const& path) {
    return path.filename().string().rfind(".tallowin-", 0) == 0;
}

bool isNewKeyId(std::string const& keyId) {
    std::size_t const digits = sizeof kNewKeyPrefix - 1;
    return keyId.rfind(kNewKeyPrefix, 0) == 0 && keyId.size() == digits + kNewKeyDigits &&
           keyId.find_first_not_of("0123456789abcdef", digits) == std::string::npos;
}

bool isPublicKey(std::string const& text) {
    Bytes blob(text.size() / 2 + 1);
    unsigned long size = blob.size();
    if (text.size() % 2 != 0 || KVX_Context().HexToBuffer(text.c_str(), blob.data(), &size) != KVX_OK) {
        return false;
    }
    unsigned char const* position = blob.data();
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> const key(
        d2i_PublicKey(EVP_PKEY_RSA, nullptr, &position, static_cast<long>(size)), &EVP_PKEY_free);
    return key != nullptr && position == blob.data() + size;
}

/// The flaws of one account.
class Examination {
public:
    Examination(std::string path, Allowed const& allowed) : m_Path(std::move(path)), m_Allowed(allowed) {
        m_Context.Open(m_Path.c_str());
    }

    std::string flaws() {
        examine("config.xml", m_Allowed.m_Configuration);
        examine("default.xml", m_Allowed.m_Defaults);
        examine(std::string("keys/public/") + kServerKeyId, m_Allowed.m_ServerKey);
        examineCurrentKey();
        examineOtherKeys();
        examinePayment();
        return m_Flaws;
    }

private:
    void add(std::string const& flaw) { m_Flaws += flaw + "\n"; }

    [[nodiscard]] std::filesystem::path file(std::string const& name) const { return m_Path + "/" + name; }

    [[nodiscard]] std::string read(std::string const& name) const {
        std::string const content = contentOf(file(name));
        return m_Allowed.m_MayHavePadding ? withoutPadding(content) : content;
    }

    void examine(std::string const& name, Allowed::Contents const& contents) {
        if (!std::filesystem::exists(file(name))) {
            if (contents.count("") == 0) {
                add(name + " is gone");
            }
            return;
        }
        std::string const content = read(name);
        if (content.empty() || contents.count(content) == 0) {
            add(name + " holds \"" + content + "\"");
        }
    }

    void examineCurrentKey() {
        if (!std::filesystem::exists(file("keys/current"))) {
            if (m_Allowed.m_HasNewKey || m_Allowed.m_KeyId.count("") == 0) {
                add("keys/current is gone");
            }
            return;
        }
        std::string const keyId = read("keys/current");
        if (!isNewKeyId(keyId) && (m_Allowed.m_HasNewKey || keyId.empty() || m_Allowed.m_KeyId.count(keyId) == 0)) {
            add("keys/current holds \"" + keyId + "\"");
            return;
        }
        examinePair(keyId);
    }

    /// Both halves of a key are there and fit.
    void examinePair(std::string const& keyId) {
        std::int32_t const code = thrownCode([&] {
            TbString signature;
            m_Context.SignData("a text", keyId.c_str(), signature);
            m_Context.VerifyData("a text", keyId.c_str(), signature);
        });
        if (code != KVX_OK) {
            add("the key " + keyId + " does not work: " + std::to_string(static_cast<std::uint32_t>(code)));
        }
    }

    void examineOtherKeys() {
        std::error_code isAbsent;
        for (auto const& entry : std::filesystem::directory_iterator(file("keys/public"), isAbsent)) {
            std::string const name = entry.path().filename();
            if (!isTemporary(entry.path()) && !isPublicKey(read("keys/public/" + name))) {
                add("keys/public/" + name + " is no key");
            }
        }
        for (auto const& entry : std::filesystem::directory_iterator(file("keys/private"), isAbsent)) {
            if (!isTemporary(entry.path())) {
                examinePair(entry.path().filename());
            }
        }
    }

    void examinePayment() {
        if (!m_Allowed.m_Pays) {
            return;
        }
        Thrown const failure = thrown([&] {
            KVX_Message message;
            message.Create(&m_Context, "PayInit");
            message.SetAttribute("AMOUNT", "100");
            TbString url;
            message.GetURL(url);
            if (url.find("&SIGNATURE=") == TbString::npos) {
                add("the payment URL has no signature");
            }
        });
        if (failure.m_Code != KVX_OK) {
            add("no payment URL can be made: " + failure.m_Text);
        }
    }

    std::string m_Path;
    Allowed const& m_Allowed;
    KVX_Context m_Context;
    std::string m_Flaws;
};

}  // namespace

AccountFiles filesFromServer() {
    return {
        R"(<KVX MSGTYPE="SetupResponse" VERSION="7" VTKEYID="vt-1" CUSTOMERID="4711" VTURL="https://pay.example/"/>)",
        R"(<KVX MSGTYPE="LoadDefaultsResponse" KVX.ISVALID="yes" LANGID="en" DELIVERY="somewhere else"/>)",
        dataHex("rsa/key1024.public.hex"), ""};
}

AccountFiles earlierFiles() {
    return {R"(<KVX MSGTYPE="SetupResponse" VERSION="6" VTKEYID="vt-1" CUSTOMERID="4711" NAME="a name of before"
                    VTURL="https://pay.example/a/longer/page"/>)",
            R"(<KVX KVX.ISVALID="yes" LANGID="de"/>)", dataHex("rsa/key1024.public.hex"), "own"};
}

void writeFiles(Account const& account, AccountFiles const& files) {
    account.writeOwnKey(files.m_KeyId);
    account.write("keys/current", files.m_KeyId);
    account.write("config.xml", files.m_Configuration);
    account.write("default.xml", files.m_Defaults);
    account.write(std::string("keys/public/") + kServerKeyId, files.m_ServerKey);
}

SetupServer::SetupServer()
    : m_Server([files = filesFromServer()](Peer& peer) {
          std::string const message = percentDecoded(queryValue(peer.receiveRequest(), "DATA"));
          auto const asksFor = [&](char const* type) { return message.find(type) != std::string::npos; };
          if (asksFor("\"SetupRequest\"")) {
              peer.send(httpResponse(files.m_Configuration));
          } else if (asksFor("\"LoadDefaultsRequest\"")) {
              peer.send(httpResponse(files.m_Defaults));
          } else if (asksFor("\"KeyQueryRequest\"")) {
              peer.send(httpResponse(std::string("<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"") + kServerKeyId +
                                     "\" KEYBLOB=\"" + files.m_ServerKey + "\"/>"));
          } else if (asksFor("\"KeyExportRequest\"")) {
              peer.send(httpResponse("<KVX MSGTYPE=\"KeyExportResponse\"/>"));
          }
      }) {}

Allowed Allowed::during(AccountFiles const& before) {
    AccountFiles const sent = filesFromServer();
    Allowed allowed;
    allowed.m_Configuration = {before.m_Configuration, sent.m_Configuration};
    allowed.m_Defaults = {before.m_Defaults};
    if (before.m_Defaults.find("KVX.ISVALID=\"yes\"") == std::string::npos) {
        allowed.m_Defaults.insert(sent.m_Defaults);
    }
    allowed.m_ServerKey = {before.m_ServerKey, sent.m_ServerKey};
    allowed.m_KeyId = {before.m_KeyId};
    allowed.m_Pays = !before.m_KeyId.empty();
    return allowed;
}

Allowed Allowed::after(AccountFiles const& before) {
    Allowed allowed = during(before);
    AccountFiles const sent = filesFromServer();
    allowed.m_Configuration = {sent.m_Configuration};
    allowed.m_Defaults = {allowed.m_Defaults.count(sent.m_Defaults) != 0 ? sent.m_Defaults : before.m_Defaults};
    allowed.m_ServerKey = {sent.m_ServerKey};
    allowed.m_HasNewKey = true;
    allowed.m_Pays = true;
    return allowed;
}

std::string flawsOf(std::string const& path, Allowed const& allowed) {
    return Examination(path, allowed).flaws();
}

std::string temporaryFilesIn(std::string const& path) {
    std::string names;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(path)) {
        names += isTemporary(entry.path()) ? entry.path().string() + "\n" : "";
    }
    return names;
}

ClosedDirectories::ClosedDirectories(std::string const& path) {
    s_Path = path;
    m_Calls->open = [](char const* file, int flags, mode_t mode) {
        std::filesystem::path const directory = std::filesystem::path(file).parent_path();
        if ((flags & O_EXCL) != 0 && (directory == s_Path || directory == s_Path + "/keys")) {
            errno = EACCES;
            return -1;
        }
        return TbSystemCalls::openFile(file, flags, mode);
    };
}

std::size_t numberFrom(char const* name, std::size_t otherwise) {
    char const* const given = std::getenv(name);
    return given == nullptr ? otherwise : std::strtoul(given, nullptr, 10);
}

}  // namespace kvxtest
