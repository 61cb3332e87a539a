// Reads the payment page with simple text searches: the page is one that the sandbox writes, not any HTML.
//
// Order: text helpers, tags and their attributes, percent encoding, then the functions of the header. A form is
// submitted with the pressed button's name and value first, then its hidden fields.
#include "paymentpage.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace demo {

namespace {

std::string replaced(std::string text, std::string const& from, std::string const& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string unescaped(std::string text) {
    text = replaced(std::move(text), "&lt;", "<");
    text = replaced(std::move(text), "&gt;", ">");
    text = replaced(std::move(text), "&quot;", "\"");
    text = replaced(std::move(text), "&#39;", "'");
    return replaced(std::move(text), "&amp;", "&");
}

/// The text between `before` and `after`; empty when either is missing.
std::string between(std::string const& text, std::string const& before, std::string const& after) {
    std::size_t const found = text.find(before);
    std::size_t const start = found + before.size();
    std::size_t const end = found == std::string::npos ? found : text.find(after, start);
    return end == std::string::npos ? "" : text.substr(start, end - start);
}

/// The value of attribute `name` of `tag`, unescaped.
std::string valueIn(std::string const& tag, std::string const& name) {
    return unescaped(between(tag, " " + name + "=\"", "\""));
}

/// All tags `name` of `page`, each from "<" up to ">".
std::vector<std::string> tagsOf(std::string const& page, std::string const& name) {
    std::vector<std::string> tags;
    for (std::size_t at = page.find("<" + name + " "); at != std::string::npos;
         at = page.find("<" + name + " ", at + 1)) {
        tags.push_back(page.substr(at, page.find('>', at) - at));
    }
    return tags;
}

/// The text that stands for a tag in visibleText().
std::string shownFor(std::string const& tag) {
    if (tag == "</dt>") {
        return ": ";
    }
    if (tag.compare(0, 8, "<button ") == 0) {
        return "[ ";
    }
    return tag == "</button>" ? " ]" : "";
}

/// Letters and digits stay; every other byte becomes a percent escape.
std::string percentEncoded(std::string const& text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0) {
            out += c;
        } else {
            out += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return out;
}

}  // namespace

std::string percentDecoded(std::string const& text) {
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        std::string const digits = text[at] == '%' ? text.substr(at + 1, 2) : "";
        if (digits.size() == 2 && digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
            out += static_cast<char>(std::strtol(digits.c_str(), nullptr, 16));
            at += 2;
        } else {
            out += text[at];
        }
    }
    return out;
}

std::string queryValue(std::string const& url, std::string const& name) {
    std::size_t const query = url.find('?');
    // With "&" at both ends, every parameter stands between two of them.
    return query == std::string::npos ? "" : between("&" + url.substr(query + 1) + "&", "&" + name + "=", "&");
}

Response submit(Form const& form, std::string const& decision) {
    for (auto const& [name, value] : form.m_Buttons) {
        if (value == decision) {
            std::string content = percentEncoded(name) + "=" + percentEncoded(value);
            for (auto const& [fieldName, fieldValue] : form.m_Fields) {
                content += "&" + percentEncoded(fieldName) + "=" + percentEncoded(fieldValue);
            }
            return fetch(form.m_Action, content);
        }
    }
    throw std::runtime_error("the page has no button \"" + decision + "\"");
}

Form readForm(std::string const& url, std::string const& page) {
    std::vector<std::string> const forms = tagsOf(page, "form");
    if (forms.size() != 1) {
        throw std::runtime_error("the page does not have exactly one form");
    }
    Form form;
    HttpUrl const address = parseUrl(url);
    form.m_Action = "http://" + address.m_Host + ":" + address.m_Port + valueIn(forms[0], "action");
    for (std::string const& tag : tagsOf(page, "input")) {
        form.m_Fields.emplace_back(valueIn(tag, "name"), valueIn(tag, "value"));
    }
    for (std::string const& tag : tagsOf(page, "button")) {
        form.m_Buttons.emplace_back(valueIn(tag, "name"), valueIn(tag, "value"));
    }
    return form;
}

std::string visibleText(std::string const& page) {
    std::string text;
    std::size_t at = std::min(page.find("<body>"), page.size());
    while (at < page.size()) {
        std::size_t const tag = std::min(page.find('<', at), page.size());
        std::size_t const end = std::min(page.find('>', tag), page.size() - 1) + 1;
        text += page.substr(at, tag - at) + shownFor(page.substr(tag, end - tag));
        at = end;
    }
    std::string lines;
    std::istringstream source(unescaped(text));
    std::string line;
    while (std::getline(source, line)) {
        lines += line.empty() ? "" : line + "\n";
    }
    return lines;
}

}  // namespace demo
