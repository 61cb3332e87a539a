// The exchanges that set up a configuration directory.
//
// Reconfigure runs them in order: directories, configuration, defaults unless valid, the server's key, a new own key
// and its publication. Each step writes its file before the next begins, and "keys/current" is written last, so that a
// failure anywhere leaves the old signing key in use. With strict keys the first three are fetched and checked before
// any of them is written. The server chooses key ids; one that is no plain file name is refused before it is used as a
// path.

#include "core/kvxctx.h"
#include "core/kvxctx_checks.h"
#include "core/kvxctx_settings.h"
#include "core/kvxdirectory.h"
#include "core/kvxfile.h"
#include "core/kvxidentifier.h"
#include "core/kvxlines_core.h"

namespace {

/// Bytes of a file name that every file system here takes.
constexpr std::uint32_t kMaxFileName = 255;

/// A key id from the server names a file to be written: one that would leave its directory is refused.
void requireWritable(TbString const& keyId) {
    if (!kvxNamesFileInDirectory(keyId)) {
        kvx::kSourceCtx.failBecause(kvxKeyIdCause(keyId), KVX_E_FILE_NOT_FOUND, kvx::kLineUpdateOpen);
    }
}

/// The same for an id that no file can have.
void requireNameable(TbString const& keyId) {
    requireWritable(keyId);
    if (keyId.isEmpty() || keyId.length() > kMaxFileName) {
        kvx::kSourceCtx.failBecause(kvxKeyIdCause(keyId), KVX_E_FILE_NOT_FOUND, kvx::kLineUpdateOpen);
    }
}

KvxCause noServerKey() {
    KvxCause cause;
    cause.put("the configuration that the service sent names no key of the service (VTKEYID)");
    return cause;
}

TbString keyBlobIn(xmlElementPtr const& response) {
    TbString blob("");
    response->getAttribute("KEYBLOB", blob);
    return blob;
}

}  // namespace

// Deliberate (endpoint-codes-differ): without an address two exchanges report one code, the other two another.
TbString KVX_Context::endpoint(std::int32_t codeWhenMissing, long line) {
    if (!m_AutoUrl.isEmpty()) {
        return m_AutoUrl;
    }
    TbString url;
    if (!QueryValueOrAbsent(kvx::kConfigFile, "KVX.VTAUTOURL", url)) {
        KvxCause cause = kvxFileCause(m_Path, kvx::kConfigFile, ": has no VTAUTOURL, and no address was given");
        kvx::kSourceCtx.failBecause(cause, codeWhenMissing, line);
    }
    return url;
}

xmlElementPtr KVX_Context::exchangeUnsigned(TbString const& url, xmlElementPtr const& request,
                                            TbString const& expectedType, TbStringStream& responseText) {
    TbStringStream message;
    request->toStream(message);
    return exchange(url, message, "", expectedType, responseText);
}

KVX_Context::Fetched KVX_Context::fetchConfiguration() {
    TbString const url = endpoint(KVX_E_NO_CONFIGURATION, kvx::kLineSetupEndpoint);
    TbString version;
    if (!QueryValueOrAbsent(kvx::kConfigFile, "VERSION", version)) {
        version = "0";
    }
    xmlElementPtr const message = request("SetupRequest");
    message->setAttribute("VERSION", version);
    Fetched fetched;
    fetched.m_Response = exchangeUnsigned(url, message, "SetupResponse", fetched.m_Text);
    TbString paymentUrl("");
    fetched.m_Response->getAttribute("VTURL", paymentUrl);
    std::uint32_t const authority = paymentUrl.find("://");
    bool const isAddress = authority != TbString::npos && authority != 0;
    if (!isAddress && settingsForVerification().m_HasStrictKeys) {
        KvxCause cause;
        cause.put("the configuration that the service sent has no payment address (VTURL)");
        kvx::kSourceCtx.failBecause(cause, KVX_E_NO_CONFIGURATION, kvx::kLineSetupNoPaymentUrl);
    }
    return fetched;
}

void KVX_Context::Setup() {
    UpdateFile(kvx::kConfigFile, fetchConfiguration().m_Text.str());
}

KVX_Context::Fetched KVX_Context::fetchDefaults() {
    TbString const url = endpoint(KVX_E_NO_ENDPOINT, kvx::kLineDefaultsEndpoint);
    Fetched fetched;
    fetched.m_Response = exchangeUnsigned(url, request("LoadDefaultsRequest"), "LoadDefaultsResponse", fetched.m_Text);
    return fetched;
}

void KVX_Context::storeDefaults(Fetched const& fetched) {
    UpdateFile(kvx::kDefaultsFile, fetched.m_Text.str());
    kvx::kSourceCtx.trace(kvx::kLineDefaultsTrace, "LOAD DEFAULTS");
}

void KVX_Context::LoadDefaults() {
    storeDefaults(fetchDefaults());
}

KVX_Context::Fetched KVX_Context::fetchKey(TbString& keyId) {
    TbString const url = endpoint(KVX_E_NO_CONFIGURATION, kvx::kLineImportEndpoint);
    xmlElementPtr const message = request("KeyQueryRequest");
    message->setAttribute("KEYID", keyId);
    Fetched fetched;
    fetched.m_Response = exchangeUnsigned(url, message, "KeyQueryResponse", fetched.m_Text);
    // Deliberate (key-stored-as-named): the key id in the response counts, not the one asked for.
    fetched.m_Response->getAttribute("KEYID", keyId);
    requireWritable(keyId);
    requireAcceptable(keyBlobIn(fetched.m_Response));
    return fetched;
}

void KVX_Context::storeKey(TbString const& keyId, Fetched const& fetched) {
    UpdateFile(kvx::publicKeyFile(keyId), keyBlobIn(fetched.m_Response));
    kvx::kSourceCtx.trace(kvx::kLineImportTrace, "IMPORT");
}

void KVX_Context::ImportKey(TbString& keyId) {
    Fetched const fetched = fetchKey(keyId);
    storeKey(keyId, fetched);
}

void KVX_Context::PublishKey(TbString& keyId) {
    TbString const url = endpoint(KVX_E_NO_ENDPOINT, kvx::kLinePublishEndpoint);
    KvxFileText blob;
    if (!readKeyFile(kvx::publicKeyFile(keyId), keyId, blob)) {
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, kvx::publicKeyFile(keyId), ": there is no such key"),
                                    KVX_E_KEY_NOT_FOUND, kvx::kLinePublishKey);
    }
    xmlElementPtr const message = request("KeyExportRequest");
    message->setAttribute("KEYID", keyId);
    message->setAttribute("KEYBLOB", kvxWithoutPadding(blob));
    TbStringStream responseText;
    exchangeUnsigned(url, message, "KeyExportResponse", responseText);
    UpdateFile(kvx::kCurrentKeyFile, keyId);
    kvx::kSourceCtx.trace(kvx::kLinePublishTrace, "PUBLISH");
}

TbString KVX_Context::newKeyId(TbString const& customerId) {
    return "0-" + customerId + "-" + CreateUuid();
}

/// Fetches and writes the account's files one after the other.
void KVX_Context::replaceAccount(bool hasDefaults) {
    Setup();
    if (!hasDefaults) {
        LoadDefaults();
    }
    TbString serverKeyId;
    if (!QueryValue(kvx::kConfigFile, "VTKEYID", serverKeyId)) {
        kvx::kSourceCtx.failBecause(noServerKey(), KVX_E_NO_CONFIGURATION, kvx::kLineReconfigureKeyId);
    }
    ImportKey(serverKeyId);
}

/// Fetches and checks all of the account's files before it writes the first: a response that is refused changes
/// nothing. All requests go to the address with which the set-up began.
void KVX_Context::replaceAccountAtOnce(bool hasDefaults) {
    Fetched const configuration = fetchConfiguration();
    Fetched const defaults = hasDefaults ? Fetched() : fetchDefaults();
    TbString serverKeyId("");
    configuration.m_Response->getAttribute("VTKEYID", serverKeyId);
    if (serverKeyId.isEmpty()) {
        kvx::kSourceCtx.failBecause(noServerKey(), KVX_E_NO_CONFIGURATION, kvx::kLineReconfigureKeyId);
    }
    Fetched const key = fetchKey(serverKeyId);
    TbString customerId("");
    configuration.m_Response->getAttribute("CUSTOMERID", customerId);
    requireNameable(serverKeyId);
    requireNameable(newKeyId(customerId));
    if (hasPrivateKey(serverKeyId)) {
        kvx::kSourceCtx.failBecause(
            kvxFileCause(m_Path, kvx::privateKeyFile(serverKeyId), ": the service's key has the id of this own key"),
            KVX_E_INVALID_KEY, kvx::kLineImportOwnKey);
    }
    UpdateFile(kvx::kConfigFile, configuration.m_Text.str());
    if (!hasDefaults) {
        storeDefaults(defaults);
    }
    storeKey(serverKeyId, key);
}

void KVX_Context::Reconfigure() {
    if (m_Path.isEmpty()) {
        kvx::kSourceCtx.fail(KVX_E_NO_CONTEXT, kvx::kLineReconfigureNoContext);
    }
    CreatePath(pathOf(kvx::kKeysDirectory));
    CreatePath(pathOf(kvx::kPrivateKeysDirectory));
    CreatePath(pathOf(kvx::kPublicKeysDirectory));
    kvx::kSourceCtx.trace(kvx::kLineReconfigureStart, "START RECONFIGURE");

    TbString isValid;
    bool const hasDefaults =
        QueryValueOrAbsent(kvx::kDefaultsFile, "KVX.ISVALID", isValid) && isValid == TbString("yes");
    if (settingsForVerification().limitsKeys()) {
        replaceAccountAtOnce(hasDefaults);
    } else {
        replaceAccount(hasDefaults);
    }

    TbString customerId("");
    TbString version;
    QueryValue(kvx::kConfigFile, "CUSTOMERID", customerId);
    QueryValue(kvx::kConfigFile, "VERSION", version);  // Deliberate (version-read-unused): read and not used further
    TbString keyId = newKeyId(customerId);
    requireWritable(keyId);
    GenKey(keyId);
    PublishKey(keyId);
    kvx::kSourceCtx.trace(kvx::kLineReconfigureOk, "RECONFIGURE OK");
}
