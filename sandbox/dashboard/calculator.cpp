#include "sandbox/dashboard/calculator.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "sandbox/crypto/signature.h"
#include "sandbox/text/refusal.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::size_t kDigestBytes = 20;

// The DER before the digest in a DigestInfo for SHA-1 (RFC 8017, section 9.2, note 1).
constexpr char kDigestInfoStart[] = "3021300906052b0e03021a05000414";

/// SIGNATURE as a key opens it.
struct Opened {
    Wrapping wrapping = Wrapping::Unknown;
    std::string content;  ///< The digest without what it is wrapped in; empty when there is none.
};

unsigned char const* bytesOf(std::string const& text) {
    return reinterpret_cast<unsigned char const*>(text.data());
}

unsigned char* bytesOf(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

std::string digestOf(std::string const& text, Digested digested) {
    if (digested != Digested::Bytes) {
        return sandbox::digestOf(text, digested == Digested::SignExtended ? Widening::Sign : Widening::Zero);
    }
    std::string digest(kDigestBytes, '\0');
    if (EVP_Digest(text.data(), text.size(), bytesOf(digest), nullptr, EVP_sha1(), nullptr) != 1) {
        throw std::runtime_error("OpenSSL could not make a digest");
    }
    return digest;
}

/// What the owner of a key signs.
Digested signedBy(KnownKey const& key) {
    return key.ofService() ? Digested::SignExtended : Digested::ZeroExtended;
}

std::size_t sizeOf(KnownKey const& key) {
    return static_cast<std::size_t>(EVP_PKEY_get_size(key.key.get()));
}

/// The result of the RSA operation, padding and all; empty when there is none.
std::string rawBlock(KnownKey const& key, std::string const& signature) {
    KeyContextHolder const context(EVP_PKEY_CTX_new(key.key.get(), nullptr));
    std::size_t length = sizeOf(key);
    std::string block(length, '\0');
    bool const done =
        context && EVP_PKEY_verify_recover_init(context.get()) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) == 1 &&
        EVP_PKEY_verify_recover(context.get(), bytesOf(block), &length, bytesOf(signature), signature.size()) == 1;
    ERR_clear_error();
    return done && length == block.size() ? block : "";
}

bool verifiesAsPss(KnownKey const& key, std::string const& digest, std::string const& signature) {
    KeyContextHolder const context(EVP_PKEY_CTX_new(key.key.get(), nullptr));
    bool const good =
        context && EVP_PKEY_verify_init(context.get()) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) == 1 &&
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha1()) == 1 &&
        EVP_PKEY_verify(context.get(), bytesOf(signature), signature.size(), bytesOf(digest), digest.size()) == 1;
    ERR_clear_error();
    return good;
}

/// `signature` without our padding.
Opened openForeign(KnownKey const& key, std::string const& signature) {
    std::string const block = rawBlock(key, signature);
    if (block.empty()) {
        return {};
    }
    if (block[0] == '\0' && block[1] == '\2') {
        return {Wrapping::Encryption, ""};
    }
    std::size_t const before = block.size() - kDigestBytes;
    if (block.find_first_not_of('\0') >= before) {
        return {Wrapping::Unpadded, block.substr(before)};
    }
    return {};
}

/// `signature` is as long as the modulus.
Opened openUnder(KnownKey const& key, std::string const& signature) {
    std::optional<std::string> const content = signedDigest(key.key.get(), signature);
    if (!content) {
        return openForeign(key, signature);
    }
    if (content->size() == kDigestBytes) {
        return {Wrapping::Bare, *content};
    }
    std::string const start = fromHex(kDigestInfoStart).value();
    if (content->size() == start.size() + kDigestBytes && content->compare(0, start.size(), start) == 0) {
        return {Wrapping::DigestInfo, content->substr(start.size())};
    }
    return {Wrapping::OtherContent, *content};
}

constexpr std::array<Digested, 3> kAllDigested = {Digested::ZeroExtended, Digested::SignExtended, Digested::Bytes};

/// The digests of one text.
class Digests {
public:
    explicit Digests(std::string const& text) {
        for (Digested const digested : kAllDigested) {
            m_Digests.emplace_back(digested, digestOf(text, digested));
        }
    }

    /// What was digested when `digest` is one of these. In plain ASCII it can be either of two; then it is `preferred`.
    [[nodiscard]] std::optional<Digested> find(std::string const& digest, Digested preferred) const {
        std::optional<Digested> found;
        for (auto const& [digested, present] : m_Digests) {
            if (present == digest && (!found || digested == preferred)) {
                found = digested;
            }
        }
        return found;
    }

private:
    std::vector<std::pair<Digested, std::string>> m_Digests;
};

/// What one key makes of SIGNATURE.
struct Attempt {
    KnownKey const& key;
    std::string signature;  ///< As long as the modulus.
    bool zerosLost;
    Opened opened;
};

std::vector<Attempt> openUnderAll(std::vector<KnownKey> const& keys, std::string const& signature) {
    std::vector<Attempt> attempts;
    for (KnownKey const& key : keys) {
        std::size_t const size = sizeOf(key);
        if (signature.size() <= size) {
            std::string const filled = std::string(size - signature.size(), '\0') + signature;
            attempts.push_back({key, filled, signature.size() < size, openUnder(key, filled)});
        }
    }
    return attempts;
}

std::vector<Match> matchesOf(std::vector<Attempt> const& attempts, std::string const& text, std::string const& repair) {
    Digests const digests(text);
    std::vector<Match> matches;
    for (Attempt const& attempt : attempts) {
        std::optional<Digested> const digested = digests.find(attempt.opened.content, signedBy(attempt.key));
        if (digested) {
            matches.push_back(
                {attempt.key.id, attempt.key.account, *digested, attempt.opened.wrapping, attempt.zerosLost, repair});
        }
    }
    return matches;
}

/// PSS holds no digest that could be taken out, so it is tried for DATA as it is only.
std::vector<Match> pssMatchesOf(std::vector<Attempt> const& attempts, std::string const& text) {
    std::vector<Match> matches;
    for (Attempt const& attempt : attempts) {
        for (Digested const digested : kAllDigested) {
            if (attempt.opened.wrapping == Wrapping::Unknown &&
                verifiesAsPss(attempt.key, digestOf(text, digested), attempt.signature)) {
                matches.push_back(
                    {attempt.key.id, attempt.key.account, digested, Wrapping::Pss, attempt.zerosLost, ""});
            }
        }
    }
    return matches;
}

std::vector<Match> findMatches(std::vector<Attempt> const& attempts, std::string const& data) {
    std::vector<Match> matches = matchesOf(attempts, data, "");
    if (matches.empty()) {
        matches = pssMatchesOf(attempts, data);
    }
    for (Repair const& repair : repairs(data)) {
        if (!matches.empty()) {
            break;
        }
        matches = matchesOf(attempts, repair.text, repair.description);
    }
    return matches;
}

std::string quoted(std::string const& text) {
    return "'" + text + "'";
}

std::string nameOf(Digested digested) {
    switch (digested) {
        case Digested::ZeroExtended:
            return "its bytes zero-extended to two, as merchants sign";
        case Digested::SignExtended:
            return "its bytes sign-extended to two, as this service signs";
        case Digested::Bytes:
            break;
    }
    return "its bytes as they are, one each, as nobody signs here";
}

std::string nameOf(std::string const& keyId, std::string const& account) {
    return "the key " + quoted(keyId) + " of " + keyOwner(account);
}

bool isMessage(std::string const& text) {
    try {
        Message::parse(text);
        return true;
    } catch (Refusal const&) {
        return false;
    }
}

/// Empty for the wrapping that is right, and for one that cannot be told.
std::string faultOf(Wrapping wrapping, std::size_t contentBytes) {
    switch (wrapping) {
        case Wrapping::DigestInfo:
            return "The digest in SIGNATURE is wrapped in a DigestInfo, 35 bytes in all. Here the 20 bytes of the "
                   "digest "
                   "are signed alone.";
        case Wrapping::OtherContent:
            return "SIGNATURE holds " + std::to_string(contentBytes) +
                   " bytes, where the 20 of a SHA-1 digest are right.";
        case Wrapping::Encryption:
            return "The padding of SIGNATURE is of type 2, which is for encryption. That of a signature is of type 1.";
        case Wrapping::Unpadded:
            return "SIGNATURE holds 20 bytes without padding. Here they are padded as in PKCS #1 v1.5, type 1.";
        case Wrapping::Pss:
            return "SIGNATURE is padded with PSS. Here it is padded as in PKCS #1 v1.5, type 1.";
        case Wrapping::Bare:
        case Wrapping::Unknown:
            break;
    }
    return "";
}

/// Fills in a Calculation step by step.
class Calculator {
public:
    Calculator(std::vector<KnownKey> const& keys, Recall const& recall, Calculation& out)
        : m_Keys(keys), m_Recall(recall), m_Out(out) {}

    void run() {
        if (m_Out.data.empty()) {
            return remark(Finding::DataMissing, "There is no DATA.");
        }
        m_Out.zeroDigest = toHex(digestOf(m_Out.data, Digested::ZeroExtended));
        m_Out.signDigest = toHex(digestOf(m_Out.data, Digested::SignExtended));
        readMessage();
        if (std::optional<std::string> const signature = readSignature()) {
            compare(*signature);
        }
    }

private:
    void remark(Finding finding, std::string const& text) { m_Out.remarks.push_back({finding, text}); }

    [[nodiscard]] bool has(Finding finding) const {
        for (Remark const& present : m_Out.remarks) {
            if (present.finding == finding) {
                return true;
            }
        }
        return false;
    }

    void readMessage() {
        try {
            m_Out.message = Message::parse(m_Out.data);
        } catch (Refusal const& refusal) {
            return remark(Finding::NoMessage, std::string("DATA is no message: ") + refusal.what() + ".");
        }
        m_Out.keyId = m_Out.message->find("KEYID").value_or("");
        if (m_Out.keyId.empty()) {
            return remark(Finding::KeyIdMissing,
                          "The message has no KEYID, so nobody can tell whose signature it needs.");
        }
        for (KnownKey const& key : m_Keys) {
            if (key.id == m_Out.keyId && !m_Out.key) {
                m_Out.key = key;
            }
        }
        if (!m_Out.key) {
            return remark(Finding::KeyUnknown, "KEYID " + quoted(m_Out.keyId) +
                                                   " names neither a key of this service nor one that a merchant "
                                                   "published here.");
        }
        if (m_Out.key->ofService() && !m_Out.key->current) {
            remark(Finding::KeyOld, "KEYID " + quoted(m_Out.keyId) +
                                        " names an old key of this service, which signs with another one now.");
        }
    }

    /// SIGNATURE in bytes, as far as it can be read.
    std::optional<std::string> readSignature() {
        std::string lower = m_Out.signature;
        for (char& c : lower) {
            c = c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
        }
        std::optional<std::string> const bytes = fromHex(lower);
        if (lower.empty()) {
            remark(Finding::SignatureMissing, "There is no SIGNATURE.");
            return std::nullopt;
        }
        if (!bytes) {
            std::size_t const foreign = lower.find_first_not_of("0123456789abcdef");
            remark(Finding::NotHexadecimal,
                   foreign == std::string::npos
                       ? "SIGNATURE has " + std::to_string(lower.size()) + " hexadecimal digits, an odd number."
                       : "SIGNATURE is not hexadecimal: its character number " + std::to_string(foreign + 1) +
                             " is no digit.");
            return std::nullopt;
        }
        if (lower != m_Out.signature) {
            remark(Finding::UpperCase,
                   "SIGNATURE has hexadecimal digits in upper case. Here only lower case is taken.");
        }
        return bytes;
    }

    void compare(std::string const& signature) {
        std::vector<Attempt> const attempts = openUnderAll(m_Keys, signature);
        m_Out.matches = findMatches(attempts, m_Out.data);
        if (m_Out.key) {
            compareUnderNamedKey(signature, attempts);
        }
        if (!m_Out.matches.empty()) {
            return explain(bestMatch());
        }
        Attempt const* holding = nullptr;
        for (Attempt const& attempt : attempts) {
            bool const holds = attempt.opened.content.size() == kDigestBytes;
            if (holds && (holding == nullptr || isNamed(attempt.key.id, attempt.key.account))) {
                holding = &attempt;
            }
        }
        return holding != nullptr ? recallOriginal(*holding) : nothingFits("");
    }

    void nothingFits(std::string const& more) {
        remark(Finding::NothingFits,
               "SIGNATURE is one of DATA under none of the " + std::to_string(m_Keys.size()) +
                   " keys known here, extended in either way, with any one of the common damages undone." + more);
    }

    /// `attempt` found a digest that is not of DATA.
    void recallOriginal(Attempt const& attempt) {
        KnownKey const& key = attempt.key;
        std::optional<SeenMessage> seen = m_Recall(key, attempt.opened.content);
        if (!seen) {
            std::string const count = std::to_string(kMostRecalled);
            return nothingFits(" Nor is it that of another message which was seen here: the newest " + count +
                               " payments and the newest " + count + " exchanges were looked at.");
        }
        Digested const digested = Digests(seen->text).find(attempt.opened.content, signedBy(key)).value();
        remark(Finding::OtherMessage, "SIGNATURE is that of another message, which was seen here: " + seen->origin +
                                          ". It was made under " + nameOf(key.id, key.account) + ".");
        m_Out.original = SignedOriginal{std::move(*seen), {}};
        compareWith(*m_Out.original);
        explainFaults({key.id, key.account, digested, attempt.opened.wrapping, attempt.zerosLost, ""}, "that message");
    }

    void compareWith(SignedOriginal& original) {
        std::string const& text = original.seen.text;
        if (!m_Out.message || !isMessage(text)) {
            return remark(Finding::OtherMessage,
                          "What differs cannot be told by attributes, because not both of them can be read.");
        }
        original.differences = differences(Message::parse(text).attributes(), m_Out.message->attributes());
        if (original.differences.empty()) {
            return remark(Finding::OtherMessage, "No attribute of it was changed, added or lost: " +
                                                     differenceInWriting(text, m_Out.data) + ".");
        }
        std::string names;
        for (Difference const& difference : original.differences) {
            names += (names.empty() ? "" : ", ") + difference.name;
        }
        remark(Finding::OtherMessage, "DATA differs from it in: " + names + ".");
    }

    void compareUnderNamedKey(std::string const& signature, std::vector<Attempt> const& attempts) {
        KnownKey const& key = *m_Out.key;
        std::size_t const size = sizeOf(key);
        if (signature.size() != size) {
            remark(Finding::WrongLength, "SIGNATURE has " + std::to_string(signature.size()) + " bytes, but the key " +
                                             quoted(key.id) + " of " + std::to_string(key.bits()) +
                                             " bits makes signatures of " + std::to_string(size) + ".");
        }
        for (Attempt const& attempt : attempts) {
            if (attempt.key.key == key.key) {
                describe(attempt);
            }
        }
    }

    void describe(Attempt const& attempt) {
        Opened const& opened = attempt.opened;
        m_Out.heldDigest = toHex(opened.content);
        std::string const fault = faultOf(opened.wrapping, opened.content.size());
        if (!fault.empty()) {
            remark(Finding::WrongWrapping, fault);
        } else if (opened.wrapping == Wrapping::Unknown && !isMatch(attempt.key)) {
            remark(Finding::Unreadable, "Under the key " + quoted(attempt.key.id) +
                                            " SIGNATURE holds nothing: another key made it, or it was changed.");
        }
        bool const holdsDigest = opened.content.size() == kDigestBytes;
        if (holdsDigest && opened.content != digestOf(m_Out.data, signedBy(attempt.key))) {
            remark(Finding::OtherDigest,
                   "The digest in SIGNATURE is another than that of DATA, " + nameOf(signedBy(attempt.key)) + ".");
        }
    }

    [[nodiscard]] bool isMatch(KnownKey const& key) const {
        for (Match const& match : m_Out.matches) {
            if (match.keyId == key.id && match.account == key.account) {
                return true;
            }
        }
        return false;
    }

    /// The one under the key that KEYID names, if it is among them.
    [[nodiscard]] Match const& bestMatch() const {
        for (Match const& match : m_Out.matches) {
            if (isNamed(match.keyId, match.account)) {
                return match;
            }
        }
        return m_Out.matches.front();
    }

    [[nodiscard]] bool isNamed(std::string const& keyId, std::string const& account) const {
        return m_Out.key && keyId == m_Out.key->id && account == m_Out.key->account;
    }

    void explain(Match const& match) {
        std::string const under = "under " + nameOf(match.keyId, match.account);
        if (!match.repair.empty()) {
            remark(Finding::Damaged, "It verifies " + under + " once " + match.repair + ".");
        }
        explainFaults(match, "DATA");
        bool const harmless = m_Out.remarks.empty() || (m_Out.remarks.size() == 1 && has(Finding::KeyOld));
        if (harmless) {
            m_Out.right = true;
            remark(Finding::Right, "SIGNATURE is one of DATA " + under + ", with " + nameOf(match.digested) + ".");
        }
    }

    /// Tells what is wrong with a signature of `what`.
    void explainFaults(Match const& match, std::string const& what) {
        if (!isNamed(match.keyId, match.account) && !m_Out.keyId.empty()) {
            remark(Finding::WrongKey,
                   "It verifies under " + nameOf(match.keyId, match.account) + ", not under the one that KEYID names.");
        }
        if (match.zerosLost) {
            remark(Finding::WrongLength, "It verifies once the zero bytes missing before SIGNATURE are put back.");
        }
        if (match.wrapping != Wrapping::Bare && !has(Finding::WrongWrapping)) {
            remark(Finding::WrongWrapping, faultOf(match.wrapping, kDigestBytes));
        }
        Digested const expected = match.account.empty() ? Digested::SignExtended : Digested::ZeroExtended;
        if (match.digested != expected) {
            remark(Finding::WrongWidening, "What was signed is " + what + " with " + nameOf(match.digested) + ". Of " +
                                               keyOwner(match.account) + " it must be " + what + " with " +
                                               nameOf(expected) + ".");
        }
    }

    std::vector<KnownKey> const& m_Keys;
    Recall const& m_Recall;
    Calculation& m_Out;
};

}  // namespace

std::string keyOwner(std::string const& account) {
    return account.empty() ? "this service" : "the merchant " + account;
}

std::vector<KnownKey> knownKeys(Site const& site) {
    std::vector<KnownKey> keys;
    std::string const current = site.keys.current()->id;
    for (KeyRing::Key const& key : site.keys.all()) {
        keys.push_back({key->id, "", key->id == current, std::shared_ptr<EVP_PKEY>(key, key->key.get())});
    }
    for (PublishedKey const& published : site.store.merchantKeys()) {
        keys.push_back({published.id, published.key.account, false, readPublicKeyBlob(published.key.blob)});
    }
    return keys;
}

Calculation calculate(std::vector<KnownKey> const& keys, std::string const& data, std::string const& signature,
                      Recall const& recall) {
    Calculation out;
    out.data = data;
    out.signature = signature;
    Calculator(keys, recall, out).run();
    return out;
}

}  // namespace sandbox
