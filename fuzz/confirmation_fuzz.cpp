// Confirmations: the signature and the data as a shopper's browser brings them. Model: the dialect's second parser, and
// the signature by plain arithmetic. Accepted is what the model accepts, and nothing else.
//
// Input: how the signature is made, a line with its text, then the data. Some inputs are signed here with the server's
// key, some of these with wrong payloads, so that the code behind the signature is reached.

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzdirectory.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/signmodel.h"
#include "fuzz/xmlmodel.h"
#include "tallowin/tallowin.h"

namespace kvxfuzz {

namespace {

class Account {
public:
    Account()
        : m_Server(ModelKey::fromPrivate(testKey("rsa/key512.private.hex"))),
          m_Other(ModelKey::fromPublic(testKey("rsa/key1024.public.hex"))) {
        m_Directory.write("keys/public/server", hexText(testKey("rsa/key512.public.hex")));
        m_Directory.write("keys/public/other", hexText(testKey("rsa/key1024.public.hex")));
        m_Directory.write("keys/public/broken", "no key");
        m_Directory.write("keys/public/empty", "");
        m_Directory.write("keys/secret", hexText(testKey("rsa/key512.public.hex")));
    }

    FuzzDirectory m_Directory;
    ModelKey m_Server;
    ModelKey m_Other;
};

Account& account() {
    static Account s_Account;
    return s_Account;
}

std::string signatureFor(std::uint8_t how, std::string const& text, std::string const& data) {
    std::string payload = modelSha1(modelWidened(data, true));
    switch (how % 6) {
        case 0:
            return hexText(account().m_Server.sealed(payload));
        case 1:
            return hexText(account().m_Server.sealed(modelSha1(modelWidened(data, false))));
        case 2:
            return hexText(account().m_Server.sealed(payload + text.substr(0, 20)));
        case 3:
            return hexText(account().m_Server.sealed(payload.substr(0, text.size() % 20)));
        default:
            return text;
    }
}

/// The result code for a key id, data and signature.
std::int32_t modelVerification(std::string const& keyId, std::string const& data, std::string const& signature) {
    if (keyId == "broken") {
        return KVX_E_INVALID_KEY;
    }
    ModelKey const* const key = keyId == "server"  ? &account().m_Server
                                : keyId == "other" ? &account().m_Other
                                                   : nullptr;
    if (key == nullptr && keyId != "empty") {
        return KVX_E_NOT_FOUND;
    }
    std::optional<std::string> const bytes = bytesOfHexText(signature);
    if (!bytes || signature.size() > 2 * 4096) {
        return KVX_E_INVALID_KEY;
    }
    std::optional<std::string> const payload = key == nullptr ? std::nullopt : key->opened(*bytes);
    return payload == modelSha1(modelWidened(data, true)) ? KVX_OK : KVX_E_INVALID_SIGNATURE;
}

std::int32_t modelCode(ModelDocument& document, std::string const& data, std::string const& signature) {
    if (document.parse(data) != 0 || document.top("KVX") == 0) {
        return KVX_E_INVALID_FORMAT;
    }
    if (signature.empty()) {
        return KVX_E_MISSING_SIGNATURE;
    }
    std::string const* const keyId = document.at(document.top("KVX")).valueOf("KEYID");
    return keyId == nullptr ? KVX_E_NO_KEY_ID : modelVerification(*keyId, data, signature);
}

std::string contentOf(KVX_HANDLE message) {
    std::int32_t size = 0;
    static_cast<void>(MessageObject_ToString(message, &size, nullptr));
    std::string text(static_cast<std::size_t>(size), '\0');
    requireEqual(MessageObject_ToString(message, &size, text.data()), KVX_OK, "code of ToString");
    return upToZero(text);
}

}  // namespace

void runTarget(Input input) {
    std::uint8_t const how = input.byte();
    std::string const text = upToZero(input.line());
    std::string const data = upToZero(input.rest());
    std::string const signature = signatureFor(how, text, data);

    KVX_HANDLE const factory = CreateMessageFactory();
    KVX_HANDLE message = nullptr;
    requireEqual(MessageFactory_Open(factory, account().m_Directory.path().c_str()), KVX_OK, "code of Open");
    std::int32_t const code = MessageFactory_VerifyPayConfirm(factory, data.c_str(), signature.c_str(), &message);
    DestroyMessageFactory(factory);

    ModelDocument model;
    std::int32_t const expected = modelCode(model, data, signature);
    require((code == KVX_OK) == (expected == KVX_OK), "accepted is what the model accepts");
    if (!(expected == KVX_E_NOT_FOUND && code == KVX_E_CANNOT_OPEN)) {  // an id too long for a file, and an empty one
        requireEqual(code, expected, "code of a verification");
    }
    require((message != nullptr) == (code == KVX_OK), "a message comes with success only");
    if (message == nullptr) {
        return;
    }
    std::size_t const root = model.top("KVX");
    std::string const* const type = model.at(root).valueOf("MSGTYPE");
    if (type != nullptr && *type == "PayConfirm") {
        model.at(root).set("CONFIGPATH", account().m_Directory.path());
    }
    requireEqual(contentOf(message), model.written(root), "message");
    DestroyMessageObject(message);
}

}  // namespace kvxfuzz
