#ifndef TALLOWIN_SANDBOX_DASHBOARD_CALCULATOR_H
#define TALLOWIN_SANDBOX_DASHBOARD_CALCULATOR_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/crypto/opensslholders.h"
#include "sandbox/service/services.h"
#include "sandbox/text/paymessage.h"

/// Takes a signed message apart, and finds out why its signature does not verify.
namespace sandbox {

/// A key that signatures are tried under.
struct KnownKey {
    std::string m_Id;
    std::string m_Account;            ///< Of the merchant; empty for a key of the service.
    bool m_Current = false;           ///< Whether the service signs with it now.
    std::shared_ptr<EVP_PKEY> m_Key;  ///< The public half is used.

    [[nodiscard]] bool ofService() const { return m_Account.empty(); }
    [[nodiscard]] int bits() const { return EVP_PKEY_get_bits(m_Key.get()); }
};

/// Whose key one is whose KnownKey::account is `account`, for people.
std::string keyOwner(std::string const& account);

/// All keys of the service, then those of the merchants.
std::vector<KnownKey> knownKeys(Services const& services);

/// What of a text was digested: its units of 16 bits, or its bytes as they are, which nobody should sign.
enum class Digested { kZeroExtended, kSignExtended, kBytes };

/// What the RSA operation with a public key makes of a signature.
enum class Wrapping {
    kBare,          ///< Padding of type 1 around 20 bytes: what is signed here.
    kDigestInfo,    ///< Padding of type 1 around a DigestInfo with a SHA-1 digest, 35 bytes.
    kOtherContent,  ///< Padding of type 1 around anything else.
    kEncryption,    ///< Padding of type 2, which is for encryption.
    kUnpadded,      ///< Zero bytes before 20 others.
    kPss,           ///< PSS around a digest of DATA.
    kUnknown,       ///< None of these: made with another key, or changed.
};

/// One way in which SIGNATURE turns out to be one of DATA.
struct Match {
    std::string m_KeyId;
    std::string m_Account;  ///< As in KnownKey.
    Digested m_Digested = Digested::kZeroExtended;
    Wrapping m_Wrapping = Wrapping::kBare;
    bool m_ZerosLost = false;  ///< Zero bytes had to be put before SIGNATURE.
    std::string m_Repair;      ///< What had to be done to DATA, "each + is taken for a blank"; empty: nothing.
};

enum class Finding {
    kDataMissing,
    kSignatureMissing,
    kNoMessage,       ///< DATA cannot be read as a message.
    kKeyIdMissing,    ///< The message names no key.
    kKeyUnknown,      ///< KEYID names a key that was never here.
    kKeyOld,          ///< KEYID names a key of the service that does not sign any more. Harmless.
    kNotHexadecimal,  ///< SIGNATURE is not hexadecimal at all.
    kUpperCase,       ///< SIGNATURE has upper-case digits.
    kWrongLength,     ///< SIGNATURE is not as long as the key's modulus.
    kWrongWrapping,   ///< SIGNATURE is padded or wrapped in another way than ours.
    kUnreadable,      ///< SIGNATURE holds nothing under the key: made with another one, or changed.
    kOtherDigest,     ///< SIGNATURE holds a digest, and another one than that of DATA.
    kWrongWidening,   ///< It verifies over other units.
    kWrongKey,        ///< It verifies under another key than KEYID names.
    kDamaged,         ///< It verifies once something is done to DATA.
    kOtherMessage,    ///< It is that of another message, which was seen here.
    kNothingFits,     ///< It verifies in no way that was tried.
    kRight,           ///< Nothing is wrong.
};

struct Remark {
    Finding m_Finding = Finding::kRight;
    std::string m_Text;  ///< For people, one or two sentences.
};

/// A message that was signed here, or that came here.
struct SeenMessage {
    std::string m_Text;
    std::string m_Origin;  ///< For people: "the PayInit of the payment P1".
    std::string m_Page;    ///< Of the dashboard, where more is told.
};

/// Looks for a message whose digest, zero-extended or sign-extended, is what a signature holds under `key`.
using Recall = std::function<std::optional<SeenMessage>(KnownKey const& key, std::string const& digest)>;

/// How many payments are looked at for it, and how many exchanges, the newest ones each.
inline constexpr std::int64_t kMaxRecalled = 1000;

/// The Recall among the messages of `services`: of the newest payments, the confirmations that were signed for them,
/// and DATA of the newest exchanges.
std::optional<SeenMessage> recallSeen(Services const& services, KnownKey const& key, std::string const& digest);

/// An attribute that is not the same in two messages.
struct Difference {
    std::string m_Name;
    std::optional<std::string> m_InSigned;  ///< Nothing where it is missing.
    std::optional<std::string> m_InData;
};

/// All of them: those of `inSigned` in its order, then what `inData` has besides.
std::vector<Difference> differences(Attributes const& inSigned, Attributes const& inData);

/// What differs in two messages that are not written the same though they have no differences(), for people.
std::string differenceInWriting(std::string const& inSigned, std::string const& inData);

/// The message that was signed in the place of DATA.
struct SignedOriginal {
    SeenMessage m_Seen;
    std::vector<Difference> m_Differences;
};

/// All that was found out. What could not be found out is empty.
struct Calculation {
    std::string m_Data;
    std::string m_Signature;
    std::optional<Message> m_Message;
    std::string m_KeyId;
    std::optional<KnownKey> m_Key;  ///< That KEYID names.
    std::string m_ZeroDigest;       ///< SHA-1 in hexadecimal of DATA zero-extended, as merchants sign.
    std::string m_SignDigest;       ///< The same sign-extended, as the service signs.
    std::string m_HeldDigest;       ///< That SIGNATURE holds under `key`, in hexadecimal; any length.
    std::vector<Match> m_Matches;   ///< Of DATA as it is, else of the first repair that has some.
    std::optional<SignedOriginal> m_Original;
    std::vector<Remark> m_Remarks;  ///< In the order in which to read them, never empty.
    bool m_Right = false;           ///< Whether it verifies for whoever follows the protocol.
};

/// Looks at the decoded DATA and at SIGNATURE as it was sent. Of the damages that DATA may have suffered on its way one
/// at a time is undone, see calculator_repairs.cpp. When nothing fits, `recall` is asked for what was signed.
Calculation calculate(std::vector<KnownKey> const& keys, std::string const& data, std::string const& signature,
                      Recall const& recall);

/// DATA, decoded, and SIGNATURE.
struct SignedTexts {
    std::string m_Data;
    std::string m_Signature;
};

/// Takes what people paste: DATA as a message, percent-encoded, or within a whole address or query that has SIGNATURE
/// too; SIGNATURE alone with blanks around it. Throws HttpError when DATA cannot be decoded, stands there twice, or
/// comes with two different SIGNATUREs.
SignedTexts readPasted(std::string const& data, std::string const& signature);

/// A damage that DATA may have suffered, undone.
struct Repair {
    std::string m_Text;         ///< DATA as it may have been.
    std::string m_Description;  ///< What was done, to be put behind "once": "each + is taken for a blank".
};

/// Every repair that changes `data`.
std::vector<Repair> repairs(std::string const& data);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_CALCULATOR_H
