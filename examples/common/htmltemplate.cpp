#include "htmltemplate.h"

#include <cstddef>
#include <string_view>

namespace examples {

namespace {

std::string escaped(std::string const& text) {
    std::string out;
    for (char const character : text) {
        bool const isPlain = (character >= ' ' && character <= '~') || character == '\n';
        bool const isMarkup = std::string_view("&<>\"'").find(character) != std::string_view::npos;
        auto const number = static_cast<unsigned char>(character);
        out += isPlain && !isMarkup ? std::string(1, character) : "&#" + std::to_string(number) + ";";
    }
    return out;
}

}  // namespace

std::string filled(std::string const& text, Values const& values) {
    std::string out;
    std::size_t at = 0;
    for (std::size_t open = text.find('{'); open != std::string::npos; open = text.find('{', at)) {
        std::size_t const close = text.find('}', open);
        bool const isHtml = text[open + 1] == '!';
        std::size_t const name = isHtml ? open + 2 : open + 1;
        std::string const& value = values.at(text.substr(name, close - name));
        out += text.substr(at, open - at) + (isHtml ? value : escaped(value));
        at = close + 1;
    }
    return out + text.substr(at);
}

std::string filledForEach(std::string const& text, std::vector<Values> const& rows) {
    std::string out;
    for (Values const& row : rows) {
        out += filled(text, row);
    }
    return out;
}

}  // namespace examples
