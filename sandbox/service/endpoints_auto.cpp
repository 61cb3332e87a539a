// The configuration service (/auto): set-up, defaults, key query and key export.
// Its requests carry Basic credentials instead of a signature, since the merchant has no key yet. Checked in this
// order: DATA, the credentials, the message; then the function of its type in kRequests makes the response.
// The faults that name or send another key (stale-key, wrong-key) apply where the key is chosen.
#include "sandbox/service/endpoints.h"

#include <cstddef>
#include <string>

#include "sandbox/crypto/credentials.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/rowwith.h"

namespace sandbox {

namespace {

constexpr std::size_t kMaxKeyIdBytes = 200;

/// What a handler of one type is given.
struct AutoRequest {
    RequestContext const& m_Context;
    Message const& m_Message;
    std::string const& m_Account;
    Services const& m_Services = m_Context.m_Services;
    std::string const& m_BaseUrl = m_Context.m_Request.m_BaseUrl;

    [[nodiscard]] bool goesWrong(FaultKind kind) const { return m_Context.m_Effect.is(kind); }

    /// The key id this service reports as its signing key.
    [[nodiscard]] std::string serverKeyId() const {
        return goesWrong(FaultKind::kStaleKey) ? m_Services.m_Keys.stale()->m_Id : m_Services.m_Keys.current()->m_Id;
    }
};

Message setupResponse(AutoRequest const& request) {
    request.m_Message.require("VERSION");
    Message response("SetupResponse");
    response.set("VERSION", "1")
        .set("VTURL", request.m_BaseUrl + "/pay")
        .set("CAPTUREURL", request.m_BaseUrl + "/capture")
        .set("KVX.VTAUTOURL", request.m_BaseUrl + "/auto")
        .set("VTKEYID", request.serverKeyId())
        .set("CUSTOMERID", request.m_Services.m_Store.customerOf(request.m_Account));
    return response;
}

Message defaultsResponse(AutoRequest const& request) {
    std::string const returned = request.m_BaseUrl + "/returned";
    Message response("LoadDefaultsResponse");
    response.set("KVX.ISVALID", "yes")
        .set("PAYINITTTL", "3600")
        .set("ALLOWCOLLECT", "yes")
        .set("DELIVERY", "no")
        .set("LANGID", "en")
        .set("SUCCESSLINK", returned)
        .set("NOTIFYADDRESS", "merchant@localhost")
        .set("DEFAULTVALIDITY", "86400")
        .set("BACKLINK", returned)
        .set("FAILLINK", returned);
    return response;
}

/// The key that a key query returns.
KeyRing::Key queriedKey(AutoRequest const& request) {
    if (request.goesWrong(FaultKind::kWrongKey)) {
        return request.m_Services.m_Keys.impostor();
    }
    if (request.goesWrong(FaultKind::kStaleKey)) {
        return request.m_Services.m_Keys.stale();
    }
    std::string const keyId = request.m_Message.require("KEYID");
    KeyRing::Key key = request.m_Services.m_Keys.find(keyId);
    if (!key) {
        throw HttpError("this service has no key '" + keyId + "', its key is '" +
                        request.m_Services.m_Keys.current()->m_Id + "'");
    }
    return key;
}

Message keyQueryResponse(AutoRequest const& request) {
    KeyRing::Key const key = queriedKey(request);
    Message response("KeyQueryResponse");
    response.set("KEYID", key->m_Id).set("KEYBLOB", publicKeyBlob(key->m_Key.get()));
    return response;
}

/// Merchants use the key id as the name of a file.
void checkKeyId(std::string const& keyId) {
    if (keyId.size() > kMaxKeyIdBytes) {
        throw HttpError("KEYID is longer than " + std::to_string(kMaxKeyIdBytes) + " bytes");
    }
    if (keyId == "." || keyId == "..") {
        throw HttpError("KEYID is the name of a directory");
    }
    for (char const c : keyId) {
        if (c <= ' ' || c > '~' || c == '/') {
            throw HttpError("KEYID holds a slash, a space or a byte outside ASCII");
        }
    }
}

Message keyExportResponse(AutoRequest const& request) {
    std::string const keyId = request.m_Message.require("KEYID");
    std::string const blob = request.m_Message.require("KEYBLOB");
    checkKeyId(keyId);
    readPublicKeyBlob(blob);
    bool const taken = KeyRing::reserves(keyId) || request.m_Services.m_Store.addMerchantKey(
                                                       keyId, {request.m_Account, blob},
                                                       request.m_Services.m_Clock.text()) == Store::KeyAdded::kTaken;
    if (taken) {
        throw HttpError("KEYID '" + keyId + "' stands for another key already");
    }
    Message response("KeyExportResponse");
    response.set("KEYID", keyId);
    return response;
}

/// The account of the credentials. Throws HttpError.
std::string checkCredentials(Services const& services, std::string const& header) {
    Credentials const credentials = readBasicHeader(header);
    switch (services.m_Store.checkAccount(credentials.m_User, credentials.m_Password)) {
        case Store::Login::kOk:
            return credentials.m_User;
        case Store::Login::kUnknownUser:
            throw HttpError(credentials.m_User.empty() ? "the credentials name no user"
                                                       : "there is no account '" + credentials.m_User + "'");
        case Store::Login::kWrongPassword:
            break;
    }
    throw HttpError("the password of the account '" + credentials.m_User + "' is another");
}

struct AutoRow {
    char const* m_Type;
    Message (*m_Handler)(AutoRequest const& request);
};

// clang-format off
constexpr AutoRow kRequests[] = {
    {"SetupRequest",        setupResponse},
    {"LoadDefaultsRequest", defaultsResponse},
    {"KeyQueryRequest",     keyQueryResponse},
    {"KeyExportRequest",    keyExportResponse},
};
// clang-format on

}  // namespace

HttpResponse handleAuto(RequestContext const& context) {
    requireData(context);
    std::string const account = checkCredentials(context.m_Services, context.m_Request.m_Authorization);
    context.m_Exchange.m_Steps.push_back({"The credentials are right", "account " + account});
    Message const& message = requireMessage(context);
    AutoRow const* const row = rowWith(kRequests, &AutoRow::m_Type, message.type());
    if (row == nullptr) {
        throw HttpError("the configuration service knows no request '" + message.type() + "'");
    }
    return messageResponse(row->m_Handler({context, message, account}).text());
}

}  // namespace sandbox
