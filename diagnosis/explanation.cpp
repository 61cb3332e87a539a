// The main cause of a Diagnosis, as one sentence, and the change that undoes it.
//
// A message may have several faults. The first row of kRows whose finding is among the remarks is the main one: what
// was found by comparing comes before what is merely missing, and what was changed before what is written in another
// way.

#include "diagnosis/explanation.h"

#include <algorithm>
#include <cstddef>

#include "sandbox/text/wiretext.h"

namespace diagnosis {

namespace {

// How many bytes are shown before a changed place.
constexpr std::size_t kShownBefore = 24;

// A longer value is cut.
constexpr std::size_t kMaxShownValue = 120;

/// The length of the UTF-8 sequence at position `at`, without control characters; 0 for anything else.
std::size_t sequenceAt(std::string const& text, std::size_t at) {
    auto const byte = [&text](std::size_t i) { return static_cast<unsigned char>(i < text.size() ? text[i] : '\0'); };
    unsigned char const first = byte(at);
    if (first < 0x80) {
        return first >= ' ' && first != 0x7F ? 1 : 0;
    }
    std::size_t const length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    bool const overlong =
        first < 0xC2 || (first == 0xE0 && byte(at + 1) < 0xA0) || (first == 0xF0 && byte(at + 1) < 0x90);
    bool const outside =
        first > 0xF4 || (first == 0xED && byte(at + 1) >= 0xA0) || (first == 0xF4 && byte(at + 1) >= 0x90);
    bool const isControl = first == 0xC2 && byte(at + 1) < 0xA0;
    return overlong || outside || isControl ? 0 : length;
}

std::string shownValue(std::string const& value) {
    if (value.empty()) {
        return "an empty value";
    }
    return value.size() > kMaxShownValue ? printable(value.substr(0, kMaxShownValue)) + "..." : printable(value);
}

std::string quotedPrintable(std::string const& text) {
    return "'" + printable(text) + "'";
}

std::string sentenceOf(Difference const& difference) {
    std::string const name = printable(difference.m_Name);
    if (!difference.m_InSigned) {
        return name + " was added with " + (difference.m_InData->empty() ? "" : "the value ") +
               shownValue(*difference.m_InData);
    }
    if (!difference.m_InData) {
        return name + " was removed; its value was " + shownValue(*difference.m_InSigned);
    }
    return name + " was changed from " + shownValue(*difference.m_InSigned) + " to " + shownValue(*difference.m_InData);
}

std::string changeFor(Difference const& difference) {
    std::string const name = printable(difference.m_Name);
    if (!difference.m_InSigned) {
        return "remove " + name;
    }
    return (difference.m_InData ? "change " + name + " to " : "add " + name + " with the value ") +
           shownValue(*difference.m_InSigned);
}

template <class Write>
std::string joined(std::vector<Difference> const& differences, std::string const& between, Write write) {
    std::string out;
    for (Difference const& difference : differences) {
        out += (out.empty() ? "" : between) + write(difference);
    }
    return out;
}

Explanation explainOriginal(Wording const&, Diagnosis const& diagnosis) {
    SignedOriginal const& original = diagnosis.m_Original.value();
    if (!original.m_Differences.empty()) {
        return {joined(original.m_Differences, "; ", sentenceOf), joined(original.m_Differences, "; ", changeFor)};
    }
    std::string const place = changedPlace(original.m_Seen.m_Text, diagnosis.m_Data);
    if (!diagnosis.m_Message) {
        return {"DATA was damaged: " + place, "use the text that was signed"};
    }
    return {"The text of DATA was changed: " + place, "pass DATA on byte by byte, as it arrived"};
}

Explanation explainSignature(Wording const&, Diagnosis const& diagnosis) {
    return {"SIGNATURE was changed: " + changedPlace(diagnosis.m_SignatureFound, diagnosis.m_Signature),
            "use the signature " + diagnosis.m_SignatureFound};
}

Explanation explainDamage(Wording const&, Diagnosis const& diagnosis) {
    Match const& match = diagnosis.m_Matches.front();
    return {"DATA was changed on its way: " + match.m_Damage, match.m_Repair};
}

Explanation explainKey(Wording const& wording, Diagnosis const& diagnosis) {
    std::string signer;
    if (!diagnosis.m_Matches.empty()) {
        Match const& match = diagnosis.m_Matches.front();
        signer = "the key " + quotedPrintable(match.m_KeyId) + " of " + printable(keyOwner(wording, match.m_Account));
    }
    return {"The signature was made with " + (signer.empty() ? "another key" : signer) + ", not with the key " +
                quotedPrintable(diagnosis.m_KeyId) + " that the message names",
            "change the key that signs, or KEYID"};
}

Explanation explainUnknownKey(Wording const& wording, Diagnosis const& diagnosis) {
    return {"The message names the key " + quotedPrintable(diagnosis.m_KeyId) + ", which " + wording.m_Unknown,
            "get that key: repeat the set-up, or verify with the configuration of the shop that made the payment"};
}

Explanation explainUnreadable(Wording const& wording, Diagnosis const& diagnosis) {
    KnownKey const& key = diagnosis.m_Key.value();
    return {"SIGNATURE was not made with the key " + quotedPrintable(key.m_Id) + " of " +
                printable(keyOwner(wording, key.m_Account)) + ", or more than one digit of it was changed",
            ""};
}

Explanation explainOtherDigest(Wording const&, Diagnosis const&) {
    return {
        "SIGNATURE belongs to another text: DATA was changed in several places, or it is not the message that was "
        "signed",
        ""};
}

/// The remark with this finding, as it stands.
template <Finding Wanted>
Explanation quoteRemark(Wording const&, Diagnosis const& diagnosis) {
    for (Remark const& remark : diagnosis.m_Remarks) {
        if (remark.m_Finding == Wanted) {
            std::string text = printable(remark.m_Text);
            text.erase(text.find_last_not_of('.') + 1);
            return {text, ""};
        }
    }
    return {};
}

Explanation explainLength(Wording const& wording, Diagnosis const& diagnosis) {
    if (!diagnosis.m_Matches.empty() && diagnosis.m_Matches.front().m_ZerosLost) {
        return {"SIGNATURE lost zeros at its start", "write each byte of a signature as two digits, zeros included"};
    }
    return quoteRemark<Finding::kWrongLength>(wording, diagnosis);
}

struct Row {
    Finding m_Finding;
    Explanation (*m_Explain)(Wording const& wording, Diagnosis const& diagnosis);
    char const* m_Change;  ///< When the function returns none.
};

// clang-format off
constexpr Row kRows[] = {
    {Finding::kRight,            quoteRemark<Finding::kRight>,            ""},
    {Finding::kDataMissing,      quoteRemark<Finding::kDataMissing>,      "pass the parameter DATA of the return URL"},
    {Finding::kSignatureMissing, quoteRemark<Finding::kSignatureMissing>, "pass the parameter SIGNATURE of the return URL"},
    {Finding::kSignatureChanged, explainSignature,                        ""},
    {Finding::kDataChanged,      explainOriginal,                         ""},
    {Finding::kOtherMessage,     explainOriginal,                         ""},
    {Finding::kDamaged,          explainDamage,                           ""},
    {Finding::kWrongWidening,    quoteRemark<Finding::kWrongWidening>,    "extend each byte as the sentence says"},
    {Finding::kNotHexadecimal,   quoteRemark<Finding::kNotHexadecimal>,   "pass SIGNATURE on as it arrived"},
    {Finding::kWrongKey,         explainKey,                              ""},
    {Finding::kUpperCase,        quoteRemark<Finding::kUpperCase>,        "write SIGNATURE in lower case"},
    {Finding::kWrongWrapping,    quoteRemark<Finding::kWrongWrapping>,    "sign the bare digest with PKCS #1 v1.5 padding"},
    {Finding::kKeyUnknown,       explainUnknownKey,                       ""},
    {Finding::kKeyIdMissing,     quoteRemark<Finding::kKeyIdMissing>,     "set KEYID to the key that signs, before signing"},
    {Finding::kWrongLength,      explainLength,                           "pass SIGNATURE on as it arrived"},
    {Finding::kUnreadable,       explainUnreadable,                       ""},
    {Finding::kNoMessage,        quoteRemark<Finding::kNoMessage>,        "pass DATA on as it arrived, decoded once"},
    {Finding::kOtherDigest,      explainOtherDigest,                      ""},
    {Finding::kNothingFits,      quoteRemark<Finding::kNothingFits>,      ""},
    {Finding::kKeyOld,           quoteRemark<Finding::kKeyOld>,           ""},
};
// clang-format on

}  // namespace

std::string printable(std::string const& text) {
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t const length = sequenceAt(text, at);
        if (length == 0) {
            out += "\\x" + sandbox::toHex(text.substr(at, 1));
        } else if (text[at] == '\\') {
            out += "\\\\";
        } else {
            out += text.substr(at, length);
        }
        at += length == 0 ? 1 : length;
    }
    return out;
}

std::string changedPlace(std::string const& before, std::string const& after) {
    std::size_t const shorter = std::min(before.size(), after.size());
    std::size_t from = 0;
    while (from < shorter && before[from] == after[from]) {
        ++from;
    }
    std::size_t tail = 0;
    while (tail < shorter - from && before[before.size() - 1 - tail] == after[after.size() - 1 - tail]) {
        ++tail;
    }
    std::string const removed = before.substr(from, before.size() - tail - from);
    std::string const added = after.substr(from, after.size() - tail - from);
    std::size_t const shownFrom = from > kShownBefore ? from - kShownBefore : 0;
    std::string const where =
        from == 0 ? " at the start" : " after " + quotedPrintable(before.substr(shownFrom, from - shownFrom));
    if (removed.empty()) {
        return added.empty() ? "nothing differs" : quotedPrintable(added) + " was added" + where;
    }
    return added.empty() ? quotedPrintable(removed) + " was removed" + where
                         : quotedPrintable(removed) + " became " + quotedPrintable(added) + where;
}

Explanation explain(Wording const& wording, Diagnosis const& diagnosis) {
    for (Row const& row : kRows) {
        bool const applies = std::any_of(diagnosis.m_Remarks.begin(), diagnosis.m_Remarks.end(),
                                         [&row](Remark const& remark) { return remark.m_Finding == row.m_Finding; });
        if (applies) {
            Explanation explanation = row.m_Explain(wording, diagnosis);
            if (explanation.m_Change.empty()) {
                explanation.m_Change = row.m_Change;
            }
            return explanation;
        }
    }
    return {};
}

}  // namespace diagnosis
