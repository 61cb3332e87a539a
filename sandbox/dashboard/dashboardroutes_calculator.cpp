// The signature calculator's page: checks DATA and SIGNATURE from the form, from the address, or of an example.
//
// The result comes first: its main cause in a sentence, then all remarks; then the message that was signed instead of
// DATA, if one was found, the digests, the keys that verify, and DATA itself. The form at the end contains the same
// values again, percent-encoded when the browser would change them.

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "diagnosis/diagnosis.h"
#include "diagnosis/explanation.h"
#include "sandbox/control/controlformat.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/dashboard/dashboard.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/confirmation.h"
#include "sandbox/service/storedevidence.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/rowwith.h"

namespace sandbox {

namespace {

using diagnosis::Diagnosis;
using diagnosis::SignedTexts;
using diagnosis::Wording;
using nlohmann::json;

constexpr char kPath[] = "/calculator";

/// An example: what becomes of the confirmation that all of them share.
struct ExampleRow {
    char const* m_Name;
    char const* m_Text;
    std::string (*m_Damage)(std::string const& text);
    bool m_OtherKey;  ///< Whether another key of the service signs.
};

std::string unchanged(std::string const& text) {
    return text;
}

std::string withOtherAmount(std::string const& text) {
    return replaceAll(text, "12.50", "1.50");
}

std::string withPlus(std::string const& text) {
    return replaceAll(text, " ", "+");
}

// clang-format off
constexpr ExampleRow kExamples[] = {
    {"valid",   "A valid confirmation",                     unchanged,       false},
    {"amount",  "AMOUNT was changed",                       withOtherAmount, false},
    {"plus",    "The web server turned each space into +",  withPlus,        false},
    {"escaped", "DATA is percent-encoded twice",            percentEncode,   false},
    {"key",     "Another key signed it",                    unchanged,       true},
};
// clang-format on

/// The confirmation of the examples, as this service signs it.
std::string exampleText(Services const& services) {
    Payment payment;
    payment.m_Id = "P0000000000000000";
    payment.m_Token = "example";
    payment.m_Attributes = {{"TOKEN", "example"},
                            {"ORDERID", "A-17"},
                            {"AMOUNT", "12.50"},
                            {"CURRENCY", "EUR"},
                            {"DESCRIPTION", "Two candles"}};
    return confirmation(services, payment, stateName(PaymentState::kAuthorised)).text();
}

/// Nothing when no example has that name.
std::optional<SignedTexts> example(Services const& services, std::string const& name) {
    ExampleRow const* const row = rowWith(kExamples, &ExampleRow::m_Name, name);
    if (row == nullptr) {
        return std::nullopt;
    }
    std::string const text = exampleText(services);
    KeyRing::Key const key = row->m_OtherKey ? services.m_Keys.impostor() : services.m_Keys.current();
    return SignedTexts{row->m_Damage(text), signText(key->m_Key.get(), text, Widening::kSign)};
}

/// DATA in a form that the text field returns unchanged. Browsers change line ends in it, and a page cannot contain
/// bytes that are not UTF-8.
std::string fieldText(std::string const& data) {
    bool const safe =
        data[0] == '<' && std::all_of(data.begin(), data.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return safe ? data : percentEncode(data);
}

std::string keyText(Wording const& wording, Diagnosis const& result) {
    if (!result.m_Key) {
        return result.m_KeyId.empty() ? "no KEYID can be read" : result.m_KeyId + " (unknown key)";
    }
    std::string const use = !result.m_Key->ofService() ? "" : result.m_Key->m_Current ? ", signing" : ", old";
    return result.m_KeyId + " of " + diagnosis::keyOwner(wording, result.m_Key->m_Account) + use + ", " +
           std::to_string(result.m_Key->bits()) + " bits";
}

json originalContent(diagnosis::SignedOriginal const& original) {
    auto const differenceRow = [](diagnosis::Difference const& difference) {
        return json{{"name", difference.m_Name},
                    {"isSigned", difference.m_InSigned.has_value()},
                    {"signed", difference.m_InSigned.value_or("")},
                    {"isInData", difference.m_InData.has_value()},
                    {"inData", difference.m_InData.value_or("")}};
    };
    return {{"page", original.m_Seen.m_Page},
            {"origin", original.m_Seen.m_Origin},
            {"hasDifferences", !original.m_Differences.empty()},
            {"differences", rowsOf(original.m_Differences, differenceRow)},
            {"message", messageContent(original.m_Seen.m_Text)}};
}

json resultContent(Wording const& wording, Diagnosis const& result) {
    diagnosis::Explanation const explanation = explain(wording, result);
    auto const remarkRow = [](diagnosis::Remark const& remark) { return json{{"text", remark.m_Text}}; };
    auto const matchRow = [&wording](diagnosis::Match const& match) {
        return json{{"key", match.m_KeyId},
                    {"owner", diagnosis::keyOwner(wording, match.m_Account)},
                    {"bytes", nameOf(match.m_Digested)},
                    {"repair", match.m_Repair}};
    };
    return {{"right", result.m_Right},
            {"sentence", result.m_Right ? "The signature is valid" : explanation.m_Sentence},
            {"change", result.m_Right ? "" : explanation.m_Change},
            {"remarks", rowsOf(result.m_Remarks, remarkRow)},
            {"original", result.m_Original ? originalContent(*result.m_Original) : json()},
            {"keyText", keyText(wording, result)},
            {"zeroDigest", result.m_ZeroDigest},
            {"signDigest", result.m_SignDigest},
            {"heldDigest", result.m_HeldDigest},
            {"hasMatches", !result.m_Matches.empty()},
            {"matches", rowsOf(result.m_Matches, matchRow)},
            {"message", result.m_Data.empty() ? json() : messageContent(result.m_Data)}};
}

HttpResponse page(Services const& services, int status, SignedTexts const& filledIn, json result,
                  std::string const& problem) {
    auto const exampleRow = [](ExampleRow const& row) { return json{{"name", row.m_Name}, {"text", row.m_Text}}; };
    return dashboardPage(services, status, kPath, "Signature calculator", "calculator_page",
                         {{"result", std::move(result)},
                          {"problem", problem},
                          {"data", filledIn.m_Data},
                          {"signature", filledIn.m_Signature},
                          {"examples", rowsOf(kExamples, exampleRow)}});
}

HttpResponse resultPage(Services const& services, SignedTexts const& texts, std::string const& original = "") {
    diagnosis::Evidence evidence = storedEvidence(services);
    if (!original.empty()) {
        evidence.m_Recall = [original](diagnosis::KnownKey const&, std::string const& digest) {
            return digestOf(original, Widening::kSign) == digest
                       ? std::optional(diagnosis::SeenMessage{original, "the example's confirmation", ""})
                       : std::nullopt;
        };
    }
    Diagnosis const result = diagnose(evidence, texts.m_Data, texts.m_Signature);
    return page(services, httpstatus::kOk, {fieldText(texts.m_Data), texts.m_Signature},
                resultContent(evidence.m_Wording, result), "");
}

}  // namespace

HttpResponse calculatorPage(Services const& services, Query const& query) {
    SignedTexts const texts{query.value("DATA").value_or(""), query.value("SIGNATURE").value_or("")};
    if (std::optional<SignedTexts> const named = example(services, query.value("example").value_or(""))) {
        return resultPage(services, *named, exampleText(services));
    }
    return texts.m_Data.empty() && texts.m_Signature.empty() ? page(services, httpstatus::kOk, texts, json(), "")
                                                             : resultPage(services, texts);
}

HttpResponse calculateByForm(Services const& services, Query const& form) {
    SignedTexts const pasted{form.value("DATA").value_or(""), form.value("SIGNATURE").value_or("")};
    try {
        return resultPage(services, diagnosis::readPasted(pasted.m_Data, pasted.m_Signature));
    } catch (HttpError const& error) {
        return page(services, error.status(), pasted, json(), error.what());
    }
}

}  // namespace sandbox
