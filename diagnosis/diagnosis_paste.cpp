#include <algorithm>
#include <cstddef>

#include "diagnosis/diagnosis.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

/// Parsing the texts pasted into the form of a page.
namespace diagnosis {

namespace {

using sandbox::HttpError;
using sandbox::percentDecode;
using sandbox::Query;
using sandbox::replaceAll;

constexpr char kBlanks[] = " \t\r\n";

std::string without(std::string text, std::string const& characters) {
    text.erase(std::remove_if(text.begin(), text.end(),
                              [&characters](char c) { return characters.find(c) != std::string::npos; }),
               text.end());
    return text;
}

/// The position of "DATA=" at the start of a query parameter; npos when there is none.
std::size_t findData(std::string const& text) {
    constexpr char kName[] = "DATA=";
    std::size_t at = text.find(kName);
    // The semicolon is the end of "&amp;" in a URL copied from HTML.
    while (at != std::string::npos && at > 0 && std::string("?&;").find(text[at - 1]) == std::string::npos) {
        at = text.find(kName, at + 1);
    }
    return at;
}

/// The query of the URL `text`, which contains DATA at position `data`.
Query queryOf(std::string const& text, std::size_t data) {
    std::size_t const mark = text.rfind('?', data);
    std::size_t const from = mark == std::string::npos ? 0 : mark + 1;
    std::string const query = text.substr(from, text.find('#', from) - from);
    return Query(replaceAll(query, "&amp;", "&"));
}

std::string bothSignatures(std::string const& inAddress, std::string const& beside) {
    if (!inAddress.empty() && !beside.empty() && inAddress != beside) {
        throw HttpError("the URL contains another SIGNATURE than the field: leave one of them out");
    }
    return inAddress.empty() ? beside : inAddress;
}

}  // namespace

SignedTexts readPasted(std::string const& data, std::string const& signature) {
    SignedTexts texts{data, without(signature, kBlanks)};
    std::size_t const begin = data.find_first_not_of(kBlanks);
    if (begin == std::string::npos) {
        texts.m_Data.clear();
        return texts;
    }
    if (data[begin] == '<') {
        return texts;
    }
    // A long line copied from a mail or a terminal contains line ends.
    std::string const packed = without(data.substr(begin, data.find_last_not_of(kBlanks) + 1 - begin), "\r\n");
    std::size_t const at = findData(packed);
    if (at != std::string::npos) {
        Query const query = queryOf(packed, at);
        return {query.value("DATA").value_or(""),
                bothSignatures(query.value("SIGNATURE").value_or(""), texts.m_Signature)};
    }
    std::optional<std::string> const decoded = percentDecode(packed);
    if (!decoded) {
        throw HttpError("DATA is not well-formed percent-encoding");
    }
    texts.m_Data = *decoded;
    return texts;
}

}  // namespace diagnosis
