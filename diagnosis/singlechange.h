#ifndef TALLOWIN_DIAGNOSIS_SINGLECHANGE_H
#define TALLOWIN_DIAGNOSIS_SINGLECHANGE_H

#include <openssl/evp.h>

#include <optional>
#include <string>

#include "sandbox/text/paymessage.h"

/// Searches for the text or the signature that was sent, starting from what arrived, by trying single changes.
namespace diagnosis {

/// The input of a digest: bytes extended to 16 bits in one of two ways, or the bytes themselves, which is always wrong.
enum class Digested { kZeroExtended, kSignExtended, kBytes };

/// One of them in words, as reports write it.
char const* nameOf(Digested digested);

/// How many bytes of input are digested before a search gives up, unless the caller says otherwise; some seconds.
inline constexpr long long kMaxSearchedBytes = 3'000'000'000;

/// The result of findSignedText.
struct SearchedText {
    std::optional<std::string> m_Text;  ///< The text with the digest; nothing when none was found.
    bool m_Complete = true;             ///< Whether all changes were tried; they were not when the text is too long.
};

/// Searches for the text with `digest` among those that differ from `data` in one place: the value of an attribute
/// replaced by one of `candidates` (names and values; a name may occur several times), or all at once; an attribute
/// removed or moved; another notation of the element's end; one character changed, missing, added or exchanged with the
/// next; another number or another word of three capitals as a value. Ends after `maxBytes` of input.
SearchedText findSignedText(std::string const& data, std::string const& digest, Digested digested,
                            sandbox::Attributes const& candidates, long long maxBytes = kMaxSearchedBytes);

/// Searches for a signature of `data` by `key` that differs from `signature`, in hexadecimal, in one digit: changed,
/// missing, added, or exchanged with the next. Both extensions of `data` count.
std::optional<std::string> findSignature(EVP_PKEY* key, std::string const& data, std::string const& signature);

}  // namespace diagnosis

#endif  // TALLOWIN_DIAGNOSIS_SINGLECHANGE_H
