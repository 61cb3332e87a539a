#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/dashboard/calculator.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/text/refusal.h"

/// The page that takes a signed message apart.
namespace sandbox {

namespace {

constexpr char kPath[] = "/calculator";

/// DATA as it can stand in the field and come back from it unchanged. Browsers change line ends there, and pages hold
/// no bytes that are not UTF-8.
std::string fieldText(std::string const& data) {
    bool const safe =
        data[0] == '<' && std::all_of(data.begin(), data.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return safe ? data : percentEncode(data);
}

std::string formContent(Site const& site, std::string const& data, std::string const& signature,
                        std::string const& problem) {
    std::string const fields =
        "<label class=\"full\">DATA: the message, percent-encoded or not, or a whole address\n"
        "<textarea name=\"DATA\" rows=\"6\">\n" +
        escapeHtml(data) + "</textarea></label>\n" +
        "<label class=\"full\">SIGNATURE (not needed when the address holds it)\n"
        "<textarea name=\"SIGNATURE\" rows=\"3\">\n" +
        escapeHtml(signature) + "</textarea></label>\n" + button("Calculate");
    return dashboardForm(site, kPath, fields, problem);
}

std::string remarksContent(Calculation const& result) {
    std::string items;
    for (Remark const& remark : result.remarks) {
        items += "<li>" + escapeHtml(remark.text) + "</li>\n";
    }
    std::string const verdict = result.right ? "The signature is right." : "The signature is not right.";
    return "<p><strong>" + verdict + "</strong></p>\n<ul>\n" + items + "</ul>\n";
}

std::string keyText(Calculation const& result) {
    if (!result.key) {
        return result.keyId.empty() ? "none can be read" : result.keyId + ", which nobody has";
    }
    std::string const use = !result.key->ofService() ? "" : result.key->current ? ", signs now" : ", old";
    return result.keyId + " of " + keyOwner(result.key->account) + use + ", " + std::to_string(result.key->bits()) +
           " bits";
}

std::string codeEntry(std::string const& name, std::string const& text, std::string const& otherwise) {
    return entry(name, text.empty() ? escapeHtml(otherwise) : "<code>" + escapeHtml(text) + "</code>");
}

std::string comparisonContent(Calculation const& result) {
    return paragraph(
               "A merchant signs the SHA-1 digest of DATA with each byte zero-extended to two, this service with "
               "each byte sign-extended.") +
           "<dl>\n" + entry("KEYID names", escapeHtml(keyText(result))) +
           codeEntry("Zero-extended", result.zeroDigest, "none") +
           codeEntry("Sign-extended", result.signDigest, "none") +
           codeEntry("In SIGNATURE", result.heldDigest, "none that can be read") + "</dl>\n";
}

char const* nameOf(Digested digested) {
    switch (digested) {
        case Digested::ZeroExtended:
            return "zero-extended";
        case Digested::SignExtended:
            return "sign-extended";
        case Digested::Bytes:
            break;
    }
    return "not extended";
}

std::string matchesContent(Calculation const& result) {
    if (result.matches.empty()) {
        return paragraph("None was found.");
    }
    std::vector<Cells> rows;
    for (Match const& match : result.matches) {
        rows.push_back({escapeHtml(match.keyId), escapeHtml(keyOwner(match.account)), nameOf(match.digested),
                        escapeHtml(match.repair.empty() ? "as it is" : "once " + match.repair)});
    }
    return wideTable("Where SIGNATURE verifies", {"Key", "Owner", "Bytes", "DATA"}, rows);
}

std::string valueCell(std::optional<std::string> const& value) {
    return value ? escapeHtml(*value) : "<em>not there</em>";
}

std::string originalContent(SignedOriginal const& original) {
    std::vector<Cells> rows;
    for (Difference const& difference : original.differences) {
        rows.push_back({escapeHtml(difference.name), valueCell(difference.inSigned), valueCell(difference.inData)});
    }
    return "<p>It was seen here: " + link(original.seen.page, original.seen.origin) + ".</p>\n" +
           (rows.empty() ? "" : wideTable("What differs", {"Attribute", "In what was signed", "In DATA"}, rows)) +
           attributesContent(original.seen.text) + verbatim(original.seen.text);
}

std::string resultContent(Calculation const& result) {
    std::string const data = result.data.empty() ? "" : attributesContent(result.data) + verbatim(result.data);
    return section("verdict", "What is right, what differs", remarksContent(result)) +
           (result.original ? section("original", "What was signed", originalContent(*result.original)) : "") +
           section("comparison", "What was compared", comparisonContent(result)) +
           section("matches", "Ways in which it verifies", matchesContent(result)) +
           (data.empty() ? "" : section("message", "DATA, decoded", data));
}

HttpReply resultPage(Site const& site, SignedTexts const& texts) {
    Calculation const result =
        calculate(knownKeys(site), texts.data, texts.signature,
                  [&site](KnownKey const& key, std::string const& digest) { return recallSeen(site, key, digest); });
    return dashboardPage(
        200, kPath, "Signature calculator",
        resultContent(result) +
            section("form", "DATA and SIGNATURE", formContent(site, fieldText(texts.data), texts.signature, "")));
}

HttpReply formPage(Site const& site, int status, SignedTexts const& filledIn, std::string const& problem) {
    return dashboardPage(
        status, kPath, "Signature calculator",
        section("form", "DATA and SIGNATURE", formContent(site, filledIn.data, filledIn.signature, problem)));
}

}  // namespace

HttpReply calculatorPage(Site const& site, Query const& query) {
    SignedTexts const texts{query.value("DATA").value_or(""), query.value("SIGNATURE").value_or("")};
    return texts.data.empty() && texts.signature.empty() ? formPage(site, 200, texts, "") : resultPage(site, texts);
}

HttpReply calculateByForm(Site const& site, Query const& form) {
    SignedTexts const pasted{form.value("DATA").value_or(""), form.value("SIGNATURE").value_or("")};
    try {
        return resultPage(site, readPasted(pasted.data, pasted.signature));
    } catch (Refusal const& refusal) {
        return formPage(site, refusal.status(), pasted, refusal.what());
    }
}

}  // namespace sandbox
