#include "core/kvxctx_settings.h"

#include "core/kvxctx.h"
#include "core/kvxdirectory.h"
#include "core/kvxdocument.h"
#include "core/kvxlines_core.h"
#include "net/kvxurl.h"
#include "xml/xmlquery.h"

namespace {

constexpr char kDefaultProxyPort[] = "8080";

/// An attribute that counts only with a value.
bool read(xmlElement* root, char const* name, TbString& value) {
    return xmlGetAttributeEx(root, name, value) && !value.isEmpty();
}

}  // namespace

KVX_Settings KVX_Context::readSettings() {
    // A directory whose path reads like a URL has no settings: they would have to be fetched, which needs them.
    TbString const file = pathOf(kvx::kSettingsFile);
    if (IsHttp(file)) {
        URL_INFO parts;
        if (SplitUrl(file, parts) == 0) {
            kvx::kSourceUrl.fail(KVX_E_HTTP_BAD_URL, kvx::kLineSplitUrl);
        }
        kvx::kSourceCtx.fail(KVX_E_HTTP_BAD_URL, kvx::kLineSettingsReentry);
    }
    KVX_Settings settings;
    TbString text;
    if (!QueryValueOrAbsent(kvx::kSettingsFile, "", text)) {
        return settings;
    }
    xmlElementPtr const root = kvxParseDocument(text);

    TbString value;
    if (read(root.get(), "USEPROXY", value) && value == TbString("1") && read(root.get(), "PROXYHOST", value)) {
        settings.m_ProxyHost = value;
        settings.m_ProxyPort = read(root.get(), "PROXYPORT", value) ? value : TbString(kDefaultProxyPort);
    }
    if (read(root.get(), "TRACEOPT", value)) {
        settings.m_Trace = value;
    }
    return settings;
}
