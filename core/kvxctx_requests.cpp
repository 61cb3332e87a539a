// Request URLs and the check of responses.

#include "core/kvxctx.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "core/kvxctx_settings.h"
#include "core/kvxdocument.h"
#include "core/kvxlines_core.h"
#include "core/kvxpercent.h"
#include "foundation/tbexception.h"
#include "foundation/tblocalstring.h"
#include "net/kvxhttp.h"
#include "net/kvxhttp_cause.h"

namespace {

constexpr char kAuthority[] = "://";
constexpr std::uint32_t kAuthorityLength = sizeof kAuthority - 1;
constexpr char kDataField[] = "?DATA=";
constexpr char kSignatureField[] = "&SIGNATURE=";

/// Whether `text` repeats the password in `url`, which ends at the last "@" of its authority.
bool repeatsPassword(TbString const& url, TbString const& text) {
    char const* const begin = std::strstr(url.c_str(), kAuthority);
    char const* const end = std::strrchr(url.c_str(), '@');
    char const* const colon = begin == nullptr ? nullptr : std::strchr(begin + kAuthorityLength, ':');
    if (end == nullptr || colon == nullptr || colon + 1 >= end) {
        return false;
    }
    return ::memmem(text.c_str(), text.length(), colon + 1, static_cast<std::size_t>(end - colon - 1)) != nullptr;
}

/// Notes the address of a server whose response is not as required, unless the failure's text repeats the password:
/// then the text will not be recorded either.
void explainResponse(TbString const& url, KVX_Exception const& failure) {
    if (repeatsPassword(url, failure.text())) {
        kvxForgetCause();
        return;
    }
    KvxCause cause;
    try {
        KVX_RequestInfo request;
        SplitUrl(url, request);
        cause = kvxAddressCause(request);
    } catch (TBFC_Exception const&) {
        cause.put("the server");
    }
    char const* const noted = kvxNotedCause();
    cause.put(*noted == '\0' ? "" : ": ").put(noted);
    kvxNoteCause(failure.code(), kvx::kSourceCtx.name(), failure.line(), cause);
}

}  // namespace

void KVX_Context::RequestToURL(TbString const& baseUrl, TbStringStream& message, TbString signature, TbString& url) {
    composeUrl(baseUrl, message, signature, url);
}

void KVX_Context::composeUrl(TbString const& baseUrl, TbStringStream const& message, TbString const& signature,
                             TbString& url) {
    std::uint32_t const position = baseUrl.find(kAuthority);
    if (position == TbString::npos || position == 0) {
        kvx::kSourceCtx.failBecause("the address of the service has no \"://\"", KVX_E_INVALID_URL,
                                    kvx::kLineRequestUrl);
    }
    std::uint32_t const begin = position + kAuthorityLength;
    // Deliberate (url-counts-old-text): the length of `url` decides how much of the rest is used; with an empty one the
    // count wraps around and all of it is used.
    std::uint32_t const count = url.length() - begin;
    std::uint32_t const remainder = std::min(count, baseUrl.length() - begin);
    bool const hasCredentials = !m_UserName.isEmpty() || !m_Password.isEmpty();

    TbUncountedString result;
    result.joinSecrecyOf(baseUrl);
    result.joinSecrecyOf(m_UserName);
    result.joinSecrecyOf(m_Password);
    result.joinSecrecyOf(message);
    result.joinSecrecyOf(signature);
    std::uint64_t const bytes = std::uint64_t{begin} + remainder + m_UserName.length() + m_Password.length() + 2 +
                                sizeof kDataField + kvxPercentEncodedSize(message.str()) + sizeof kSignatureField +
                                signature.length();
    result.grow(static_cast<std::uint32_t>(std::min<std::uint64_t>(bytes, UINT32_MAX)));
    result.append(baseUrl.c_str(), begin);
    if (hasCredentials) {
        result.append(m_UserName);
        result.append(':');
        result.append(m_Password);
        result.append('@');
    }
    result.append(baseUrl.c_str() + begin, remainder);
    result.append(kDataField);
    kvxPercentEncode(message.str(), 0, message.length(), result);
    if (!signature.isEmpty()) {
        result.append(kSignatureField);
        result.append(signature);
    }
    TbInPlaceText::handOver(result, url);
}

void KVX_Context::CheckResponseMsgType(xmlElement* response, TbString const& expected) {
    TbShortString type;
    response->getAttribute(TbBorrowed("MSGTYPE"), type);
    if (kvxIsWord(type, "Error")) {
        TbString message("");
        response->getAttribute("MESSAGE", message);
        kvx::kSourceCtx.fail(KVX_E_SERVER_ERROR, kvx::kLineResponseError, message);
    }
    if (type != expected) {
        kvx::kSourceCtx.fail(KVX_E_WRONG_RESPONSE, kvx::kLineResponseType,
                             "Response MSGTYPE: received '" + type + "', expected '" + expected + "'");
    }
}

xmlElementPtr KVX_Context::exchange(TbString const& baseUrl, TbStringStream& message, TbString const& signature,
                                    TbString const& expectedType, TbStringStream& responseText) {
    TbString url;
    composeUrl(baseUrl, message, signature, url);
    // Before anything is sent: a failure to read a file says that nothing was.
    xmlLimits const limits = settingsForVerification().m_Documents;
    StreamFromURL(url, responseText);
    try {
        xmlElementPtr response = xmlAdopt(kvxParseDocument(responseText, limits).release());
        CheckResponseMsgType(response.get(), expectedType);
        return response;
    } catch (KVX_Exception const& failure) {
        explainResponse(url, failure);
        throw;
    }
}
