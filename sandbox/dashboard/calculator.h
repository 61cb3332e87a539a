#ifndef TALLOWIN_SANDBOX_DASHBOARD_CALCULATOR_H
#define TALLOWIN_SANDBOX_DASHBOARD_CALCULATOR_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/crypto/opensslholders.h"
#include "sandbox/service/site.h"
#include "sandbox/text/paymessage.h"

/// Takes a signed message apart, and finds out why its signature does not verify.
namespace sandbox {

/// A key that signatures are tried under.
struct KnownKey {
    std::string id;
    std::string account;            ///< Of the merchant; empty for a key of the service.
    bool current = false;           ///< Whether the service signs with it now.
    std::shared_ptr<EVP_PKEY> key;  ///< The public half is used.

    [[nodiscard]] bool ofService() const { return account.empty(); }
    [[nodiscard]] int bits() const { return EVP_PKEY_get_bits(key.get()); }
};

/// Whose key one is whose KnownKey::account is `account`, for people.
std::string keyOwner(std::string const& account);

/// All keys of the service, then those of the merchants.
std::vector<KnownKey> knownKeys(Site const& site);

/// What of a text was digested: its units of 16 bits, or its bytes as they are, which nobody should sign.
enum class Digested { ZeroExtended, SignExtended, Bytes };

/// What the RSA operation with a public key makes of a signature.
enum class Wrapping {
    Bare,          ///< Padding of type 1 around 20 bytes: what is signed here.
    DigestInfo,    ///< Padding of type 1 around a DigestInfo with a SHA-1 digest, 35 bytes.
    OtherContent,  ///< Padding of type 1 around anything else.
    Encryption,    ///< Padding of type 2, which is for encryption.
    Unpadded,      ///< Zero bytes before 20 others.
    Pss,           ///< PSS around a digest of DATA.
    Unknown,       ///< None of these: made with another key, or changed.
};

/// One way in which SIGNATURE turns out to be one of DATA.
struct Match {
    std::string keyId;
    std::string account;  ///< As in KnownKey.
    Digested digested = Digested::ZeroExtended;
    Wrapping wrapping = Wrapping::Bare;
    bool zerosLost = false;  ///< Zero bytes had to be put before SIGNATURE.
    std::string repair;      ///< What had to be done to DATA, "each + is taken for a blank"; empty: nothing.
};

enum class Finding {
    DataMissing,
    SignatureMissing,
    NoMessage,       ///< DATA cannot be read as a message.
    KeyIdMissing,    ///< The message names no key.
    KeyUnknown,      ///< KEYID names a key that was never here.
    KeyOld,          ///< KEYID names a key of the service that does not sign any more. Harmless.
    NotHexadecimal,  ///< SIGNATURE is not hexadecimal at all.
    UpperCase,       ///< SIGNATURE has upper-case digits.
    WrongLength,     ///< SIGNATURE is not as long as the key's modulus.
    WrongWrapping,   ///< SIGNATURE is padded or wrapped in another way than ours.
    Unreadable,      ///< SIGNATURE holds nothing under the key: made with another one, or changed.
    OtherDigest,     ///< SIGNATURE holds a digest, and another one than that of DATA.
    WrongWidening,   ///< It verifies over other units.
    WrongKey,        ///< It verifies under another key than KEYID names.
    Damaged,         ///< It verifies once something is done to DATA.
    OtherMessage,    ///< It is that of another message, which was seen here.
    NothingFits,     ///< It verifies in no way that was tried.
    Right,           ///< Nothing is wrong.
};

struct Remark {
    Finding finding = Finding::Right;
    std::string text;  ///< For people, one or two sentences.
};

/// A message that was signed here, or that came here.
struct SeenMessage {
    std::string text;
    std::string origin;  ///< For people: "the PayInit of the payment P1".
    std::string page;    ///< Of the dashboard, where more is told.
};

/// Looks for a message whose digest, zero-extended or sign-extended, is what a signature holds under `key`.
using Recall = std::function<std::optional<SeenMessage>(KnownKey const& key, std::string const& digest)>;

/// How many payments are looked at for it, and how many exchanges, the newest ones each.
inline constexpr std::int64_t kMostRecalled = 1000;

/// The Recall among the messages of `site`: of the newest payments, the confirmations that were signed for them, and
/// DATA of the newest exchanges.
std::optional<SeenMessage> recallSeen(Site const& site, KnownKey const& key, std::string const& digest);

/// An attribute that is not the same in two messages.
struct Difference {
    std::string name;
    std::optional<std::string> inSigned;  ///< Nothing where it is missing.
    std::optional<std::string> inData;
};

/// All of them: those of `inSigned` in its order, then what `inData` has besides.
std::vector<Difference> differences(Attributes const& inSigned, Attributes const& inData);

/// What differs in two messages that are not written the same though they have no differences(), for people.
std::string differenceInWriting(std::string const& inSigned, std::string const& inData);

/// The message that was signed in the place of DATA.
struct SignedOriginal {
    SeenMessage seen;
    std::vector<Difference> differences;
};

/// All that was found out. What could not be found out is empty.
struct Calculation {
    std::string data;
    std::string signature;
    std::optional<Message> message;
    std::string keyId;
    std::optional<KnownKey> key;  ///< That KEYID names.
    std::string zeroDigest;       ///< SHA-1 in hexadecimal of DATA zero-extended, as merchants sign.
    std::string signDigest;       ///< The same sign-extended, as the service signs.
    std::string heldDigest;       ///< That SIGNATURE holds under `key`, in hexadecimal; any length.
    std::vector<Match> matches;   ///< Of DATA as it is, else of the first repair that has some.
    std::optional<SignedOriginal> original;
    std::vector<Remark> remarks;  ///< In the order in which to read them, never empty.
    bool right = false;           ///< Whether it verifies for whoever follows the protocol.
};

/// Looks at the decoded DATA and at SIGNATURE as it was sent. Of the damages that DATA may have suffered on its way one
/// at a time is undone, see calculator_repairs.cpp. When nothing fits, `recall` is asked for what was signed.
Calculation calculate(std::vector<KnownKey> const& keys, std::string const& data, std::string const& signature,
                      Recall const& recall);

/// DATA, decoded, and SIGNATURE.
struct SignedTexts {
    std::string data;
    std::string signature;
};

/// Takes what people paste: DATA as a message, percent-encoded, or within a whole address or query that has SIGNATURE
/// too; SIGNATURE alone with blanks around it. Throws Refusal when DATA cannot be decoded, stands there twice, or
/// comes with two different SIGNATUREs.
SignedTexts readPasted(std::string const& data, std::string const& signature);

/// A damage that DATA may have suffered, undone.
struct Repair {
    std::string text;         ///< DATA as it may have been.
    std::string description;  ///< What was done, to be put behind "once": "each + is taken for a blank".
};

/// Every repair that changes `data`.
std::vector<Repair> repairs(std::string const& data);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_CALCULATOR_H
