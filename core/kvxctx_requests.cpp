// Request URLs and the check of responses.

#include "core/kvxctx.h"
#include "core/kvxctx_settings.h"
#include "core/kvxdocument.h"
#include "core/kvxlines_core.h"
#include "core/kvxpercent.h"

namespace {

constexpr char kAuthority[] = "://";
constexpr std::uint32_t kAuthorityLength = sizeof kAuthority - 1;

}  // namespace

void KVX_Context::RequestToURL(TbString const& baseUrl, TbStringStream& message, TbString signature, TbString& url) {
    std::uint32_t const position = baseUrl.find(kAuthority);
    if (position == TbString::npos || position == 0) {
        kvx::kSourceCtx.fail(KVX_E_INVALID_URL, kvx::kLineRequestUrl);
    }
    std::uint32_t const begin = position + kAuthorityLength;
    // Deliberate (url-counts-old-text): the length of `url` decides how much of the rest is used; with an empty one the
    // count wraps around and all of it is used.
    std::uint32_t const count = url.length() - begin;
    TbString const remainder = baseUrl.substring(begin, count);

    TbString credentials;
    if (!m_UserName.isEmpty() || !m_Password.isEmpty()) {
        credentials = m_UserName + ":" + m_Password + "@";
    }
    TbString result = baseUrl.substring(0, begin);
    result.append(credentials);
    result.append(remainder);
    result.append("?DATA=");
    result.joinSecrecyOf(message.str());
    kvxPercentEncode(message.str(), 0, message.length(), result);
    if (!signature.isEmpty()) {
        result.append("&SIGNATURE=");
        result.append(signature);
    }
    url = result;
}

void KVX_Context::CheckResponseMsgType(xmlElement* response, TbString const& expected) {
    TbString type("");
    response->getAttribute("MSGTYPE", type);
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
    RequestToURL(baseUrl, message, signature, url);
    StreamFromURL(url, responseText);
    xmlElementPtr response = kvxParseDocument(responseText, settingsForVerification().m_Documents);
    CheckResponseMsgType(response.get(), expectedType);
    return response;
}
