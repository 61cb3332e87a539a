// The exchanges that bring a configuration directory into working order.

#include "core/kvxctx.h"
#include "core/kvxidentifier.h"
#include "core/kvxlines.h"

namespace {

constexpr char kConfigFile[] = "config.xml";
constexpr char kDefaultsFile[] = "default.xml";

/// An identifier that a server chose names a file to be written: one that would leave its directory cannot be opened.
void requireWritable(TbString const& keyId) {
    if (!kvxNamesFileInDirectory(keyId)) {
        throw KVX_Exception(KVX_E_FILE_NOT_FOUND, "", kvx::kSourceCtx, kvx::kLineUpdateOpen);
    }
}

void trace(long line, char const* event) {
    KVX_TraceLog::Write(kvx::kSourceCtx, line, KVX_OK, event, "");
}

}  // namespace

TbString KVX_Context::endpoint(std::int32_t codeWhenMissing, long line) {
    if (!m_AutoUrl.isEmpty()) {
        return m_AutoUrl;
    }
    TbString url;
    if (!QueryValueOrAbsent(kConfigFile, "KVX.VTAUTOURL", url)) {
        throw KVX_Exception(codeWhenMissing, "", kvx::kSourceCtx, line);
    }
    return url;
}

xmlElementPtr KVX_Context::request(TbString const& msgType) {
    xmlElement* created = nullptr;
    XmlCreateRequest(msgType, &created);
    xmlElementPtr root;
    root.adopt(created);
    return root;
}

xmlElementPtr KVX_Context::exchangeUnsigned(TbString const& url, xmlElementPtr const& request,
                                            TbString const& expectedType, TbStringStream& answer) {
    TbStringStream message;
    request->toStream(message);
    return exchange(url, message, "", expectedType, answer);
}

void KVX_Context::Setup() {
    TbString const url = endpoint(KVX_E_NO_CONFIGURATION, kvx::kLineSetupEndpoint);
    TbString version;
    if (!QueryValueOrAbsent(kConfigFile, "VERSION", version)) {
        version = "0";
    }
    xmlElementPtr const message = request("SetupRequest");
    message->setAttribute("VERSION", version);
    TbStringStream answer;
    exchangeUnsigned(url, message, "SetupResponse", answer);
    UpdateFile(kConfigFile, answer.str());
}

void KVX_Context::LoadDefaults() {
    TbString const url = endpoint(KVX_E_NO_ENDPOINT, kvx::kLineDefaultsEndpoint);
    TbStringStream answer;
    exchangeUnsigned(url, request("LoadDefaultsRequest"), "LoadDefaultsResponse", answer);
    UpdateFile(kDefaultsFile, answer.str());
    trace(kvx::kLineDefaultsTrace, "LOAD DEFAULTS");
}

void KVX_Context::ImportKey(TbString& keyId) {
    TbString const url = endpoint(KVX_E_NO_CONFIGURATION, kvx::kLineImportEndpoint);
    xmlElementPtr const message = request("KeyQueryRequest");
    message->setAttribute("KEYID", keyId);
    TbStringStream answer;
    xmlElementPtr const response = exchangeUnsigned(url, message, "KeyQueryResponse", answer);
    TbString blob("");
    response->getAttribute("KEYID", keyId);
    response->getAttribute("KEYBLOB", blob);
    requireWritable(keyId);
    UpdateFile("keys/public/" + keyId, blob);
    trace(kvx::kLineImportTrace, "IMPORT");
}

void KVX_Context::PublishKey(TbString& keyId) {
    TbString const url = endpoint(KVX_E_NO_ENDPOINT, kvx::kLinePublishEndpoint);
    TbString blob;
    if (!QueryValueOrAbsent("keys/public/" + keyId, "", blob)) {
        throw KVX_Exception(KVX_E_KEY_NOT_FOUND, "", kvx::kSourceCtx, kvx::kLinePublishKey);
    }
    xmlElementPtr const message = request("KeyExportRequest");
    message->setAttribute("KEYID", keyId);
    message->setAttribute("KEYBLOB", blob);
    TbStringStream answer;
    exchangeUnsigned(url, message, "KeyExportResponse", answer);
    UpdateFile("keys/current", keyId);
    trace(kvx::kLinePublishTrace, "PUBLISH");
}

void KVX_Context::Reconfigure() {
    if (m_Path.isEmpty()) {
        throw KVX_Exception(KVX_E_NO_CONTEXT, "", kvx::kSourceCtx, kvx::kLineReconfigureNoContext);
    }
    CreatePath(m_Path + "/keys");
    CreatePath(m_Path + "/keys/private");
    CreatePath(m_Path + "/keys/public");
    trace(kvx::kLineReconfigureStart, "START RECONFIGURE");

    TbString isValid;
    bool const hasDefaults = QueryValueOrAbsent(kDefaultsFile, "KVX.ISVALID", isValid) && isValid == TbString("yes");
    Setup();
    if (!hasDefaults) {
        LoadDefaults();
    }
    TbString serverKeyId;
    if (!QueryValue(kConfigFile, "VTKEYID", serverKeyId)) {
        throw KVX_Exception(KVX_E_NO_CONFIGURATION, "", kvx::kSourceCtx, kvx::kLineReconfigureKeyId);
    }
    ImportKey(serverKeyId);

    TbString customerId("");
    TbString version;
    QueryValue(kConfigFile, "CUSTOMERID", customerId);
    QueryValue(kConfigFile, "VERSION", version);  // Deliberate: read and not used further
    TbString keyId = "0-" + customerId + "-" + CreateUuid();
    requireWritable(keyId);
    GenKey(keyId);
    PublishKey(keyId);
    trace(kvx::kLineReconfigureOk, "RECONFIGURE OK");
}
