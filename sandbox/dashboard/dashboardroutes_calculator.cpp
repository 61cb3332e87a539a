// The signature calculator's page: checks DATA and SIGNATURE from the form or from the address.
//
// The result comes first: valid or not, with the reasons; then the message that was signed instead of DATA, if one was
// found, the digests, the keys that verify, and DATA itself. The form at the end contains the same values again,
// percent-encoded when the browser would change them.

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "diagnosis/diagnosis.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/dashboard/storedevidence.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

namespace {

using diagnosis::Diagnosis;
using diagnosis::Wording;

constexpr char kPath[] = "/calculator";

/// DATA in a form that the text field returns unchanged. Browsers change line ends in it, and a page cannot contain
/// bytes that are not UTF-8.
std::string fieldText(std::string const& data) {
    bool const safe =
        data[0] == '<' && std::all_of(data.begin(), data.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return safe ? data : percentEncode(data);
}

std::string formContent(Services const& services, std::string const& data, std::string const& signature,
                        std::string const& problem) {
    std::string const fields =
        "<label class=\"full\">DATA: the message, plain or percent-encoded, or a complete URL\n"
        "<textarea name=\"DATA\" rows=\"6\">\n" +
        escapeHtml(data) + "</textarea></label>\n" +
        "<label class=\"full\">SIGNATURE (leave empty when the URL contains it)\n"
        "<textarea name=\"SIGNATURE\" rows=\"3\">\n" +
        escapeHtml(signature) + "</textarea></label>\n" + button("Check");
    return dashboardForm(services, kPath, fields, problem);
}

std::string remarksContent(Diagnosis const& result) {
    std::string items;
    for (diagnosis::Remark const& remark : result.m_Remarks) {
        items += "<li>" + escapeHtml(remark.m_Text) + "</li>\n";
    }
    std::string const verdict = result.m_Right ? "The signature is valid." : "The signature is not valid.";
    return "<p><strong>" + verdict + "</strong></p>\n<ul>\n" + items + "</ul>\n";
}

std::string keyText(Wording const& wording, Diagnosis const& result) {
    if (!result.m_Key) {
        return result.m_KeyId.empty() ? "no KEYID can be read" : result.m_KeyId + " (unknown key)";
    }
    std::string const use = !result.m_Key->ofService() ? "" : result.m_Key->m_Current ? ", signing" : ", old";
    return result.m_KeyId + " of " + diagnosis::keyOwner(wording, result.m_Key->m_Account) + use + ", " +
           std::to_string(result.m_Key->bits()) + " bits";
}

std::string codeEntry(std::string const& name, std::string const& text, std::string const& otherwise) {
    return entry(name, text.empty() ? escapeHtml(otherwise) : "<code>" + escapeHtml(text) + "</code>");
}

std::string comparisonContent(Wording const& wording, Diagnosis const& result) {
    return paragraph(
               "What is signed is the SHA-1 digest of DATA with each byte extended to two: zero-extended by "
               "merchants, sign-extended by this service.") +
           "<dl>\n" + entry("Key in KEYID", escapeHtml(keyText(wording, result))) +
           codeEntry("DATA, zero-extended", result.m_ZeroDigest, "none") +
           codeEntry("DATA, sign-extended", result.m_SignDigest, "none") +
           codeEntry("In SIGNATURE", result.m_HeldDigest, "no digest can be read") + "</dl>\n";
}

std::string matchesContent(Wording const& wording, Diagnosis const& result) {
    if (result.m_Matches.empty()) {
        return paragraph("No known key verifies SIGNATURE, not even after undoing common damage to DATA.");
    }
    std::vector<Cells> rows;
    for (diagnosis::Match const& match : result.m_Matches) {
        rows.push_back({escapeHtml(match.m_KeyId), escapeHtml(diagnosis::keyOwner(wording, match.m_Account)),
                        nameOf(match.m_Digested),
                        escapeHtml(match.m_Repair.empty() ? "unchanged" : "after this change: " + match.m_Repair)});
    }
    return wideTable("Keys that verify SIGNATURE", {"Key", "Owner", "Bytes", "DATA"}, rows);
}

std::string valueCell(std::optional<std::string> const& value) {
    return value ? escapeHtml(*value) : "<em>missing</em>";
}

std::string originalContent(diagnosis::SignedOriginal const& original) {
    std::vector<Cells> rows;
    for (diagnosis::Difference const& difference : original.m_Differences) {
        rows.push_back(
            {escapeHtml(difference.m_Name), valueCell(difference.m_InSigned), valueCell(difference.m_InData)});
    }
    return "<p>Source: " + link(original.m_Seen.m_Page, original.m_Seen.m_Origin) + ".</p>\n" +
           (rows.empty() ? "" : wideTable("Differences", {"Attribute", "Signed", "In DATA"}, rows)) +
           attributesContent(original.m_Seen.m_Text) + verbatim(original.m_Seen.m_Text);
}

std::string resultContent(Wording const& wording, Diagnosis const& result) {
    std::string const data = result.m_Data.empty() ? "" : attributesContent(result.m_Data) + verbatim(result.m_Data);
    return section("verdict", "Result", remarksContent(result)) +
           (result.m_Original ? section("original", "Signed message", originalContent(*result.m_Original)) : "") +
           section("comparison", "Digests", comparisonContent(wording, result)) +
           section("matches", "Matching keys", matchesContent(wording, result)) +
           (data.empty() ? "" : section("message", "DATA, decoded", data));
}

HttpResponse resultPage(Services const& services, diagnosis::SignedTexts const& texts) {
    diagnosis::Evidence const evidence = storedEvidence(services);
    Diagnosis const result = diagnose(evidence, texts.m_Data, texts.m_Signature);
    return dashboardPage(httpstatus::kOk, kPath, "Signature calculator",
                         resultContent(evidence.m_Wording, result) +
                             section("form", "DATA and SIGNATURE",
                                     formContent(services, fieldText(texts.m_Data), texts.m_Signature, "")));
}

HttpResponse formPage(Services const& services, int status, diagnosis::SignedTexts const& filledIn,
                      std::string const& problem) {
    return dashboardPage(
        status, kPath, "Signature calculator",
        section("form", "DATA and SIGNATURE", formContent(services, filledIn.m_Data, filledIn.m_Signature, problem)));
}

}  // namespace

HttpResponse calculatorPage(Services const& services, Query const& query) {
    diagnosis::SignedTexts const texts{query.value("DATA").value_or(""), query.value("SIGNATURE").value_or("")};
    return texts.m_Data.empty() && texts.m_Signature.empty() ? formPage(services, httpstatus::kOk, texts, "")
                                                             : resultPage(services, texts);
}

HttpResponse calculateByForm(Services const& services, Query const& form) {
    diagnosis::SignedTexts const pasted{form.value("DATA").value_or(""), form.value("SIGNATURE").value_or("")};
    try {
        return resultPage(services, diagnosis::readPasted(pasted.m_Data, pasted.m_Signature));
    } catch (HttpError const& error) {
        return formPage(services, error.status(), pasted, error.what());
    }
}

}  // namespace sandbox
