// The doctor's checks of keys: the merchant's pair that signs, the server's key that verifies, and keys of earlier
// set-ups. At last a payment message is made and signed with the library, which sends nothing.
//
// Keys are read with OpenSSL: DER in hexadecimal, RSAPrivateKey and RSAPublicKey of PKCS #1. Repairs write only what
// can be derived without a doubt: a public key from its private one, and `keys/current` when exactly one pair is
// complete.

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstddef>
#include <memory>
#include <optional>

#include "tools/accountfiles.h"
#include "tools/doctor.h"
#include "tools/fingerprint.h"
#include "tools/toolfailure.h"
#include "tools/toolobjects.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

// A signature can be verified with keys up to this size only.
constexpr int kMaxVerifyBits = 1024;
constexpr int kMinBits = 512;
constexpr unsigned kPublicMode = 0644;
constexpr unsigned kCurrentMode = 0644;

constexpr char kSetUpAgain[] =
    "restore keys/ from a backup, or repeat the set-up, which makes a new pair: tallowin setup";

struct KeyRelease {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using KeyHolder = std::unique_ptr<EVP_PKEY, KeyRelease>;

int digitValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    char const lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// Empty when `text` is no hexadecimal text.
std::vector<unsigned char> bytesOf(std::string const& text) {
    std::vector<unsigned char> bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
        int const high = digitValue(text[at]);
        int const low = digitValue(text[at + 1]);
        if (high < 0 || low < 0) {
            return {};
        }
        bytes.push_back(static_cast<unsigned char>(high * 16 + low));
    }
    return text.size() % 2 == 0 ? bytes : std::vector<unsigned char>();
}

std::string hexOf(std::vector<unsigned char> const& bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char const byte : bytes) {
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 15U];
    }
    return text;
}

/// One of the files of a pair.
struct KeyFile {
    bool m_Exists = false;
    KeyHolder m_Key;        ///< Null when it cannot be used.
    std::string m_Trouble;  ///< Why: "is no key".
};

KeyFile readKey(std::string const& path, bool isPrivate) {
    KeyFile file;
    std::string text;
    struct stat status = {};
    file.m_Exists = fileStatus(path, status);
    if (!file.m_Exists) {
        file.m_Trouble = "is missing";
        return file;
    }
    if (!readSmallFile(path, text, file.m_Trouble)) {
        return file;
    }
    std::vector<unsigned char> const bytes = bytesOf(text);
    unsigned char const* from = bytes.data();
    auto const length = static_cast<long>(bytes.size());
    file.m_Key.reset(bytes.empty() ? nullptr
                     : isPrivate   ? d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &from, length)
                                   : d2i_PublicKey(EVP_PKEY_RSA, nullptr, &from, length));
    ERR_clear_error();
    if (file.m_Key == nullptr) {
        bool const isHex = text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
        file.m_Trouble = text.empty() ? "is empty"
                         : !isHex     ? "is no key: it has other characters than hexadecimal digits"
                                      : "is no key: it is damaged or cut off";
    }
    return file;
}

std::string publicTextOf(EVP_PKEY* key) {
    int const length = i2d_PublicKey(key, nullptr);
    std::vector<unsigned char> bytes(length > 0 ? static_cast<std::size_t>(length) : 0);
    unsigned char* to = bytes.data();
    return length > 0 && i2d_PublicKey(key, &to) == length ? hexOf(bytes) : "";
}

bool isFileName(std::string const& id) {
    return !id.empty() && id != "." && id != ".." && id.find('/') == std::string::npos;
}

std::string privateName(std::string const& id) {
    return "keys/private/" + id;
}

std::string publicName(std::string const& id) {
    return "keys/public/" + id;
}

/// Whether both halves of the pair `id` are there and fit.
bool isPair(Examination const& examination, std::string const& id) {
    KeyFile const secret = readKey(examination.path(privateName(id)), true);
    KeyFile const open = readKey(examination.path(publicName(id)), false);
    return secret.m_Key != nullptr && open.m_Key != nullptr && EVP_PKEY_eq(secret.m_Key.get(), open.m_Key.get()) == 1;
}

/// Adds the finding that `keys/current` does not name a key; repairs it when exactly one pair is complete.
/// Returns the id of the key that is current afterwards; empty when there is none.
std::string repairCurrent(Examination const& examination, std::string const& text) {
    std::vector<std::string> pairs;
    for (std::string const& id : filesIn(examination.path("keys/private"))) {
        if (isPair(examination, id)) {
            pairs.push_back(id);
        }
    }
    if (pairs.size() != 1) {
        examination.m_Report.problem("keys", text,
                                     pairs.empty()
                                         ? kSetUpAgain
                                         : "write the id of the key that the server knows into keys/current (" +
                                               std::to_string(pairs.size()) +
                                               " pairs are complete), or repeat the set-up: tallowin setup");
        return "";
    }
    if (!examination.m_Options.m_Repairs) {
        examination.m_Report.problem("keys", text,
                                     "one pair is complete: write " + pairs[0] +
                                         " into keys/current, without a line end, or tallowin doctor --repair");
        return "";
    }
    replaceFile(examination.path("keys/current"), pairs[0], kCurrentMode);
    examination.m_Report.repaired("keys", text, "keys/current now names the only complete pair, " + pairs[0]);
    return pairs[0];
}

/// Adds the finding that `keys/current` holds `id` and white space, which belongs to no id; repairs it.
std::string removeLineEnd(Examination const& examination, std::string const& id) {
    std::string const text = "keys/current has white space or a line end around the key id";
    if (!examination.m_Options.m_Repairs) {
        examination.m_Report.problem("keys", text, "remove it, or tallowin doctor --repair");
        return "";
    }
    replaceFile(examination.path("keys/current"), id, kCurrentMode);
    examination.m_Report.repaired("keys", text, "removed");
    return id;
}

/// The id in `keys/current`, which names a private key; empty after a finding.
std::string examineCurrent(Examination const& examination) {
    std::string text;
    std::string reason;
    struct stat status = {};
    if (!fileStatus(examination.path("keys/current"), status)) {
        return repairCurrent(examination, "keys/current is missing: no key is the current one");
    }
    if (!readSmallFile(examination.path("keys/current"), text, reason)) {
        examination.m_Report.problem("keys", "keys/current " + reason, kSetUpAgain);
        return "";
    }
    if (text.empty()) {
        return repairCurrent(examination, "keys/current is empty");
    }
    std::string const id = trimmed(text);
    if (id != text && isFileName(id) && fileStatus(examination.path(privateName(id)), status)) {
        return removeLineEnd(examination, id);
    }
    if (!isFileName(text)) {
        return repairCurrent(examination, "keys/current holds no key id: " + shortened(text, 80));
    }
    if (!fileStatus(examination.path(privateName(text)), status)) {
        return repairCurrent(examination, "keys/current names the key " + text + ", which is missing");
    }
    return text;
}

void examineSize(Examination const& examination, char const* check, std::string const& name, int bits) {
    if (bits < kMinBits) {
        examination.m_Report.problem(check, name + " has only " + std::to_string(bits) + " bits",
                                     "repeat the set-up: tallowin setup");
    }
}

/// The halves of the pair that signs.
void examinePair(Examination const& examination, std::string const& id) {
    DoctorReport& report = examination.m_Report;
    KeyFile const secret = readKey(examination.path(privateName(id)), true);
    KeyFile const open = readKey(examination.path(publicName(id)), false);
    if (secret.m_Key == nullptr) {
        return report.problem("keys", privateName(id) + " " + secret.m_Trouble, kSetUpAgain);
    }
    if (open.m_Key == nullptr) {
        std::string const text = publicName(id) + " " + open.m_Trouble;
        if (!examination.m_Options.m_Repairs) {
            return report.problem("keys", text, "make it from the private key: tallowin doctor --repair");
        }
        replaceFile(examination.path(publicName(id)), publicTextOf(secret.m_Key.get()), kPublicMode);
        return report.repaired("keys", text, "made from the private key");
    }
    if (EVP_PKEY_eq(secret.m_Key.get(), open.m_Key.get()) != 1) {
        return report.problem("keys", privateName(id) + " and " + publicName(id) + " are not halves of one pair",
                              kSetUpAgain);
    }
    std::string const customer = valueIn(examination, "config.xml", "CUSTOMERID");
    if (!customer.empty() && id.compare(0, customer.size() + 3, "0-" + customer + "-") != 0) {
        report.warning("keys", "the key id " + id + " does not belong to the account " + customer + " of config.xml",
                       "the files may come from two set-ups: repeat it, tallowin setup");
    }
    examineSize(examination, "keys", privateName(id), EVP_PKEY_get_bits(secret.m_Key.get()));
    if (!report.hasFinding("keys")) {
        report.good("keys",
                    "the pair " + id + " fits, " + std::to_string(EVP_PKEY_get_bits(secret.m_Key.get())) + " bits");
    }
}

void examineServerKey(Examination const& examination) {
    DoctorReport& report = examination.m_Report;
    constexpr char kCheck[] = "server key";
    constexpr char kCure[] = "repeat the set-up, which loads it; compare it with the provider: tallowin setup";
    std::string const id = valueIn(examination, "config.xml", "VTKEYID");
    if (id.empty()) {
        return report.problem(kCheck, "config.xml names no key of the server (VTKEYID)", kCure);
    }
    if (!isFileName(id)) {
        return report.problem(kCheck, "VTKEYID in config.xml is no key id: " + id, kCure);
    }
    KeyFile const key = readKey(examination.path(publicName(id)), false);
    if (key.m_Key == nullptr) {
        return report.problem(kCheck, publicName(id) + " " + key.m_Trouble + ": no confirmation can be verified",
                              kCure);
    }
    int const bits = EVP_PKEY_get_bits(key.m_Key.get());
    if (bits > kMaxVerifyBits) {
        report.problem(kCheck,
                       publicName(id) + " has " + std::to_string(bits) + " bits; signatures can be verified up to " +
                           std::to_string(kMaxVerifyBits),
                       "ask the provider for a smaller key, then repeat the set-up");
    }
    std::string const least = valueIn(examination, "settings.xml", "MINKEYBITS");
    if (!least.empty() && least.find_first_not_of("0123456789") == std::string::npos && least.size() < 9 &&
        bits < std::stoi(least)) {
        report.problem(
            kCheck,
            publicName(id) + " has " + std::to_string(bits) + " bits, fewer than MINKEYBITS=\"" + least + "\" demands",
            "ask the provider for a larger key, or lower MINKEYBITS");
    }
    examineSize(examination, kCheck, publicName(id), bits);
    std::string const pin = valueIn(examination, "settings.xml", "KEYPIN");
    std::string lower;
    for (char const c : pin) {
        lower += c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    std::string const fingerprint = fingerprintOf(examination.path(publicName(id)));
    if (!lower.empty() && lower != fingerprint) {
        report.problem(kCheck, "the server's key is not the one that KEYPIN names; its SHA-256 is " + fingerprint,
                       "ask the provider which is right; then correct KEYPIN, or repeat the set-up");
    }
    struct stat status = {};
    if (fileStatus(examination.path(privateName(id)), status)) {
        report.problem(kCheck, "the private half of the server's key lies in this directory: " + privateName(id),
                       "if this is no test, the key is known to others: call the provider");
    }
    if (!report.hasFinding(kCheck)) {
        report.good(kCheck, id + ", " + std::to_string(bits) + " bits, SHA-256 " + fingerprint);
    }
}

void examineOldKeys(Examination const& examination, std::string const& current) {
    std::vector<std::string> old;
    for (std::string const& id : filesIn(examination.path("keys/private"))) {
        if (id != current) {
            old.push_back(id);
        }
    }
    if (old.empty()) {
        return examination.m_Report.good("old keys", "no private keys of earlier set-ups");
    }
    examination.m_Report.warning("old keys",
                                 std::to_string(old.size()) + " private " + (old.size() == 1 ? "key" : "keys") +
                                     " of earlier set-ups can still sign in this account's name, such as " + old[0],
                                 current.empty() ? "find the current key first" : "remove them: tallowin keys prune");
}

/// Makes and signs a payment message with the library.
void examineSigning(Examination const& examination) {
    if (examination.m_Report.hasFinding("keys") || examination.m_Report.hasFinding("files")) {
        return examination.m_Report.skipped("signing", "not checked: keys or files have findings");
    }
    FactoryObject const factory = openFactory(examination.m_Directory);
    KVX_HANDLE handle = nullptr;
    std::int32_t code = MessageFactory_CreatePayInit(factory.get(), &handle);
    if (code == KVX_OK) {
        MessageObject const message(handle);
        std::string url;
        code = readText(
            [&message](std::int32_t* size, char* buffer) { return MessageObject_GetURL(message.get(), size, buffer); },
            url);
    }
    if (code != KVX_OK) {
        return examination.m_Report.problem("signing", "the library cannot sign a payment: " + codeText(code),
                                            "tallowin explain " + codeNumber(code));
    }
    examination.m_Report.good("signing", "a payment message can be made and signed");
}

}  // namespace

void examineKeys(Examination const& examination) {
    std::string const current = examineCurrent(examination);
    if (!current.empty()) {
        examinePair(examination, current);
    }
    examineServerKey(examination);
    examineOldKeys(examination, current);
    examineSigning(examination);
}

}  // namespace tool
