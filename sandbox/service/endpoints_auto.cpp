#include <cstddef>
#include <string>

#include "sandbox/crypto/credentials.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/service/site.h"
#include "sandbox/text/refusal.h"

/// The automatic configuration service: set-up, defaults and keys. Its requests carry Basic credentials instead of a
/// signature, since the merchant has no key yet.
namespace sandbox {

namespace {

constexpr std::size_t kLongestKeyId = 200;

/// What one request is answered from.
struct AutoRequest {
    Call const& call;
    Message const& message;
    std::string const& account;
    Site const& site = call.site;
    std::string const& baseUrl = call.request.baseUrl;

    [[nodiscard]] bool goesWrong(FaultKind kind) const { return call.fault && call.fault->kind == kind; }

    /// The identifier that is told for that of the key which signs.
    [[nodiscard]] std::string serverKeyId() const {
        return goesWrong(FaultKind::StaleKey) ? site.keys.stale()->id : site.keys.current()->id;
    }
};

Message answerSetup(AutoRequest const& request) {
    request.message.require("VERSION");
    Message answer("SetupResponse");
    answer.set("VERSION", "1")
        .set("VTURL", request.baseUrl + "/pay")
        .set("CAPTUREURL", request.baseUrl + "/capture")
        .set("KVX.VTAUTOURL", request.baseUrl + "/auto")
        .set("VTKEYID", request.serverKeyId())
        .set("CUSTOMERID", request.site.store.customerOf(request.account));
    return answer;
}

Message answerLoadDefaults(AutoRequest const& request) {
    std::string const returned = request.baseUrl + "/returned";
    Message answer("LoadDefaultsResponse");
    answer.set("KVX.ISVALID", "yes")
        .set("PAYINITTTL", "3600")
        .set("ALLOWCOLLECT", "yes")
        .set("DELIVERY", "no")
        .set("LANGID", "en")
        .set("SUCCESSLINK", returned)
        .set("NOTIFYADDRESS", "merchant@localhost")
        .set("DEFAULTVALIDITY", "86400")
        .set("BACKLINK", returned)
        .set("FAILLINK", returned);
    return answer;
}

/// The key that a query is answered with.
KeyRing::Key queriedKey(AutoRequest const& request) {
    if (request.goesWrong(FaultKind::WrongKey)) {
        return request.site.keys.impostor();
    }
    if (request.goesWrong(FaultKind::StaleKey)) {
        return request.site.keys.stale();
    }
    std::string const keyId = request.message.require("KEYID");
    KeyRing::Key key = request.site.keys.find(keyId);
    if (!key) {
        throw Refusal("this service has no key '" + keyId + "', its key is '" + request.site.keys.current()->id + "'");
    }
    return key;
}

Message answerKeyQuery(AutoRequest const& request) {
    KeyRing::Key const key = queriedKey(request);
    Message answer("KeyQueryResponse");
    answer.set("KEYID", key->id).set("KEYBLOB", publicKeyBlob(key->key.get()));
    return answer;
}

/// The other side uses the identifier as the name of a file.
void checkKeyId(std::string const& keyId) {
    if (keyId.size() > kLongestKeyId) {
        throw Refusal("KEYID is longer than " + std::to_string(kLongestKeyId) + " bytes");
    }
    if (keyId == "." || keyId == "..") {
        throw Refusal("KEYID is the name of a directory");
    }
    for (char const c : keyId) {
        if (c <= ' ' || c > '~' || c == '/') {
            throw Refusal("KEYID holds a slash, a space or a byte outside ASCII");
        }
    }
}

Message answerKeyExport(AutoRequest const& request) {
    std::string const keyId = request.message.require("KEYID");
    std::string const blob = request.message.require("KEYBLOB");
    checkKeyId(keyId);
    readPublicKeyBlob(blob);
    bool const taken = KeyRing::reserves(keyId) ||
                       request.site.store.addMerchantKey(keyId, {request.account, blob}, request.site.clock.text()) ==
                           Store::KeyAdded::Taken;
    if (taken) {
        throw Refusal("KEYID '" + keyId + "' stands for another key already");
    }
    Message answer("KeyExportResponse");
    answer.set("KEYID", keyId);
    return answer;
}

/// The account that the credentials open. Throws Refusal.
std::string checkCredentials(Site const& site, std::string const& header) {
    Credentials const credentials = readBasicHeader(header);
    switch (site.store.checkAccount(credentials.user, credentials.password)) {
        case Store::Login::Ok:
            return credentials.user;
        case Store::Login::UnknownUser:
            throw Refusal(credentials.user.empty() ? "the credentials name no user"
                                                   : "there is no account '" + credentials.user + "'");
        case Store::Login::WrongPassword:
            break;
    }
    throw Refusal("the password of the account '" + credentials.user + "' is another");
}

struct AutoRow {
    char const* type;
    Message (*answer)(AutoRequest const& request);
};

// clang-format off
constexpr AutoRow kRequests[] = {
    {"SetupRequest",        answerSetup},
    {"LoadDefaultsRequest", answerLoadDefaults},
    {"KeyQueryRequest",     answerKeyQuery},
    {"KeyExportRequest",    answerKeyExport},
};
// clang-format on

}  // namespace

HttpReply answerAuto(Call const& call) {
    std::string const text = takeData(call);
    std::string const account = checkCredentials(call.site, call.request.authorization);
    call.record.steps.push_back({"The credentials are right", "account " + account});
    Message const message = Message::parse(text);
    call.record.steps.push_back({"DATA is a message", message.type()});
    for (AutoRow const& row : kRequests) {
        if (message.type() == row.type) {
            return messageReply(row.answer({call, message, account}).text());
        }
    }
    throw Refusal("the configuration service knows no request '" + message.type() + "'");
}

}  // namespace sandbox
