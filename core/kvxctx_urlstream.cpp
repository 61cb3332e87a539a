// The stream behind documents and responses: fetches an HTTP or HTTPS URL, reads anything else as a local file.

#include "core/kvxctx.h"
#include "core/kvxctx_settings.h"
#include "core/kvxfile.h"
#include "core/kvxlines_core.h"
#include "net/kvxhttp.h"
#include "net/kvxurl.h"

void KVX_Context::StreamFromURL(TbString const& url, TbStringStream& out) {
    if (!IsHttp(url)) {
        std::uint32_t const before = out.length();
        KvxReadResult const result = kvxReadFile(url.c_str(), out);
        if (out.length() != before) {
            out.put("", 0);  // readable from now on
        }
        requireRead(result, "");
        return;
    }
    KVX_RequestInfo request;
    if (SplitUrl(url, request) == 0) {
        kvx::kSourceUrl.fail(KVX_E_HTTP_BAD_URL, kvx::kLineSplitUrl);
    }
    KVX_Settings const settings = settingsForExchange();
    request.transfer = settings.m_Transfer;
    request.proxyHost = settings.m_ProxyHost;
    request.proxyPort = settings.m_ProxyPort;
    request.traceOptions = settings.m_Trace;
    HttpSession(request, out);
}
