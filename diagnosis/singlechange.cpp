// The search for what was signed, by trying changes of what arrived.
//
// A signature that can be opened holds the digest of the text that was signed. So a text may be guessed: if its digest
// is the same, it is that text. The changes are tried from the likely to the unlikely. Each replaces one range of DATA.
// The digest of the part before the range is kept and continued for each change at that place, so that only the rest is
// digested again. The search ends after a number of bytes.

#include "diagnosis/singlechange.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "sandbox/crypto/releaser.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/text/paymessage.h"
#include "sandbox/text/wiretext.h"

namespace diagnosis {

namespace {

using DigestHolder = std::unique_ptr<EVP_MD_CTX, sandbox::Releaser<EVP_MD_CTX_free>>;

constexpr char kHexDigits[] = "0123456789abcdef";

// Numbers below this are tried in the place of a number, in units of its last decimal.
constexpr long kMaxNumber = 1'000'000;

// A number with more digits is an identifier.
constexpr std::size_t kMaxNumberDigits = 7;

void requireDigest(bool done) {
    if (!done) {
        throw std::runtime_error("OpenSSL could not compute a digest");
    }
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool isPrintable(int byte) {
    return byte >= ' ' && byte <= '~';
}

/// The place of one attribute in a text.
struct Place {
    std::size_t m_From;       ///< Of the blank before the name.
    std::size_t m_ValueFrom;  ///< Behind the quotation mark.
    std::size_t m_ValueTo;    ///< The closing quotation mark.
    std::string m_Name;

    [[nodiscard]] std::size_t to() const { return m_ValueTo + 1; }
};

/// The attributes ` NAME="value"` of a text, whether or not it is well-formed.
std::vector<Place> placesIn(std::string const& text) {
    std::vector<Place> places;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t const equals = text.find('=', at);
        if (equals == std::string::npos || equals + 1 >= text.size()) {
            break;
        }
        char const quote = text[equals + 1];
        std::size_t const end = quote == '"' || quote == '\'' ? text.find(quote, equals + 2) : std::string::npos;
        std::size_t from = equals;
        while (from > at && !isBlank(text[from - 1])) {
            --from;
        }
        if (end == std::string::npos || from == at) {
            at = equals + 1;
            continue;
        }
        places.push_back({from - 1, equals + 2, end, text.substr(from, equals - from)});
        at = end + 1;
    }
    return places;
}

/// Tries changes of one text. Each of the functions that try returns true when the text was found.
class TextSearch {
public:
    TextSearch(std::string const& data, std::string const& digest, Digested digested, long long maxBytes)
        : m_Data(data),
          m_Digest(digest),
          m_Digested(digested),
          m_MaxBytes(maxBytes),
          m_Units(unitsOf(data)),
          m_UnitSize(digested == Digested::kBytes ? 1 : 2),
          m_Before(EVP_MD_CTX_new()),
          m_Whole(EVP_MD_CTX_new()),
          m_Places(placesIn(data)) {
        requireDigest(m_Before && m_Whole);
        restart();
    }

    SearchedText run(sandbox::Attributes const& candidates) {
        bool const found = tryCandidates(candidates) || tryPlaces() || tryEnds() || tryShifts() || tryBytes(true) ||
                           tryNumbers() || tryWords() || tryBytes(false);
        return {found ? std::optional<std::string>(m_Found) : std::nullopt, m_Searched < m_MaxBytes};
    }

private:
    [[nodiscard]] std::string unitsOf(std::string const& text) const {
        switch (m_Digested) {
            case Digested::kZeroExtended:
                return sandbox::widen(text, sandbox::Widening::kZero);
            case Digested::kSignExtended:
                return sandbox::widen(text, sandbox::Widening::kSign);
            case Digested::kBytes:
                break;
        }
        return text;
    }

    void restart() {
        requireDigest(EVP_DigestInit_ex(m_Before.get(), EVP_sha1(), nullptr) == 1);
        m_At = 0;
    }

    /// Makes m_Before the digest of all units before `from`.
    void moveTo(std::size_t from) {
        if (from < m_At) {
            restart();
        }
        m_Searched += static_cast<long long>((from - m_At) * m_UnitSize);
        requireDigest(
            EVP_DigestUpdate(m_Before.get(), m_Units.data() + m_At * m_UnitSize, (from - m_At) * m_UnitSize) == 1);
        m_At = from;
    }

    /// Tries the text with `replacement` in the place of the bytes from `from` to before `to`.
    bool tryChange(std::size_t from, std::size_t to, std::string const& replacement) {
        std::string_view const rest = std::string_view(m_Units).substr(to * m_UnitSize);
        std::string const units = unitsOf(replacement);
        m_Searched += static_cast<long long>(rest.size() + units.size());
        if (m_Searched >= m_MaxBytes) {
            return false;
        }
        moveTo(from);
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        unsigned length = 0;
        requireDigest(EVP_MD_CTX_copy_ex(m_Whole.get(), m_Before.get()) == 1 &&
                      EVP_DigestUpdate(m_Whole.get(), units.data(), units.size()) == 1 &&
                      EVP_DigestUpdate(m_Whole.get(), rest.data(), rest.size()) == 1 &&
                      EVP_DigestFinal_ex(m_Whole.get(), digest.data(), &length) == 1);
        if (length != m_Digest.size() ||
            !std::equal(m_Digest.begin(), m_Digest.end(), reinterpret_cast<char const*>(digest.data()))) {
            return false;
        }
        m_Found = m_Data.substr(0, from) + replacement + m_Data.substr(to);
        return true;
    }

    bool tryValue(Place const& place, std::string const& value) {
        return tryChange(place.m_ValueFrom, place.m_ValueTo, value);
    }

    bool tryCandidates(sandbox::Attributes const& candidates) {
        for (auto const& [name, value] : candidates) {
            if (tryCandidate(name, sandbox::escapedValue(value))) {
                return true;
            }
        }
        std::string all = m_Data;
        for (auto const& [name, value] : candidates) {
            for (Place const& place : placesIn(all)) {
                if (place.m_Name == name) {
                    all.replace(place.m_ValueFrom, place.m_ValueTo - place.m_ValueFrom, sandbox::escapedValue(value));
                    break;
                }
            }
        }
        return tryChange(0, m_Data.size(), all);
    }

    /// In the attribute `name`, or as an attribute more at any place when there is none.
    bool tryCandidate(std::string const& name, std::string const& value) {
        bool present = false;
        for (Place const& place : m_Places) {
            if (place.m_Name == name) {
                present = true;
                if (tryValue(place, value)) {
                    return true;
                }
            }
        }
        std::string const attribute = " " + name + "=\"" + value + "\"";
        for (std::size_t i = 0; !present && i < m_Places.size(); ++i) {
            std::size_t const from = m_Places[i].m_From;
            std::size_t const to = m_Places[i].to();
            if ((i == 0 && tryChange(from, from, attribute)) || tryChange(to, to, attribute)) {
                return true;
            }
        }
        return false;
    }

    /// Attributes removed, and moved to each other place.
    bool tryPlaces() {
        for (Place const& place : m_Places) {
            std::string const attribute = m_Data.substr(place.m_From, place.to() - place.m_From);
            if (tryChange(place.m_From, place.to(), "")) {
                return true;
            }
            for (Place const& other : m_Places) {
                if (m_Searched >= m_MaxBytes) {
                    return false;  // What is moved is copied, which takes its time even without a digest.
                }
                bool const before = other.m_From < place.m_From;
                std::size_t const from = before ? other.m_From : place.m_From;
                std::size_t const to = before ? place.to() : other.to();
                std::string const between =
                    before ? m_Data.substr(from, place.m_From - from) : m_Data.substr(place.to(), to - place.to());
                if (tryChange(from, to, before ? attribute + between : between + attribute)) {
                    return true;
                }
            }
        }
        return false;
    }

    /// Other notations of the end: "/>", " />", "></KVX>".
    bool tryEnds() {
        std::size_t const from = m_Places.empty() ? 0 : m_Places.back().to();
        for (char const* end : {"/>", " />", "></KVX>", " ></KVX>", "/>\n", "/>\r\n"}) {
            if (tryChange(from, m_Data.size(), end)) {
                return true;
            }
        }
        return false;
    }

    /// One byte removed, or exchanged with the next.
    bool tryShifts() {
        for (std::size_t at = 0; at < m_Data.size(); ++at) {
            bool const swaps = at + 1 < m_Data.size();
            if (tryChange(at, at + 1, "") ||
                (swaps && tryChange(at, at + 2, std::string{m_Data[at + 1], m_Data[at]}))) {
                return true;
            }
        }
        return false;
    }

    /// One byte changed or added: to a printable one, or to another.
    bool tryBytes(bool printable) {
        for (std::size_t at = 0; at <= m_Data.size() && m_Searched < m_MaxBytes; ++at) {
            for (int byte = 0; byte <= 0xFF; ++byte) {
                std::string const one(1, static_cast<char>(byte));
                if (isPrintable(byte) == printable &&
                    (tryChange(at, at, one) || (at < m_Data.size() && tryChange(at, at + 1, one)))) {
                    return true;
                }
            }
        }
        return false;
    }

    /// Every number with as many decimals, in the place of a number such as "12.50" or "1250".
    bool tryNumbers() {
        for (Place const& place : m_Places) {
            std::string const value = m_Data.substr(place.m_ValueFrom, place.m_ValueTo - place.m_ValueFrom);
            std::size_t const mark = value.find_first_of(".,");
            std::size_t const decimals = mark == std::string::npos ? 0 : value.size() - mark - 1;
            std::size_t const digits = static_cast<std::size_t>(std::count_if(value.begin(), value.end(), isDigit));
            bool const isNumber = digits > 0 && digits <= kMaxNumberDigits &&
                                  digits + (mark == std::string::npos ? 0 : 1) == value.size() && decimals <= 2;
            if (isNumber && tryNumbersAt(place, mark == std::string::npos ? '\0' : value[mark], decimals)) {
                return true;
            }
        }
        return false;
    }

    bool tryNumbersAt(Place const& place, char mark, std::size_t decimals) {
        for (long number = 0; number < kMaxNumber && m_Searched < m_MaxBytes; ++number) {
            std::string text = std::to_string(number);
            if (mark != '\0') {
                text.insert(0, text.size() <= decimals ? decimals + 1 - text.size() : 0, '0');
                text.insert(text.size() - decimals, 1, mark);
            }
            if (tryValue(place, text)) {
                return true;
            }
        }
        return false;
    }

    /// Every word of three capitals, such as a currency, in the place of one.
    bool tryWords() {
        for (Place const& place : m_Places) {
            std::string word = m_Data.substr(place.m_ValueFrom, place.m_ValueTo - place.m_ValueFrom);
            bool const isWord =
                word.size() == 3 && std::all_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
            for (int number = 0; isWord && number < 26 * 26 * 26; ++number) {
                word = {static_cast<char>('A' + number / 676), static_cast<char>('A' + number / 26 % 26),
                        static_cast<char>('A' + number % 26)};
                if (tryValue(place, word)) {
                    return true;
                }
            }
        }
        return false;
    }

    std::string const& m_Data;
    std::string const& m_Digest;
    Digested m_Digested;
    long long m_MaxBytes;
    std::string m_Units;  ///< What of m_Data is digested.
    std::size_t m_UnitSize;
    DigestHolder m_Before;  ///< The digest of the first m_At bytes of m_Data, unfinished.
    std::size_t m_At = 0;
    DigestHolder m_Whole;  ///< For one text at a time.
    std::vector<Place> m_Places;
    long long m_Searched = 0;
    std::string m_Found;
};

/// All texts that differ from `signature` in one digit and have `length` digits.
template <class Try>
bool tryDigits(std::string const& signature, std::size_t length, Try tryText) {
    for (std::size_t at = 0; at <= signature.size(); ++at) {
        std::string text = signature;
        if (signature.size() == length + 1 && at < signature.size() && tryText(text.erase(at, 1))) {
            return true;
        }
        for (char const digit : std::string(kHexDigits)) {
            text = signature;
            bool const adds = signature.size() + 1 == length && tryText(text.insert(at, 1, digit));
            bool const changes = signature.size() == length && at < length && tryText(text.replace(at, 1, 1, digit));
            if (adds || changes) {
                return true;
            }
        }
        text = signature;
        if (signature.size() == length && at + 1 < length) {
            std::swap(text[at], text[at + 1]);
            if (tryText(text)) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

char const* nameOf(Digested digested) {
    switch (digested) {
        case Digested::kZeroExtended:
            return "zero-extended";
        case Digested::kSignExtended:
            return "sign-extended";
        case Digested::kBytes:
            break;
    }
    return "not extended";
}

SearchedText findSignedText(std::string const& data, std::string const& digest, Digested digested,
                            sandbox::Attributes const& candidates, long long maxBytes) {
    return TextSearch(data, digest, digested, maxBytes).run(candidates);
}

std::optional<std::string> findSignature(EVP_PKEY* key, std::string const& data, std::string const& signature) {
    std::array<std::string, 2> const digests = {sandbox::digestOf(data, sandbox::Widening::kZero),
                                                sandbox::digestOf(data, sandbox::Widening::kSign)};
    std::string found;
    bool const done = tryDigits(signature, 2 * static_cast<std::size_t>(EVP_PKEY_get_size(key)),
                                [key, &digests, &found](std::string const& text) {
                                    std::optional<std::string> const bytes = sandbox::fromHex(text);
                                    std::optional<std::string> const digest =
                                        bytes ? sandbox::signedDigest(key, *bytes) : std::nullopt;
                                    found = text;
                                    return digest && (*digest == digests[0] || *digest == digests[1]);
                                });
    return done ? std::optional<std::string>(found) : std::nullopt;
}

}  // namespace diagnosis
