#ifndef TALLOWIN_DIAGNOSIS_DIAGNOSIS_H
#define TALLOWIN_DIAGNOSIS_DIAGNOSIS_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "diagnosis/singlechange.h"
#include "sandbox/crypto/opensslholders.h"
#include "sandbox/text/paymessage.h"

/// Checks the signature of a message and finds the reason when it is not valid.
namespace diagnosis {

using sandbox::Attributes;
using sandbox::Message;

/// A key that signatures are checked with.
struct KnownKey {
    std::string m_Id;
    std::string m_Account;            ///< The merchant's account; empty for a key of the service.
    bool m_Current = false;           ///< Whether it is the service's signing key.
    std::shared_ptr<EVP_PKEY> m_Key;  ///< Only the public key is used.

    [[nodiscard]] bool ofService() const { return m_Account.empty(); }
    [[nodiscard]] int bits() const { return EVP_PKEY_get_bits(m_Key.get()); }
};

/// Words of the remarks that depend on where the check runs.
struct Wording {
    std::string m_Service;   ///< "this service".
    std::string m_Unknown;   ///< After a key id that is not known: "is neither a key of ... nor ...".
    std::string m_Searched;  ///< A sentence that names the messages that were searched in vain; may be empty.
};

/// The owner of a key with this KnownKey::m_Account, as text for pages.
std::string keyOwner(Wording const& wording, std::string const& account);

/// The format of a signature, found by the RSA operation with a public key.
enum class Wrapping {
    kBare,          ///< Padding of type 1 around 20 bytes: the correct format.
    kDigestInfo,    ///< Padding of type 1 around a DigestInfo with a SHA-1 digest, 35 bytes.
    kOtherContent,  ///< Padding of type 1 around anything else.
    kEncryption,    ///< Padding of type 2, which is for encryption.
    kUnpadded,      ///< Zero bytes, then 20 other bytes.
    kPss,           ///< PSS around a digest of DATA.
    kUnknown,       ///< None of these: signed with another key, or changed.
};

/// One combination of key, format and repair with which SIGNATURE verifies DATA.
struct Match {
    std::string m_KeyId;
    std::string m_Account;  ///< As in KnownKey.
    Digested m_Digested = Digested::kZeroExtended;
    Wrapping m_Wrapping = Wrapping::kBare;
    bool m_ZerosLost = false;  ///< SIGNATURE lacked leading zero bytes.
    std::string m_Repair;      ///< The change of DATA, "each + changed to a space"; empty for none.
    std::string m_Damage;      ///< What the change undoes: "each space became +".
};

enum class Finding {
    kDataMissing,
    kSignatureMissing,
    kNoMessage,         ///< DATA cannot be parsed as a message.
    kKeyIdMissing,      ///< The message has no KEYID.
    kKeyUnknown,        ///< KEYID is not a known key.
    kKeyOld,            ///< KEYID is an old key of the service. Harmless.
    kNotHexadecimal,    ///< SIGNATURE is not hexadecimal.
    kUpperCase,         ///< SIGNATURE has upper-case digits.
    kWrongLength,       ///< SIGNATURE is not as long as the key's modulus.
    kWrongWrapping,     ///< SIGNATURE has another padding or wrapping.
    kUnreadable,        ///< The key cannot open SIGNATURE: signed with another key, or changed.
    kOtherDigest,       ///< SIGNATURE contains a digest, but not that of DATA.
    kWrongWidening,     ///< It verifies with the other extension, or with none.
    kWrongKey,          ///< It verifies with another key than the one in KEYID.
    kDamaged,           ///< It verifies after a repair of DATA.
    kOtherMessage,      ///< It belongs to another message.
    kDataChanged,       ///< It verifies after one change of DATA.
    kSignatureChanged,  ///< It verifies after one change of SIGNATURE.
    kNothingFits,       ///< It verifies in none of the ways tried.
    kRight,             ///< The signature is valid.
};

struct Remark {
    Finding m_Finding = Finding::kRight;
    std::string m_Text;  ///< One or two sentences, for the page.
};

/// A stored message: signed by the service, or received.
struct SeenMessage {
    std::string m_Text;
    std::string m_Origin;  ///< For the page: "the PayInit of payment P1".
    std::string m_Page;    ///< The dashboard page about it; may be empty.
};

/// Searches a message with this digest, zero-extended or sign-extended, for a signature made with `key`.
using Recall = std::function<std::optional<SeenMessage>(KnownKey const& key, std::string const& digest)>;

/// What a check compares with.
struct Evidence {
    std::vector<KnownKey> m_Keys;
    Recall m_Recall;
    Wording m_Wording;
    bool m_SearchesChanges = false;  ///< Whether single changes are tried when nothing else verifies; takes seconds.
    long long m_MaxSearchedBytes = kMaxSearchedBytes;  ///< Of that search.
    Attributes m_Expected = {};                        ///< Values to try first in the place of those in DATA.
};

/// An attribute that differs between two messages.
struct Difference {
    std::string m_Name;
    std::optional<std::string> m_InSigned;  ///< Nothing when it is missing.
    std::optional<std::string> m_InData;
};

/// All differences: attributes of `inSigned` in its order, then those only in `inData`.
std::vector<Difference> differences(Attributes const& inSigned, Attributes const& inData);

/// The kind of difference between two texts with equal attributes, for the page.
std::string differenceInWriting(std::string const& inSigned, std::string const& inData);

/// The message that was signed instead of DATA.
struct SignedOriginal {
    SeenMessage m_Seen;
    std::vector<Difference> m_Differences;
};

/// The result of the check. Members that could not be determined are empty.
struct Diagnosis {
    std::string m_Data;
    std::string m_Signature;
    std::optional<Message> m_Message;
    std::string m_KeyId;
    std::optional<KnownKey> m_Key;  ///< The key in KEYID.
    std::string m_ZeroDigest;       ///< SHA-1 of DATA zero-extended, as merchants sign; hexadecimal.
    std::string m_SignDigest;       ///< SHA-1 of DATA sign-extended, as the service signs.
    std::string m_HeldDigest;       ///< The digest in SIGNATURE, opened with m_Key; any length.
    std::vector<Match> m_Matches;   ///< Matches of unchanged DATA, otherwise of the first repair with any.
    std::optional<SignedOriginal> m_Original;
    std::optional<KnownKey> m_Signer;         ///< The key that made SIGNATURE.
    std::optional<std::string> m_SignedText;  ///< The text that was signed: DATA, what it was before a change, another.
    std::string m_SignatureFound;             ///< The valid signature that differs from m_Signature in one digit.
    std::vector<Remark> m_Remarks;            ///< In reading order, never empty.
    bool m_Right = false;                     ///< Whether the signature is valid.
};

/// Checks the decoded DATA against SIGNATURE as it was sent. Then tries one repair of DATA at a time, see
/// diagnosis_repairs.cpp. When none verifies, the Recall of `evidence` looks for the signed message; then, on request,
/// single changes of DATA or SIGNATURE are tried.
Diagnosis diagnose(Evidence const& evidence, std::string const& data, std::string const& signature);

/// DATA, decoded, and SIGNATURE.
struct SignedTexts {
    std::string m_Data;
    std::string m_Signature;
};

/// Parses the texts of the form: DATA as a message, percent-encoded, or inside a URL or query that may also contain
/// SIGNATURE; SIGNATURE with white space anywhere in it. Throws HttpError when DATA cannot be decoded or occurs twice,
/// or when there are two different SIGNATUREs.
SignedTexts readPasted(std::string const& data, std::string const& signature);

/// An undo of common damage to DATA.
struct Repair {
    std::string m_Text;         ///< DATA as it may have been before the damage.
    std::string m_Description;  ///< The change, "each + changed to a space".
    std::string m_Damage;       ///< What it undoes, "each space became +".
};

/// All repairs that change `data`.
std::vector<Repair> repairs(std::string const& data);

}  // namespace diagnosis

#endif  // TALLOWIN_DIAGNOSIS_DIAGNOSIS_H
