#include "printable.h"

#include <tallowin/tallowin.h>

#include <cstddef>
#include <iomanip>
#include <sstream>

namespace examples {

std::string resultText(std::int32_t code) {
    if (code == KVX_OK) {
        return "0 ok";
    }
    std::ostringstream out;
    if (code > 0) {
        out << "errno " << code;
    } else {
        out << "0x" << std::hex << std::uppercase << static_cast<std::uint32_t>(code);
    }
    char text[256];
    std::int32_t size = sizeof text;
    if (KVX_GetErrorStringFromResult(code, &size, text) != 0) {
        out << ' ' << text;
    }
    return out.str();
}

std::string attributePerLine(std::string const& message) {
    std::string out;
    for (std::size_t at = 0; at < message.size(); ++at) {
        out += message[at];
        // Inside a value a quotation mark is written as an entity, so this one ends the value.
        if (message[at] == '"' && at + 1 < message.size() && message[at + 1] == ' ') {
            out += "\n    ";
        }
    }
    return out;
}

}  // namespace examples
