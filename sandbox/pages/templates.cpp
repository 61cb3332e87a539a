// Renders pages. A template is put together with those that it names, the frame and the texts of a language, then
// parsed, once in each thread; what fills it in is made of JSON for each page.
//
// The pages load nothing, so the policy in the template `frame` forbids everything but inline styles: injected content
// could neither load nor run. A page with a `nonce` runs the script `live`, which reads from this service alone.
// Deliberate (no-form-action): it has no `form-action`, which would block the form's redirect to the shop.
//
// escapeHtml() walks the text by well-formed UTF-8 sequences. A byte that starts no sequence is shown as its Latin-1
// character, a control character as its picture, so that the output is always valid UTF-8 and a reader still sees which
// byte was sent.

#include "sandbox/pages/templates.h"

#include <algorithm>
#include <cstddef>
#include <kainjow/mustache.hpp>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using kainjow::mustache::data;
using kainjow::mustache::mustache;
using nlohmann::json;

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

/// The length of the well-formed sequence at the beginning of `text`, whose character becomes `point`; 0 when there is
/// none (Unicode, section 3.9).
std::size_t decodeUtf8(std::string_view text, char32_t& point) {
    constexpr char32_t kLowest[] = {0, 0, 0x80, 0x800,
                                    0x10000};  // by length: a shorter form would do for what is below
    auto const first = static_cast<unsigned char>(text[0]);
    std::size_t const length = first < 0x80 ? 1 : first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    point = length == 1 ? first : first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if (i == text.size() || (static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80) {
            return 0;
        }
        point = point << 6U | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    bool const isSurrogate = point >= 0xD800 && point <= 0xDFFF;
    return point >= kLowest[length] && point <= 0x10FFFF && !isSurrogate ? length : 0;
}

/// U+00A0 to U+00FF in UTF-8.
std::string latin1Character(unsigned char byte) {
    return {static_cast<char>(0xC0 | byte >> 6), static_cast<char>(0x80 | (byte & 0x3F))};
}

/// The control picture of `byte`: U+2400 and up, U+2421 for DEL.
std::string controlPicture(unsigned char byte) {
    unsigned char const offset = byte == 0x7F ? 0x21 : byte;
    return {'\xE2', '\x90', static_cast<char>(0x80 | offset)};
}

std::string escapedAscii(char c) {
    unsigned char const byte = static_cast<unsigned char>(c);
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '"':
            return "&quot;";
        case '\'':
            return "&#39;";
        case '\n':
        case '\t':
            return {c};
        default:
            return byte < 0x20 || byte == 0x7F ? controlPicture(byte) : std::string{c};
    }
}

/// Whether a character beyond ASCII must not be in a page.
bool isUnusable(char32_t point) {
    return (point >= 0x80 && point < 0xA0) || point == 0xFFFE || point == 0xFFFF;
}

std::map<std::string, std::string> const& allTemplates() {
    static std::map<std::string, std::string> const templates = {
#include <templates.inc>
    };
    return templates;
}

/// The template with every `{{>name}}` replaced; `page` is the one that the frame calls `{{>main}}`.
std::string putTogether(std::string const& name, std::string const& page) {
    std::string text = templateText(name);
    for (std::size_t at = text.find("{{>"); at != std::string::npos; at = text.find("{{>", at)) {
        std::size_t const end = text.find("}}", at);
        std::string const part = text.substr(at + 3, end - at - 3);
        bool const isFile = part.find('.') != std::string::npos;
        std::string inner = putTogether(part == "main" ? page + ".html" : isFile ? part : part + ".html", page);
        inner.erase(inner.find_last_not_of('\n') + 1);
        text.replace(at, end + 2 - at, inner);
        at += inner.size();
    }
    return text;
}

/// The template without the ends of lines that only begin or end a section, and without comments: a section that is
/// left out would leave an empty line behind.
std::string withoutTagLines(std::string const& text) {
    std::string out;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        bool const isTag = line.compare(0, 2, "{{") == 0 && line.find("}}") == line.size() - 2;
        bool const isComment = isTag && line[2] == '!';
        bool const isSection = isTag && std::string("#^/").find(line[2]) != std::string::npos;
        out += isComment ? "" : isSection ? line : line + '\n';
    }
    return out;
}

mustache& parsedPage(std::string const& name, Language const& language) {
    thread_local std::map<std::pair<std::string, Language const*>, mustache> pages;
    auto found = pages.find({name, &language});
    if (found == pages.end()) {
        std::string text = withoutTagLines(putTogether("frame.html", name));
        for (auto const& [key, words] : language.items()) {
            text = replaceAll(text, "{{language." + key + "}}", escapeHtml(words));
        }
        mustache parsed(text);
        if (!parsed.is_valid()) {
            throw std::logic_error("template " + name + ": " + parsed.error_message());
        }
        parsed.set_custom_escape(escapeHtml);
        found = pages.emplace(std::pair(name, &language), std::move(parsed)).first;
    }
    return found->second;
}

data toData(json const& value);

data objectData(json const& object) {
    data out(data::type::object);
    for (auto const& [name, value] : object.items()) {
        auto const bytes = object.find(name + "Hex");
        out.set(name,
                bytes == object.end() ? toData(value) : toData(fromHex(bytes->get_ref<std::string const&>()).value()));
    }
    return out;
}

data toData(json const& value) {
    switch (value.type()) {
        case json::value_t::object:
            return objectData(value);
        case json::value_t::array: {
            data out(data::type::list);
            for (json const& element : value) {
                out.push_back(toData(element));
            }
            return out;
        }
        case json::value_t::string: {
            auto const& text = value.get_ref<std::string const&>();
            return text.empty() ? data(false) : data(text);
        }
        case json::value_t::null:
            return {false};
        case json::value_t::boolean:
            return {value.get<bool>()};
        default:
            return {value.dump()};
    }
}

}  // namespace

std::string escapeHtml(std::string const& text) {
    std::string out;
    out.reserve(text.size());
    std::size_t length = 0;
    for (std::size_t at = 0; at < text.size(); at += std::max<std::size_t>(length, 1)) {
        char32_t point = 0;
        length = decodeUtf8(std::string_view(text).substr(at), point);
        auto const byte = static_cast<unsigned char>(text[at]);
        if (length == 1) {
            out += escapedAscii(text[at]);
        } else if (length == 0 && byte >= 0xA0) {
            out += latin1Character(byte);
        } else {
            out += length == 0 || isUnusable(point) ? kReplacement : text.substr(at, length);
        }
    }
    return out;
}

std::string templateText(std::string const& name) {
    auto const found = allTemplates().find(name);
    if (found == allTemplates().end()) {
        throw std::logic_error("there is no template " + name);
    }
    return found->second;
}

HttpResponse renderPage(int status, std::string const& name, json const& content, Language const& language) {
    HttpResponse response{status, "text/html; charset=utf-8", parsedPage(name, language).render(toData(content))};
    response.m_Nonce = content.value("nonce", "");
    return response;
}

json verbatim(std::string const& text) {
    json pieces = json::array();
    std::size_t from = 0;
    for (std::size_t to = text.find('\r'); to != std::string::npos; to = text.find('\r', from)) {
        pieces.push_back({{"text", text.substr(from, to - from)}, {"return", true}});
        from = to + 1;
    }
    pieces.push_back({{"text", text.substr(from)}, {"return", false}});
    return {{"pieces", pieces}};
}

std::vector<Language> const& allLanguages() {
    static std::vector<Language> const languages = nlohmann::json::parse(templateText("languages.json"));
    return languages;
}

Language const& languageFor(std::string const& langId) {
    std::string const tag = lowerCase(langId.substr(0, langId.find_first_of("-_")));
    for (Language const& language : allLanguages()) {
        if (language["tag"] == tag) {
            return language;
        }
    }
    return allLanguages().front();
}

}  // namespace sandbox
