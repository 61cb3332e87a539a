// The stream behind documents and responses: fetches an HTTP or HTTPS URL, reads anything else as a local file.

#include <cerrno>

#include "core/kvxctx.h"
#include "core/kvxctx_settings.h"
#include "core/kvxfile.h"
#include "core/kvxlines_core.h"
#include "net/kvxhttp.h"
#include "net/kvxurl.h"

namespace {

void readLocalFile(TbString const& path, TbStringStream& out) {
    std::uint32_t const before = out.length();
    KvxReadResult const result = kvxReadFile(path.c_str(), out);
    int const error = errno;
    if (out.length() != before) {
        out.put("", 0);  // readable from now on
    }
    if (result == KvxReadResult::kDone) {
        return;
    }
    KvxCause cause = kvxFileCause(path, error);
    cause.put(" (the address begins with neither http: nor https:, so it was read as a file)");
    if (result == KvxReadResult::kCannotRead) {
        kvx::kSourceCtx.failBecause(cause, KVX_E_FILE_IO, kvx::kLineReadFile);
    }
    kvx::kSourceUrl.failBecause(cause, KVX_E_CANNOT_OPEN, kvx::kLineOpenFile);
}

}  // namespace

void KVX_Context::StreamFromURL(TbString const& url, TbStringStream& out) {
    if (!IsHttp(url)) {
        readLocalFile(url, out);
        return;
    }
    KVX_RequestInfo request;
    if (SplitUrl(url, request) == 0) {
        kvx::kSourceUrl.failBecause("the address is not of the form http://host:port/path", KVX_E_HTTP_BAD_URL,
                                    kvx::kLineSplitUrl);
    }
    KVX_Settings const settings = settingsForExchange();
    request.transfer = settings.m_Transfer;
    request.proxyHost = settings.m_ProxyHost;
    request.proxyPort = settings.m_ProxyPort;
    request.traceOptions = settings.m_Trace;
    HttpSession(request, out);
}
