// Responses of the payment server in every exchange, over a scripted network. Model: the response's code and body, its
// document, and the files that the exchange may change: no response writes any other file.
//
// Input: which exchange, sizes of chunks and a key id (a line each), in some inputs settings, then the responses, with
// a line "%%" behind each. A response that does not begin with "HTTP/" is a body of status 200.

#include <map>

#include "core/kvxctx.h"
#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzdirectory.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/scriptednetwork.h"
#include "fuzz/signmodel.h"
#include "fuzz/xmlmodel.h"

namespace kvxfuzz {

namespace {

using Files = std::map<std::string, std::string>;

constexpr int kMaxExchanges = 5;
constexpr std::size_t kMaxFileName = 200;
constexpr char kConfig[] = R"(<KVX VERSION="2" CAPTUREURL="http://127.0.0.1/capture"/>)";

/// Everything below one directory: the account's, and a place beside it that nothing may touch.
Files const& filesBefore() {
    static Files const s_Files = {
        {"outside/keep", "me"},
        {"account/config.xml", kConfig},
        {"account/default.xml", "<KVX/>"},
        {"account/keys/current", "own"},
        {"account/keys/public/own", hexText(testKey("rsa/key512.public.hex"))},
        {"account/keys/private/own", hexText(testKey("rsa/key512.private.hex"))},
    };
    return s_Files;
}

class Exchange {
public:
    explicit Exchange(Input& input) : m_Choice(input.byte()), m_Files(filesBefore()) {
        directory().restore(m_Files);
        std::vector<std::size_t> chunks;
        for (char const size : input.line()) {
            chunks.push_back(static_cast<unsigned char>(size));
        }
        m_KeyId = input.line();
        if (hasSettings()) {
            m_Files["account/settings.xml"] = input.section();
            directory().write("account/settings.xml", m_Files["account/settings.xml"]);
        }
        for (int i = 0; i < kMaxExchanges && !input.isEmpty(); ++i) {
            std::string const response = input.section();
            bool const isWhole = response.compare(0, 5, "HTTP/") == 0;
            m_Network.add({(isWhole ? "" : "HTTP/1.0 200 OK\r\n\r\n") + response, chunks, 0, false, 0});
        }
        m_Context.Open((directory().path() + "/account").c_str());
        m_Context.SetOption("VTAUTOURL", "http://127.0.0.1/auto");
    }

    void run() {
        if (hasSettings()) {
            runWithSettings();
        } else {
            runModelled();
        }
        requireEqual(m_Network.open(), 0, "sockets left open");
    }

private:
    [[nodiscard]] bool hasSettings() const { return (m_Choice & 64U) != 0; }

    void runModelled() {
        switch (m_Choice % 7) {
            case 0:
                single([this] { m_Context.Setup(); }, "SetupResponse", "config.xml");
                break;
            case 1:
                single([this] { m_Context.LoadDefaults(); }, "LoadDefaultsResponse", "default.xml");
                break;
            case 2:
            case 3:
                importKey();
                break;
            case 4:
                publishKey();
                break;
            case 5:
                sendMessage();
                break;
            default:
                requireConfined(codeOf([this] { m_Context.Reconfigure(); }));
        }
    }

    /// Settings may refuse anything; what is written stays inside all the same.
    void runWithSettings() {
        TbString keyId = tbText(m_KeyId);
        TbString own("own");
        requireConfined(codeOf([&] {
            switch (m_Choice % 7) {
                case 0:
                    return m_Context.Setup();
                case 1:
                    return m_Context.LoadDefaults();
                case 2:
                case 3:
                    return m_Context.ImportKey(keyId);
                case 4:
                    return m_Context.PublishKey(own);
                case 5: {
                    KVX_Message message;
                    KVX_Message response;
                    message.Create(&m_Context, "PayComplete");
                    return message.Request(response);
                }
                default:
                    return m_Context.Reconfigure();
            }
        }));
    }

    static FuzzDirectory const& directory() {
        static FuzzDirectory const s_Directory;
        return s_Directory;
    }

    /// The code of the exchange that has run, if its response must be of `type`. Leaves body and document.
    std::int32_t modelCode(std::string const& type) {
        if (m_Network.sent().empty()) {
            return KVX_E_SOCKET_REFUSED;
        }
        ModelResponse const response(m_Network.receivedText());
        m_Body = response.m_Body;
        if (response.m_Code != KVX_OK) {
            return response.m_Code;
        }
        if (m_Document.parse(m_Body) != 0 || m_Document.top("KVX") == 0) {
            return KVX_E_INVALID_FORMAT;
        }
        std::string const received = valueOf("MSGTYPE", "");
        if (received == "Error") {
            return KVX_E_SERVER_ERROR;
        }
        return received == type ? KVX_OK : KVX_E_WRONG_RESPONSE;
    }

    [[nodiscard]] std::string valueOf(std::string const& name, std::string const& otherwise) const {
        std::string const* const value = m_Document.at(m_Document.top("KVX")).valueOf(name);
        return value == nullptr ? otherwise : *value;
    }

    void checkFiles() const { require(directory().files() == m_Files, "files after the exchange"); }

    /// An exchange that stores the body of its response.
    void single(std::function<void()> const& call, std::string const& type, std::string const& file) {
        std::int32_t const code = codeOf(call);
        requireEqual(code, modelCode(type), "code of an exchange that stores its response");
        if (code == KVX_OK) {
            m_Files["account/" + file] = m_Body;
        }
        checkFiles();
    }

    void importKey() {
        TbString keyId = tbText(m_KeyId);
        std::int32_t const code = codeOf([&] { m_Context.ImportKey(keyId); });
        std::int32_t expected = modelCode("KeyQueryResponse");
        if (expected == KVX_OK) {
            std::string const answered = valueOf("KEYID", m_KeyId);
            requireEqual(textOf(keyId), answered, "key id of the response");
            bool const isFileName = !answered.empty() && answered.find('/') == std::string::npos &&
                                    answered.find('\0') == std::string::npos && answered != "." && answered != "..";
            if (answered.size() > kMaxFileName) {
                return;  // the file system decides
            }
            expected = isFileName ? KVX_OK : KVX_E_FILE_NOT_FOUND;
            if (isFileName) {
                m_Files["account/keys/public/" + answered] = valueOf("KEYBLOB", "");
            }
        }
        requireEqual(code, expected, "code of importing a key");
        checkFiles();
    }

    void publishKey() {
        TbString keyId("own");
        m_Files["account/keys/current"] = "old";
        directory().write("account/keys/current", "old");
        std::int32_t const code = codeOf([&] { m_Context.PublishKey(keyId); });
        requireEqual(code, modelCode("KeyExportResponse"), "code of publishing a key");
        if (code == KVX_OK) {
            m_Files["account/keys/current"] = "own";
        }
        checkFiles();
    }

    /// A capture, or a request and its response.
    void sendMessage() {
        KVX_Message message;
        message.Create(&m_Context, "PayComplete");
        message.SetAttribute("TOKEN", tbText(m_KeyId));
        KVX_Message response;
        bool const isCapture = m_Choice >= 128;
        std::int32_t const code = codeOf([&] {
            if (isCapture) {
                message.Capture();
            } else {
                message.Request(response);
            }
        });
        requireEqual(code, modelCode(isCapture ? "PayConfirm" : "PayCompleteResponse"), "code of a sent message");
        if (code == KVX_OK && !isCapture) {
            TbString text;
            require(response.ToString(text), "a response is a message");
            requireEqual(textOf(text), m_Document.written(m_Document.top("KVX")), "response");
        }
        checkFiles();
    }

    /// Whether `code` is a published one, and only files of a set-up have changed.
    void requireConfined(std::int32_t code) const {
        require(isPublishedCode(code), "an exchange returns a published code");
        Files const after = directory().files();
        for (auto const& [name, content] : m_Files) {
            require(after.count(name) != 0, "no file is lost");
        }
        for (auto const& [name, content] : after) {
            bool const isConfiguration = name == "account/config.xml" || name == "account/default.xml";
            bool const isKey = name.compare(0, 13, "account/keys/") == 0 && name.find('/', 13) != std::string::npos;
            bool const isCurrent = name == "account/keys/current" && code == KVX_OK;
            auto const before = m_Files.find(name);
            require((before != m_Files.end() && before->second == content) || isConfiguration || isKey || isCurrent,
                    "a set-up writes its own files only");
        }
        require(code == KVX_OK || after.at("account/keys/current") == "own", "a failed set-up keeps the current key");
    }

    std::uint8_t m_Choice;
    ScriptedNetwork m_Network;
    KVX_Context m_Context;
    std::string m_KeyId;
    Files m_Files;  ///< What must be there afterwards.
    std::string m_Body;
    ModelDocument m_Document;
};

}  // namespace

void runTarget(Input input) {
    Exchange exchange(input);
    exchange.run();
}

}  // namespace kvxfuzz
