// The check of a signature, and the search for the reason when it is not valid.
//
// `Examination::run` reads DATA as a message and SIGNATURE as hexadecimal, opens SIGNATURE with every known key, and
// compares the digest inside with those of DATA: zero-extended, sign-extended and not extended. If none is equal it
// tries PSS padding, then each repair of DATA, then searches stored messages for the digest, and at last, on request,
// tries single changes of DATA or SIGNATURE. Each step appends a remark; the signature is valid when the only remark is
// harmless.

#include "diagnosis/diagnosis.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "sandbox/crypto/signature.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace diagnosis {

namespace {

using sandbox::fromHex;
using sandbox::HttpError;
using sandbox::KeyContextHolder;
using sandbox::signedDigest;
using sandbox::toHex;
using sandbox::Widening;

constexpr std::size_t kDigestBytes = 20;

// The DER before the digest in a DigestInfo for SHA-1 (RFC 8017, section 9.2, note 1).
constexpr char kDigestInfoStart[] = "3021300906052b0e03021a05000414";

/// The content of SIGNATURE after the RSA operation with a public key.
struct Opened {
    Wrapping m_Wrapping = Wrapping::kUnknown;
    std::string m_Content;  ///< The digest without padding and DigestInfo; empty when there is none.
};

unsigned char const* bytesOf(std::string const& text) {
    return reinterpret_cast<unsigned char const*>(text.data());
}

unsigned char* bytesOf(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

std::string digestOf(std::string const& text, Digested digested) {
    if (digested != Digested::kBytes) {
        return sandbox::digestOf(text, digested == Digested::kSignExtended ? Widening::kSign : Widening::kZero);
    }
    std::string digest(kDigestBytes, '\0');
    if (EVP_Digest(text.data(), text.size(), bytesOf(digest), nullptr, EVP_sha1(), nullptr) != 1) {
        throw std::runtime_error("OpenSSL could not compute a digest");
    }
    return digest;
}

/// The extension that the owner of a key uses.
Digested signedBy(KnownKey const& key) {
    return key.ofService() ? Digested::kSignExtended : Digested::kZeroExtended;
}

std::size_t sizeOf(KnownKey const& key) {
    return static_cast<std::size_t>(EVP_PKEY_get_size(key.m_Key.get()));
}

/// The result of the RSA operation, padding included; empty on failure.
std::string rawBlock(KnownKey const& key, std::string const& signature) {
    KeyContextHolder const context(EVP_PKEY_CTX_new(key.m_Key.get(), nullptr));
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
    KeyContextHolder const context(EVP_PKEY_CTX_new(key.m_Key.get(), nullptr));
    bool const good =
        context && EVP_PKEY_verify_init(context.get()) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) == 1 &&
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha1()) == 1 &&
        EVP_PKEY_verify(context.get(), bytesOf(signature), signature.size(), bytesOf(digest), digest.size()) == 1;
    ERR_clear_error();
    return good;
}

/// Opens a `signature` that does not have PKCS #1 v1.5 padding of type 1.
Opened openForeign(KnownKey const& key, std::string const& signature) {
    std::string const block = rawBlock(key, signature);
    if (block.empty()) {
        return {};
    }
    if (block[0] == '\0' && block[1] == '\2') {
        return {Wrapping::kEncryption, ""};
    }
    std::size_t const before = block.size() - kDigestBytes;
    if (block.find_first_not_of('\0') >= before) {
        return {Wrapping::kUnpadded, block.substr(before)};
    }
    return {};
}

/// Opens `signature`, which must be as long as the modulus.
Opened openUnder(KnownKey const& key, std::string const& signature) {
    std::optional<std::string> const content = signedDigest(key.m_Key.get(), signature);
    if (!content) {
        return openForeign(key, signature);
    }
    if (content->size() == kDigestBytes) {
        return {Wrapping::kBare, *content};
    }
    std::string const start = fromHex(kDigestInfoStart).value();
    if (content->size() == start.size() + kDigestBytes && content->compare(0, start.size(), start) == 0) {
        return {Wrapping::kDigestInfo, content->substr(start.size())};
    }
    return {Wrapping::kOtherContent, *content};
}

constexpr std::array<Digested, 3> kAllDigested = {Digested::kZeroExtended, Digested::kSignExtended, Digested::kBytes};

/// All digests of one text.
class Digests {
public:
    explicit Digests(std::string const& text) {
        for (Digested const digested : kAllDigested) {
            m_Digests.emplace_back(digested, digestOf(text, digested));
        }
    }

    /// The extension that gives `digest`; nothing when none does. In ASCII text both extensions do; then `preferred`.
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

/// SIGNATURE opened with one key.
struct Attempt {
    KnownKey const& m_Key;
    std::string m_Signature;  ///< As long as the modulus.
    bool m_ZerosLost;
    Opened m_Opened;
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

/// The matches of the text of `repair`, with its descriptions.
std::vector<Match> matchesOf(std::vector<Attempt> const& attempts, Repair const& repair) {
    Digests const digests(repair.m_Text);
    std::vector<Match> matches;
    for (Attempt const& attempt : attempts) {
        std::optional<Digested> const digested = digests.find(attempt.m_Opened.m_Content, signedBy(attempt.m_Key));
        if (digested) {
            matches.push_back({attempt.m_Key.m_Id, attempt.m_Key.m_Account, *digested, attempt.m_Opened.m_Wrapping,
                               attempt.m_ZerosLost, repair.m_Description, repair.m_Damage});
        }
    }
    return matches;
}

/// With PSS the digest cannot be extracted, so PSS is tried for unchanged DATA only.
std::vector<Match> pssMatchesOf(std::vector<Attempt> const& attempts, std::string const& text) {
    std::vector<Match> matches;
    for (Attempt const& attempt : attempts) {
        for (Digested const digested : kAllDigested) {
            if (attempt.m_Opened.m_Wrapping == Wrapping::kUnknown &&
                verifiesAsPss(attempt.m_Key, digestOf(text, digested), attempt.m_Signature)) {
                matches.push_back({attempt.m_Key.m_Id, attempt.m_Key.m_Account, digested, Wrapping::kPss,
                                   attempt.m_ZerosLost, "", ""});
            }
        }
    }
    return matches;
}

std::vector<Match> findMatches(std::vector<Attempt> const& attempts, std::string const& data) {
    std::vector<Match> matches = matchesOf(attempts, {data, "", ""});
    if (matches.empty()) {
        matches = pssMatchesOf(attempts, data);
    }
    for (Repair const& repair : repairs(data)) {
        if (!matches.empty()) {
            break;
        }
        matches = matchesOf(attempts, repair);
    }
    return matches;
}

std::string quoted(std::string const& text) {
    return "'" + text + "'";
}

std::string nameOf(Wording const& wording, Digested digested) {
    switch (digested) {
        case Digested::kZeroExtended:
            return "each byte zero-extended, as merchants sign";
        case Digested::kSignExtended:
            return "each byte sign-extended, as " + wording.m_Service + " signs";
        case Digested::kBytes:
            break;
    }
    return "its bytes not extended, which no signature here uses";
}

std::string nameOf(Wording const& wording, std::string const& keyId, std::string const& account) {
    return "the key " + quoted(keyId) + " of " + keyOwner(wording, account);
}

bool isMessage(std::string const& text) {
    try {
        Message::parse(text);
        return true;
    } catch (HttpError const&) {
        return false;
    }
}

/// The remark about a wrong wrapping; empty for the right one and for an unknown one.
std::string faultOf(Wrapping wrapping, std::size_t contentBytes) {
    switch (wrapping) {
        case Wrapping::kDigestInfo:
            return "SIGNATURE contains a DigestInfo structure of 35 bytes. Here only the 20 bytes of the digest are "
                   "signed.";
        case Wrapping::kOtherContent:
            return "SIGNATURE contains " + std::to_string(contentBytes) +
                   " bytes instead of the 20 bytes of a SHA-1 digest.";
        case Wrapping::kEncryption:
            return "SIGNATURE has padding of type 2, for encryption. A signature has type 1.";
        case Wrapping::kUnpadded:
            return "SIGNATURE contains 20 bytes without padding. PKCS #1 v1.5 padding, type 1, is required.";
        case Wrapping::kPss:
            return "SIGNATURE has PSS padding. PKCS #1 v1.5 padding, type 1, is required.";
        case Wrapping::kBare:
        case Wrapping::kUnknown:
            break;
    }
    return "";
}

/// Fills in a Diagnosis.
class Examination {
public:
    Examination(Evidence const& evidence, Diagnosis& out)
        : m_Evidence(evidence), m_Wording(evidence.m_Wording), m_Out(out) {}

    void run() {
        if (m_Out.m_Data.empty()) {
            return remark(Finding::kDataMissing, "There is no DATA.");
        }
        m_Out.m_ZeroDigest = toHex(digestOf(m_Out.m_Data, Digested::kZeroExtended));
        m_Out.m_SignDigest = toHex(digestOf(m_Out.m_Data, Digested::kSignExtended));
        readMessage();
        if (std::optional<std::string> const signature = readSignature()) {
            return compare(*signature);
        }
        if (m_Evidence.m_SearchesChanges) {
            searchSignature();
        }
    }

private:
    void remark(Finding finding, std::string const& text) { m_Out.m_Remarks.push_back({finding, text}); }

    [[nodiscard]] bool has(Finding finding) const {
        for (Remark const& present : m_Out.m_Remarks) {
            if (present.m_Finding == finding) {
                return true;
            }
        }
        return false;
    }

    void readMessage() {
        try {
            m_Out.m_Message = Message::parse(m_Out.m_Data);
        } catch (HttpError const& error) {
            return remark(Finding::kNoMessage, std::string("DATA is not a message: ") + error.what() + ".");
        }
        m_Out.m_KeyId = m_Out.m_Message->find("KEYID").value_or("");
        if (m_Out.m_KeyId.empty()) {
            return remark(Finding::kKeyIdMissing, "The message has no KEYID, so its signing key is unknown.");
        }
        for (KnownKey const& key : m_Evidence.m_Keys) {
            if (key.m_Id == m_Out.m_KeyId && !m_Out.m_Key) {
                m_Out.m_Key = key;
            }
        }
        if (!m_Out.m_Key) {
            return remark(Finding::kKeyUnknown, "KEYID " + quoted(m_Out.m_KeyId) + " " + m_Wording.m_Unknown + ".");
        }
        if (m_Out.m_Key->ofService() && !m_Out.m_Key->m_Current) {
            remark(Finding::kKeyOld, "KEYID " + quoted(m_Out.m_KeyId) + " is an old key of " + m_Wording.m_Service +
                                         ", which now signs with another one.");
        }
    }

    /// The bytes of SIGNATURE; nothing when it is not hexadecimal.
    std::optional<std::string> readSignature() {
        std::string lower = m_Out.m_Signature;
        for (char& c : lower) {
            c = c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
        }
        std::optional<std::string> const bytes = fromHex(lower);
        if (lower.empty()) {
            remark(Finding::kSignatureMissing, "There is no SIGNATURE.");
            return std::nullopt;
        }
        if (!bytes) {
            std::size_t const foreign = lower.find_first_not_of("0123456789abcdef");
            remark(Finding::kNotHexadecimal, foreign == std::string::npos
                                                 ? "SIGNATURE has " + std::to_string(lower.size()) +
                                                       " hexadecimal digits; the number must be even."
                                                 : "SIGNATURE is not hexadecimal: its character number " +
                                                       std::to_string(foreign + 1) + " is not a hexadecimal digit.");
            return std::nullopt;
        }
        if (lower != m_Out.m_Signature) {
            remark(Finding::kUpperCase, "SIGNATURE has upper-case hexadecimal digits. Only lower case is accepted.");
        }
        return bytes;
    }

    void compare(std::string const& signature) {
        std::vector<Attempt> const attempts = openUnderAll(m_Evidence.m_Keys, signature);
        m_Out.m_Matches = findMatches(attempts, m_Out.m_Data);
        if (m_Out.m_Key) {
            compareUnderNamedKey(signature, attempts);
        }
        if (!m_Out.m_Matches.empty()) {
            return explain(bestMatch());
        }
        Attempt const* holding = nullptr;
        for (Attempt const& attempt : attempts) {
            bool const holds = attempt.m_Opened.m_Content.size() == kDigestBytes;
            if (holds && (holding == nullptr || isNamed(attempt.m_Key.m_Id, attempt.m_Key.m_Account))) {
                holding = &attempt;
            }
        }
        if (holding != nullptr) {
            return recallOriginal(*holding);
        }
        if (!m_Evidence.m_SearchesChanges || !searchSignature()) {
            nothingFits("");
        }
    }

    /// Tries changes of SIGNATURE with the key in KEYID, otherwise with every key. Returns whether one was found.
    bool searchSignature() {
        for (KnownKey const& key : m_Evidence.m_Keys) {
            if (m_Out.m_Key && !isNamed(key.m_Id, key.m_Account)) {
                continue;
            }
            if (std::optional<std::string> found = findSignature(key.m_Key.get(), m_Out.m_Data, m_Out.m_Signature)) {
                m_Out.m_SignatureFound = std::move(*found);
                m_Out.m_Signer = key;
                m_Out.m_SignedText = m_Out.m_Data;
                remark(Finding::kSignatureChanged, "SIGNATURE verifies with " +
                                                       nameOf(m_Wording, key.m_Id, key.m_Account) +
                                                       " after a change of one digit: " + m_Out.m_SignatureFound + ".");
                return true;
            }
        }
        return false;
    }

    /// Searches the text with the digest in `attempt` among single changes of DATA.
    void searchText(Attempt const& attempt) {
        Attributes candidates = m_Evidence.m_Expected;
        for (KnownKey const& key : m_Evidence.m_Keys) {
            candidates.emplace_back("KEYID", key.m_Id);
        }
        SearchedText found = findSignedText(m_Out.m_Data, attempt.m_Opened.m_Content, signedBy(attempt.m_Key),
                                            candidates, m_Evidence.m_MaxSearchedBytes);
        if (!found.m_Text) {
            m_SearchedAll = found.m_Complete;
            return nothingFits(m_Wording.m_Searched.empty() ? "" : " " + m_Wording.m_Searched);
        }
        remark(Finding::kDataChanged, "SIGNATURE verifies with " +
                                          nameOf(m_Wording, attempt.m_Key.m_Id, attempt.m_Key.m_Account) +
                                          " after a change of DATA.");
        useOriginal(attempt, {std::move(*found.m_Text), "DATA after that change", ""}, Finding::kDataChanged);
    }

    void nothingFits(std::string const& more) {
        remark(Finding::kNothingFits,
               "SIGNATURE does not verify DATA with any of the " + std::to_string(m_Evidence.m_Keys.size()) +
                   " known keys, with either extension, not even after undoing common damage to DATA." + more);
        if (m_Evidence.m_SearchesChanges) {
            remark(Finding::kNothingFits, m_SearchedAll
                                              ? "No single change of DATA or SIGNATURE that was tried makes it verify."
                                              : "DATA is too long to try all single changes.");
        }
    }

    /// Searches stored messages for the digest in `attempt`, which is not that of DATA.
    void recallOriginal(Attempt const& attempt) {
        KnownKey const& key = attempt.m_Key;
        m_Out.m_Signer = key;
        std::optional<SeenMessage> seen =
            m_Evidence.m_Recall ? m_Evidence.m_Recall(key, attempt.m_Opened.m_Content) : std::nullopt;
        if (!seen && m_Evidence.m_SearchesChanges) {
            return searchText(attempt);
        }
        if (!seen) {
            return nothingFits(m_Wording.m_Searched.empty() ? "" : " " + m_Wording.m_Searched);
        }
        remark(Finding::kOtherMessage, "SIGNATURE belongs to another message: " + seen->m_Origin +
                                           ". It was made with " + nameOf(m_Wording, key.m_Id, key.m_Account) + ".");
        useOriginal(attempt, std::move(*seen), Finding::kOtherMessage);
    }

    void useOriginal(Attempt const& attempt, SeenMessage seen, Finding finding) {
        KnownKey const& key = attempt.m_Key;
        m_Out.m_SignedText = seen.m_Text;
        Digested const digested = Digests(seen.m_Text).find(attempt.m_Opened.m_Content, signedBy(key)).value();
        m_Out.m_Original = SignedOriginal{std::move(seen), {}};
        compareWith(*m_Out.m_Original, finding);
        explainFaults({key.m_Id, key.m_Account, digested, attempt.m_Opened.m_Wrapping, attempt.m_ZerosLost, "", ""},
                      "that message");
    }

    void compareWith(SignedOriginal& original, Finding finding) {
        std::string const& text = original.m_Seen.m_Text;
        if (!m_Out.m_Message || !isMessage(text)) {
            return remark(finding,
                          "The attributes cannot be compared, because one of the two messages cannot be read.");
        }
        original.m_Differences = differences(Message::parse(text).attributes(), m_Out.m_Message->attributes());
        if (original.m_Differences.empty()) {
            return remark(finding, "No attribute was changed, added or removed: " +
                                       differenceInWriting(text, m_Out.m_Data) + ".");
        }
        std::string names;
        for (Difference const& difference : original.m_Differences) {
            names += (names.empty() ? "" : ", ") + difference.m_Name;
        }
        remark(finding, "DATA differs from that message in: " + names + ".");
    }

    void compareUnderNamedKey(std::string const& signature, std::vector<Attempt> const& attempts) {
        KnownKey const& key = *m_Out.m_Key;
        std::size_t const size = sizeOf(key);
        if (signature.size() != size) {
            remark(Finding::kWrongLength, "SIGNATURE has " + std::to_string(signature.size()) +
                                              " bytes, but signatures of the key " + quoted(key.m_Id) + " of " +
                                              std::to_string(key.bits()) + " bits have " + std::to_string(size) + ".");
        }
        for (Attempt const& attempt : attempts) {
            if (attempt.m_Key.m_Key == key.m_Key) {
                describe(attempt);
            }
        }
    }

    void describe(Attempt const& attempt) {
        Opened const& opened = attempt.m_Opened;
        m_Out.m_HeldDigest = toHex(opened.m_Content);
        std::string const fault = faultOf(opened.m_Wrapping, opened.m_Content.size());
        if (!fault.empty()) {
            remark(Finding::kWrongWrapping, fault);
        } else if (opened.m_Wrapping == Wrapping::kUnknown && !isMatch(attempt.m_Key)) {
            remark(Finding::kUnreadable,
                   "The key " + quoted(attempt.m_Key.m_Id) +
                       " cannot read SIGNATURE: it was made with another key, or it was changed.");
        }
        bool const holdsDigest = opened.m_Content.size() == kDigestBytes;
        if (holdsDigest && opened.m_Content != digestOf(m_Out.m_Data, signedBy(attempt.m_Key))) {
            remark(Finding::kOtherDigest, "The digest in SIGNATURE is not the digest of DATA, " +
                                              nameOf(m_Wording, signedBy(attempt.m_Key)) + ".");
        }
    }

    [[nodiscard]] bool isMatch(KnownKey const& key) const {
        for (Match const& match : m_Out.m_Matches) {
            if (match.m_KeyId == key.m_Id && match.m_Account == key.m_Account) {
                return true;
            }
        }
        return false;
    }

    /// The match with the key in KEYID, otherwise the first.
    [[nodiscard]] Match const& bestMatch() const {
        for (Match const& match : m_Out.m_Matches) {
            if (isNamed(match.m_KeyId, match.m_Account)) {
                return match;
            }
        }
        return m_Out.m_Matches.front();
    }

    [[nodiscard]] bool isNamed(std::string const& keyId, std::string const& account) const {
        return m_Out.m_Key && keyId == m_Out.m_Key->m_Id && account == m_Out.m_Key->m_Account;
    }

    void explain(Match const& match) {
        findSigned(match);
        std::string const under = "with " + nameOf(m_Wording, match.m_KeyId, match.m_Account);
        if (!match.m_Repair.empty()) {
            remark(Finding::kDamaged, "SIGNATURE verifies " + under + " after this change: " + match.m_Repair + ".");
        }
        explainFaults(match, "DATA");
        bool const harmless = m_Out.m_Remarks.empty() || (m_Out.m_Remarks.size() == 1 && has(Finding::kKeyOld));
        if (harmless) {
            m_Out.m_Right = true;
            remark(Finding::kRight,
                   "SIGNATURE verifies DATA " + under + ", " + nameOf(m_Wording, match.m_Digested) + ".");
        }
    }

    void findSigned(Match const& match) {
        for (KnownKey const& key : m_Evidence.m_Keys) {
            if (key.m_Id == match.m_KeyId && key.m_Account == match.m_Account) {
                m_Out.m_Signer = key;
            }
        }
        m_Out.m_SignedText = m_Out.m_Data;
        for (Repair const& repair : repairs(m_Out.m_Data)) {
            if (repair.m_Description == match.m_Repair) {
                m_Out.m_SignedText = repair.m_Text;
            }
        }
    }

    /// Adds remarks about everything that is wrong with a signature of `what`.
    void explainFaults(Match const& match, std::string const& what) {
        if (!isNamed(match.m_KeyId, match.m_Account) && !m_Out.m_KeyId.empty()) {
            remark(Finding::kWrongKey, "SIGNATURE verifies with " + nameOf(m_Wording, match.m_KeyId, match.m_Account) +
                                           ", not with the key in KEYID.");
        }
        if (match.m_ZerosLost) {
            remark(Finding::kWrongLength, "SIGNATURE lacks leading zero bytes, and verifies when they are restored.");
        }
        if (match.m_Wrapping != Wrapping::kBare && !has(Finding::kWrongWrapping)) {
            remark(Finding::kWrongWrapping, faultOf(match.m_Wrapping, kDigestBytes));
        }
        Digested const expected = match.m_Account.empty() ? Digested::kSignExtended : Digested::kZeroExtended;
        if (match.m_Digested != expected) {
            remark(Finding::kWrongWidening, "The signature is over " + what + ", " +
                                                nameOf(m_Wording, match.m_Digested) + ". A signature of " +
                                                keyOwner(m_Wording, match.m_Account) + " must be over " + what + ", " +
                                                nameOf(m_Wording, expected) + ".");
        }
    }

    Evidence const& m_Evidence;
    Wording const& m_Wording;
    Diagnosis& m_Out;
    bool m_SearchedAll = true;  ///< Whether a search for changes tried all of them.
};

}  // namespace

std::string keyOwner(Wording const& wording, std::string const& account) {
    return account.empty() ? wording.m_Service : "the merchant " + account;
}

Diagnosis diagnose(Evidence const& evidence, std::string const& data, std::string const& signature) {
    Diagnosis out;
    out.m_Data = data;
    out.m_Signature = signature;
    Examination(evidence, out).run();
    return out;
}

}  // namespace diagnosis
