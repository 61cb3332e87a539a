// The files of a configuration directory with any content: a payment, its URL, and reading and setting a value.
//
// Input: which files come from the input, which are missing, then file, name and value to read and set (a line each),
// then the contents, with a line "%%" behind each. Models know what follows from documents; with settings of the input
// only the codes are held to those published.

#include <iterator>
#include <map>

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzdirectory.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/signmodel.h"
#include "fuzz/xmlmodel.h"
#include "tallowin/tallowin.h"
#include "xml/xmlparser.h"

namespace kvxfuzz {

namespace {

using Files = std::map<std::string, std::string>;

constexpr char kSettings[] = "settings.xml";
constexpr char const* kNames[] = {"config.xml", "default.xml", kSettings, "keys/current", "keys/private/own"};

Files const& soundFiles() {
    static Files const s_Files = {
        {"config.xml", R"(<KVX MSGTYPE="SetupResponse" CUSTOMERID="4711" VTURL="https://pay.example/page"/>)"},
        {"default.xml", R"(<KVX MSGTYPE="LoadDefaultsResponse" LANGID="en" PAYINITTTL="3600" BACKLINK=""/>)"},
        {kSettings, "<KVX/>"},
        {"keys/current", "own"},
        {"keys/private/own", hexText(testKey("rsa/key512.private.hex"))},
    };
    return s_Files;
}

/// The "KVX" element of a file.
struct ModelValues {
    explicit ModelValues(Files const& files, std::string const& name) {
        auto const file = files.find(name);
        if (file != files.end()) {
            bool const isDocument = m_Document.parse(file->second) == 0 && m_Document.top("KVX") != 0;
            m_Code = isDocument ? KVX_OK : KVX_E_INVALID_FORMAT;
        }
    }

    /// Null when there is none.
    [[nodiscard]] std::string const* find(std::string const& name) const {
        return m_Code == KVX_OK ? m_Document.at(m_Document.top("KVX")).valueOf(name) : nullptr;
    }

    /// The value under `name`; empty when there is none.
    [[nodiscard]] std::string valueOf(std::string const& name) const {
        std::string const* const value = find(name);
        return value == nullptr ? "" : *value;
    }

    std::int32_t m_Code = KVX_E_CANNOT_OPEN;
    ModelDocument m_Document;
};

bool isName(std::string const& text) {
    for (char const character : text) {
        if (isAlnum(character) == 0) {
            return false;
        }
    }
    return !text.empty();
}

bool isPath(std::string const& name) {
    return name.find("(.") != std::string::npos;
}

/// The text that a function copies out, and its code.
template <class Call>
std::int32_t copied(Call call, std::string& text) {
    std::int32_t size = 0;
    std::int32_t const code = call(&size, nullptr);
    if (code != KVX_E_BUFFER_TOO_SMALL) {
        return code;
    }
    text.assign(static_cast<std::size_t>(size), 'x');
    std::int32_t const second = call(&size, text.data());
    require(second != KVX_OK || text.back() == '\0', "a copied text is terminated");
    text.pop_back();
    return second;
}

FuzzDirectory const& directoryOfAll() {
    static FuzzDirectory const s_Directory;
    return s_Directory;
}

class Directory {
public:
    explicit Directory(Input& input) {
        std::uint8_t const fromInput = input.byte();
        std::uint8_t const missing = input.byte();
        m_File = kNames[input.below(5)];
        m_Name = upToZero(input.line());
        m_Value = upToZero(input.line());
        m_Files = soundFiles();
        for (std::size_t i = 0; i < std::size(kNames); ++i) {
            if ((fromInput >> i & 1) != 0) {
                m_Files[kNames[i]] = input.section();
                m_HasOwnSettings = m_HasOwnSettings || kNames[i] == std::string(kSettings);
            }
            if ((missing >> i & 1) != 0) {
                m_Files.erase(kNames[i]);
            }
        }
        m_Directory.restore(m_Files);
    }

    void pay() {
        KVX_HANDLE const factory = CreateMessageFactory();
        requireEqual(MessageFactory_Open(factory, path()), KVX_OK, "code of Open");
        KVX_HANDLE message = nullptr;
        std::int32_t const code = MessageFactory_CreatePayInit(factory, &message);
        DestroyMessageFactory(factory);
        require(isPublishedCode(code), "CreatePayInit returns a published code");
        require((code == KVX_OK) == (message != nullptr), "a message comes with success only");
        if (m_Files.count("keys/current") == 0) {
            requireEqual(code, KVX_E_CANNOT_OPEN, "code without a current key");
        }
        if (message != nullptr) {
            checkMessage(message);
            DestroyMessageObject(message);
        }
    }

    void readAndSet() {
        KVX_HANDLE const setup = CreateConfigurationSetup();
        requireEqual(ConfigurationSetup_SetConfiguration(setup, path()), KVX_OK, "code of SetConfiguration");
        std::string value;
        std::int32_t const reading = copied(
            [&](std::int32_t* size, char* buffer) {
                return ConfigurationSetup_GetAttribute(setup, m_File.c_str(), m_Name.c_str(), size, buffer);
            },
            value);
        std::int32_t const setting =
            ConfigurationSetup_SetAttribute(setup, m_File.c_str(), m_Name.c_str(), m_Value.c_str());
        DestroyConfigurationSetup(setup);
        require(isPublishedCode(reading) && isPublishedCode(setting), "values have published codes");
        if (!m_HasOwnSettings) {
            checkReading(reading, value);
            checkSetting(setting);
        } else if (setting == KVX_OK && !m_Value.empty() && isName(m_Name)) {
            ModelDocument again;
            requireEqual(again.parse(m_Directory.read(m_File).value_or("<")), 0, "a file that was set is a document");
        }
    }

    /// Whether the directory holds its files and no others.
    void checkFiles() const {
        Files const found = m_Directory.files();
        requireEqual(static_cast<std::int64_t>(found.size()), static_cast<std::int64_t>(m_Files.size()), "files");
        if (!m_HasOwnSettings) {
            require(found == m_Files, "content of all files");
        }
    }

private:
    [[nodiscard]] char const* path() const { return m_Directory.path().c_str(); }

    void checkMessage(KVX_HANDLE message) const {
        std::string text;
        requireEqual(
            copied([&](std::int32_t* size, char* out) { return MessageObject_ToString(message, size, out); }, text),
            KVX_OK, "code of ToString");
        std::string url;
        std::int32_t const code =
            copied([&](std::int32_t* size, char* out) { return MessageObject_GetURL(message, size, out); }, url);
        require(isPublishedCode(code), "GetURL returns a published code");
        if (m_HasOwnSettings) {
            return;
        }
        ModelValues const defaults(m_Files, "default.xml");
        for (char const* const name : {"LANGID", "SUCCESSLINK", "BACKLINK"}) {
            std::string value;
            std::int32_t const found = copied(
                [&](std::int32_t* size, char* out) { return MessageObject_GetAttribute(message, name, size, out); },
                value);
            std::string const* const expected = defaults.find(name);
            requireEqual(found, expected == nullptr ? KVX_E_NOT_FOUND : KVX_OK, "code of a default");
            requireEqual(value, expected == nullptr ? "" : upToZero(*expected), "value of a default");
        }
        bool const isOwnKey = m_Files.at("keys/current") == "own";
        if (isOwnKey && m_Files.count("keys/private/own") != 0 &&
            m_Files.at("keys/private/own") == soundFiles().at("keys/private/own")) {
            checkUrl(code, url, text);
        }
    }

    void checkUrl(std::int32_t code, std::string const& url, std::string const& text) const {
        static ModelKey const s_Key = ModelKey::fromPrivate(testKey("rsa/key512.private.hex"));
        ModelValues const config(m_Files, "config.xml");
        std::string const base = config.valueOf("VTURL");
        std::size_t const authority = base.find("://");
        if (config.m_Code != KVX_OK) {
            requireEqual(code, config.m_Code, "code of GetURL without a document");
        } else if (base.empty()) {
            requireEqual(code, KVX_E_NO_CONFIGURATION, "code of GetURL without an address");
        } else if (authority == std::string::npos || authority == 0) {
            requireEqual(code, KVX_E_INVALID_URL, "code of GetURL with a wrong address");
        } else if (text.find('\0') == std::string::npos && base.find('\0') == std::string::npos && !hasZeroDefault()) {
            requireEqual(code, KVX_OK, "code of GetURL");
            requireEqual(url,
                         base + "?DATA=" + percentText(text) +
                             "&SIGNATURE=" + hexText(s_Key.sealed(modelSha1(modelWidened(text, false)))),
                         "URL of a payment");
        }
    }

    /// Whether the message holds more than a C string shows.
    [[nodiscard]] bool hasZeroDefault() const {
        auto const defaults = m_Files.find("default.xml");
        return defaults != m_Files.end() && defaults->second.find('\0') != std::string::npos;
    }

    void checkReading(std::int32_t code, std::string const& value) const {
        ModelValues const values(m_Files, m_File);
        if (values.m_Code == KVX_E_CANNOT_OPEN) {
            requireEqual(code, KVX_E_CANNOT_OPEN, "code of reading a missing file");
        } else if (m_Name.empty()) {
            requireEqual(code, KVX_OK, "code of reading a file");
            requireEqual(value, upToZero(m_Files.at(m_File)), "content of a file");
        } else if (values.m_Code != KVX_OK) {
            requireEqual(code, values.m_Code, "code of reading from no document");
        } else {
            std::string const expected = isPath(m_Name) ? "" : values.valueOf(m_Name);
            requireEqual(code, expected.empty() ? KVX_E_NOT_FOUND : KVX_OK, "code of reading a value");
            requireEqual(value, upToZero(expected), "value");
        }
    }

    void checkSetting(std::int32_t code) {
        ModelValues values(m_Files, m_File);
        requireEqual(code, m_Value.empty() ? KVX_OK : values.m_Code, "code of setting a value");
        if (code != KVX_OK || m_Value.empty()) {
            return;
        }
        std::size_t const root = values.m_Document.top("KVX");
        if (!isPath(m_Name)) {
            values.m_Document.at(root).set(m_Name, m_Value);
        }
        m_Files[m_File] = values.m_Document.written(root);
    }

    FuzzDirectory const& m_Directory = directoryOfAll();
    Files m_Files;  ///< What the directory must hold.
    std::string m_File;
    std::string m_Name;
    std::string m_Value;
    bool m_HasOwnSettings = false;
};

}  // namespace

void runTarget(Input input) {
    Directory directory(input);
    directory.pay();
    directory.checkFiles();
    directory.readAndSet();
    directory.checkFiles();
}

}  // namespace kvxfuzz
