// Reads pages for tests: markup through pugixml and XPath, the style sheet with a small parser of rules and @media
// blocks. At the end: contrast of colours, and a check of UTF-8 for HTML. It shares no code with the service.
#include "tests/sandbox/support/pagereader.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace sandboxtest {

namespace {

constexpr char kDocumentType[] = "<!DOCTYPE html>\n";

std::string trimmed(std::string const& text) {
    constexpr char kSpace[] = " \t\n";
    std::size_t const from = text.find_first_not_of(kSpace);
    return from == std::string::npos ? "" : text.substr(from, text.find_last_not_of(kSpace) + 1 - from);
}

std::string textOf(pugi::xpath_node const& node) {
    return node.attribute() ? node.attribute().value() : pugi::xpath_query("string(.)").evaluate_string(node);
}

std::map<std::string, std::string> readDeclarations(std::string const& text) {
    std::map<std::string, std::string> declarations;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t const end = std::min(text.find(';', at), text.size());
        std::string const declaration = trimmed(text.substr(at, end - at));
        std::size_t const colon = declaration.find(':');
        if (colon == std::string::npos) {
            throw std::runtime_error("no declaration: '" + declaration + "'");
        }
        if (!declarations.emplace(trimmed(declaration.substr(0, colon)), trimmed(declaration.substr(colon + 1)))
                 .second) {
            throw std::runtime_error("declared twice: '" + declaration + "'");
        }
        at = end + 1;
    }
    return declarations;
}

/// Where the block ends whose "{" is at `open`.
std::size_t blockEnd(std::string const& text, std::size_t open) {
    std::size_t depth = 1;
    std::size_t at = open;
    while (depth > 0) {
        at = text.find_first_of("{}", at + 1);
        if (at == std::string::npos) {
            throw std::runtime_error("a block without an end: '" + text.substr(open) + "'");
        }
        depth = text[at] == '{' ? depth + 1 : depth - 1;
    }
    return at;
}

void readRules(std::string const& text, std::string const& media, std::vector<StyleRule>& rules) {
    constexpr char kMedia[] = "@media ";
    std::size_t at = 0;
    while (!trimmed(text.substr(at)).empty()) {
        std::size_t const open = text.find('{', at);
        if (open == std::string::npos) {
            throw std::runtime_error("no rule: '" + text.substr(at) + "'");
        }
        std::size_t const end = blockEnd(text, open);
        std::string const head = trimmed(text.substr(at, open - at));
        std::string const block = text.substr(open + 1, end - open - 1);
        if (head.compare(0, sizeof kMedia - 1, kMedia) == 0) {
            readRules(block, trimmed(head.substr(sizeof kMedia - 1)), rules);
        } else {
            rules.push_back({media, head, readDeclarations(block)});
        }
        at = end + 1;
    }
}

/// The part of a colour, as the standard makes it linear.
double linearPart(std::string const& colour, std::size_t at) {
    double const part = std::stoi(colour.substr(at, 2), nullptr, 16) / 255.0;
    return part <= 0.04045 ? part / 12.92 : std::pow((part + 0.055) / 1.055, 2.4);
}

double relativeLuminance(std::string const& colour) {
    if (colour.size() != 7 || colour[0] != '#' ||
        colour.find_first_not_of("0123456789abcdef", 1) != std::string::npos) {
        throw std::invalid_argument("no colour: '" + colour + "'");
    }
    return 0.2126 * linearPart(colour, 1) + 0.7152 * linearPart(colour, 3) + 0.0722 * linearPart(colour, 5);
}

}  // namespace

PageReader::PageReader(std::string const& html) {
    std::size_t const start = sizeof kDocumentType - 1;
    if (html.compare(0, start, kDocumentType) != 0) {
        throw std::runtime_error("the page does not begin with its document type");
    }
    pugi::xml_parse_result const result =
        m_Document.load_buffer(html.data() + start, html.size() - start, pugi::parse_default, pugi::encoding_utf8);
    if (!result) {
        throw std::runtime_error(std::string(result.description()) + " at byte " + std::to_string(result.offset) +
                                 " of the page");
    }
}

std::size_t PageReader::count(std::string const& path) const {
    return m_Document.select_nodes(path.c_str()).size();
}

std::string PageReader::text(std::string const& path) const {
    std::vector<std::string> const found = texts(path);
    if (found.size() != 1) {
        throw std::runtime_error(path + " is there " + std::to_string(found.size()) + " times");
    }
    return found.front();
}

std::vector<std::string> PageReader::texts(std::string const& path) const {
    pugi::xpath_node_set nodes = m_Document.select_nodes(path.c_str());
    nodes.sort();
    std::vector<std::string> found;
    for (pugi::xpath_node const& node : nodes) {
        found.push_back(textOf(node));
    }
    return found;
}

std::vector<StyleRule> readStyleSheet(std::string const& sheet) {
    std::vector<StyleRule> rules;
    readRules(sheet, "", rules);
    return rules;
}

double contrastRatio(std::string const& one, std::string const& other) {
    double const first = relativeLuminance(one);
    double const second = relativeLuminance(other);
    return (std::max(first, second) + 0.05) / (std::min(first, second) + 0.05);
}

bool isCleanUtf8(std::string const& text) {
    std::size_t at = 0;
    while (at < text.size()) {
        auto const lead = static_cast<unsigned char>(text[at]);
        std::size_t const more = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        if ((lead >= 0x80 && lead < 0xC0) || lead >= 0xF8 || text.size() - at <= more) {
            return false;
        }
        std::uint32_t value = more == 0 ? lead : lead & (0x3FU >> more);
        for (std::size_t i = 1; i <= more; ++i) {
            auto const byte = static_cast<unsigned char>(text[at + i]);
            if ((byte & 0xC0) != 0x80) {
                return false;
            }
            value = value << 6 | (byte & 0x3FU);
        }
        constexpr std::array<std::uint32_t, 4> kMin = {0, 0x80, 0x800, 0x10000};
        bool const control = (value < 0x20 && value != '\n' && value != '\t') || (value >= 0x7F && value < 0xA0);
        bool const surrogate = value >= 0xD800 && value <= 0xDFFF;
        bool const outside = value < kMin[more] || value > 0x10FFFF || value == 0xFFFE || value == 0xFFFF;
        if (control || surrogate || outside) {
            return false;
        }
        at += more + 1;
    }
    return true;
}

}  // namespace sandboxtest
