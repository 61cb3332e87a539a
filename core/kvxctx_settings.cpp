// The settings in "settings.xml".
//
// "PROFILE" gives the values to start from, single names replace them. What is malformed never weakens a check: a
// switch of a check that is neither "0" nor "1" is on, a pin that is no digest fits no key, an unknown version of TLS
// is the recommended one. Malformed limits count as absent. Odd: for work without an exchange a file that is no
// document is no failure, as it has always been; the strict values hold then.

#include "core/kvxctx_settings.h"

#include <cerrno>
#include <limits>

#include "core/kvxctx.h"
#include "core/kvxdirectory.h"
#include "core/kvxdocument.h"
#include "core/kvxfile.h"
#include "core/kvxlines_core.h"
#include "net/kvxurl.h"
#include "xml/xmlquery.h"

namespace {

constexpr char kDefaultProxyPort[] = "8080";

// Sound values of the strict profile.
constexpr std::uint32_t kStrictConnectSeconds = 10;
constexpr std::uint32_t kStrictIoSeconds = 30;
constexpr std::uint32_t kStrictTotalSeconds = 60;
constexpr std::uint32_t kStrictResponseBytes = 8U << 20;
constexpr std::uint32_t kStrictDocumentBytes = 1U << 20;
constexpr std::uint32_t kStrictLevels = 256;
/// The component's own keys have this size, and servers that it was made for have no larger ones.
constexpr std::uint32_t kStrictKeyBits = 512;

/// Bits that the mode of a private key may have. Nobody but owner and group ever reads one.
constexpr mode_t kAllowedKeyMode = 0660;
constexpr mode_t kRequiredKeyMode = 0400;
constexpr std::uint32_t kMaxModeDigits = 4;

/// An attribute that counts only with a value.
bool read(xmlElement& root, char const* name, TbString& value) {
    return xmlGetAttributeEx(&root, name, value) && !value.isEmpty();
}

/// The number in `text`, digits of `base` alone. False for anything else, and for one of more than 32 bits.
bool isNumber(TbString const& text, std::uint32_t base, std::uint32_t& number) {
    std::uint64_t sum = 0;
    for (std::uint32_t i = 0; i < text.length(); ++i) {
        if (text[i] < '0' || text[i] >= static_cast<char>('0' + base)) {
            return false;
        }
        sum = sum * base + static_cast<std::uint64_t>(text[i] - '0');
        if (sum > std::numeric_limits<std::uint32_t>::max()) {
            return false;
        }
    }
    number = static_cast<std::uint32_t>(sum);
    return true;
}

/// "0" switches a limit of the profile off.
void readLimit(xmlElement& root, char const* name, std::uint32_t& limit) {
    TbString value;
    if (read(root, name, value)) {
        isNumber(value, 10, limit);
    }
}

/// On with any other value than "0", an empty one too: a damaged "1" may read as one.
void readCheck(xmlElement& root, char const* name, bool& isOn) {
    TbString value;
    if (xmlGetAttributeEx(&root, name, value)) {
        isOn = value != TbString("0");
    }
}

/// A switch that protects nothing by itself: only its two values count.
void readSwitch(xmlElement& root, char const* name, bool& isOn) {
    TbString value;
    if (read(root, name, value) && (value == TbString("0") || value == TbString("1"))) {
        isOn = value == TbString("1");
    }
}

void readTlsVersion(xmlElement& root, KVX_TlsVersion& version) {
    struct Row {
        char const* m_Text;
        KVX_TlsVersion m_Version;
    };
    constexpr Row kRows[] = {
        {"1.0", KVX_TlsVersion::Tls10},
        {"1.1", KVX_TlsVersion::Tls11},
        {"1.2", KVX_TlsVersion::Tls12},
        {"1.3", KVX_TlsVersion::Tls13},
    };
    TbString value;
    if (!xmlGetAttributeEx(&root, "TLSMIN", value)) {
        return;
    }
    version = KVX_TlsVersion::Tls12;
    for (Row const& row : kRows) {
        if (value == TbString(row.m_Text)) {
            version = row.m_Version;
        }
    }
}

/// A pin without a value fits no key.
void readKeyPin(xmlElement& root, TbString& pin) {
    if (xmlGetAttributeEx(&root, "KEYPIN", pin) && pin.isEmpty()) {
        pin = "none";
    }
    for (std::uint32_t i = 0; i < pin.length(); ++i) {
        if (pin[i] >= 'A' && pin[i] <= 'F') {
            pin[i] = static_cast<char>(pin[i] - 'A' + 'a');
        }
    }
}

/// A name without a value is that of a directory, which holds no authority.
void readTrustFile(xmlElement& root, TbString& file) {
    if (xmlGetAttributeEx(&root, "TLSCAFILE", file) && file.isEmpty()) {
        file = "/";
    }
}

void readKeyMode(xmlElement& root, mode_t& mode) {
    TbString value;
    std::uint32_t number = 0;
    if (!read(root, "KEYMODE", value) || value.length() > kMaxModeDigits || !isNumber(value, 8, number)) {
        return;
    }
    if ((number & ~kAllowedKeyMode) == 0 && (number & kRequiredKeyMode) != 0) {
        mode = number;
    }
}

void readProxy(xmlElement& root, KVX_Settings& settings) {
    TbString value;
    if (read(root, "USEPROXY", value) && value == TbString("1") && read(root, "PROXYHOST", value)) {
        settings.m_ProxyHost = value;
        settings.m_ProxyPort = read(root, "PROXYPORT", value) ? value : TbString(kDefaultProxyPort);
    }
}

/// What `text` says; from now on the calls on `directory` are logged as it asks for.
KVX_Settings settingsOf(TbString const& directory, TbString const& text) {
    KvxLogRequest log;
    KVX_Settings settings = kvxSettingsIn(text, log);
    if (kvxLogIsOn() || !log.m_File.isEmpty()) {
        kvxLogUse(directory, log.m_File, log.m_Bytes);
    }
    return settings;
}

/// Those of a directory without the file.
KVX_Settings noSettingsOf(TbString const& directory) {
    if (kvxLogIsOn()) {
        kvxLogUse(directory, "", kKvxLogBytes);
    }
    return {};
}

}  // namespace

KVX_Settings kvxStrictSettings() {
    KVX_Settings strict;
    strict.m_Transfer.connectTimeout = kStrictConnectSeconds;
    strict.m_Transfer.ioTimeout = kStrictIoSeconds;
    strict.m_Transfer.totalTimeout = kStrictTotalSeconds;
    strict.m_Transfer.maxResponse = kStrictResponseBytes;
    strict.m_Transfer.verifyPeer = true;
    strict.m_Transfer.minimumVersion = KVX_TlsVersion::Tls12;
    strict.m_Transfer.sendAll = true;
    strict.m_Transfer.isQuiet = true;
    strict.m_Documents = {kStrictDocumentBytes, kStrictLevels};
    strict.m_MinKeyBits = kStrictKeyBits;
    strict.m_HasStrictKeys = true;
    strict.m_HasStrictConfirm = true;
    strict.m_HasStrictSignature = true;
    strict.m_HasStrictNames = true;
    return strict;
}

KVX_Settings kvxSettingsIn(TbString const& text) {
    KvxLogRequest unused;
    return kvxSettingsIn(text, unused);
}

KVX_Settings kvxSettingsIn(TbString const& text, KvxLogRequest& log) {
    xmlHolder const document = kvxParseDocument(text, {}, kvx::kSettingsFile);
    xmlElement& root = *document.get();
    bool hasProfile = false;
    readCheck(root, "PROFILE", hasProfile);  // "strict"; a misspelt one too
    KVX_Settings settings = hasProfile ? kvxStrictSettings() : KVX_Settings();

    readProxy(root, settings);
    TbString value;
    if (read(root, "TRACEOPT", value)) {
        settings.m_Trace = value;
    }
    readLimit(root, "CONNECTTIMEOUT", settings.m_Transfer.connectTimeout);
    readLimit(root, "IOTIMEOUT", settings.m_Transfer.ioTimeout);
    readLimit(root, "TOTALTIMEOUT", settings.m_Transfer.totalTimeout);
    readLimit(root, "MAXRESPONSE", settings.m_Transfer.maxResponse);
    readCheck(root, "TLSVERIFY", settings.m_Transfer.verifyPeer);
    readTrustFile(root, settings.m_Transfer.trustFile);
    readTlsVersion(root, settings.m_Transfer.minimumVersion);
    readSwitch(root, "SENDHOST", settings.m_Transfer.sendHost);
    readSwitch(root, "TLSREUSE", settings.m_Transfer.reuseTls);
    readSwitch(root, "SENDALL", settings.m_Transfer.sendAll);
    readSwitch(root, "QUIET", settings.m_Transfer.isQuiet);

    readLimit(root, "MAXXML", settings.m_Documents.m_Bytes);
    readLimit(root, "MAXDEPTH", settings.m_Documents.m_Levels);
    readKeyPin(root, settings.m_KeyPin);
    readLimit(root, "MINKEYBITS", settings.m_MinKeyBits);
    readCheck(root, "STRICTKEYS", settings.m_HasStrictKeys);
    readCheck(root, "STRICTCONFIRM", settings.m_HasStrictConfirm);
    readCheck(root, "STRICTSIG", settings.m_HasStrictSignature);
    readCheck(root, "STRICTNAMES", settings.m_HasStrictNames);
    readSwitch(root, "SYNCFILES", settings.m_SyncsFiles);
    readKeyMode(root, settings.m_KeyMode);
    read(root, "LOGFILE", log.m_File);
    readLimit(root, "LOGSIZE", log.m_Bytes);
    return settings;
}

KVX_Settings KVX_Context::settingsForExchange() {
    // A directory whose path reads like a URL has no settings: they would have to be fetched, which needs them.
    kvx::JoinedPath const file = pathOf(TbBorrowed(kvx::kSettingsFile));
    if (IsHttp(file)) {
        URL_INFO parts;
        if (SplitUrl(file, parts) == 0) {
            kvx::kSourceUrl.fail(KVX_E_HTTP_BAD_URL, kvx::kLineSplitUrl);
        }
        kvx::kSourceCtx.failBecause("the path of the configuration directory reads like a URL", KVX_E_HTTP_BAD_URL,
                                    kvx::kLineSettingsReentry);
    }
    TbString text;
    return QueryValueOrAbsent(kvx::kSettingsFile, "", text) ? settingsOf(m_Path, text) : noSettingsOf(m_Path);
}

KVX_Settings KVX_Context::settingsForVerification() {
    if (m_Path.isEmpty() || IsHttp(m_Path)) {
        return {};
    }
    KvxFileText text;
    switch (tryReadFile(TbBorrowed(kvx::kSettingsFile), text)) {
        case KvxReadResult::kDone:
            return settingsOf(m_Path, text);
        case KvxReadResult::kAbsent:
        case KvxReadResult::kNameTooLong:  // no file of that name can be there
            return noSettingsOf(m_Path);
        default:
            kvx::kSourceUrl.failBecause(kvxFileCause(m_Path, kvx::kSettingsFile, errno), KVX_E_CANNOT_OPEN,
                                        kvx::kLineOpenFile, kvx::kSettingsFile);
    }
}

KVX_Settings KVX_Context::settingsForLocalWork() {
    try {
        return settingsForVerification();
    } catch (KVX_Exception const& failure) {
        if (failure.code() != KVX_E_INVALID_FORMAT) {
            throw;
        }
        KVX_Settings strict = kvxStrictSettings();
        strict.m_IsDamaged = true;
        return strict;
    }
}
