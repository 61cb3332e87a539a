#include "ledger/json.h"

namespace ledger {

std::string jsonText(std::string const& text) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string json = "\"";
    for (char const byte : text) {
        auto const value = static_cast<unsigned char>(byte);
        if (byte == '"' || byte == '\\') {
            json += '\\';
            json += byte;
        } else if (value < 0x20 || value > 0x7E) {
            json += "\\u00";
            json += kDigits[value >> 4U];
            json += kDigits[value & 15U];
        } else {
            json += byte;
        }
    }
    return json + "\"";
}

JsonWriter& JsonWriter::open(char bracket) {
    separate();
    m_Json += bracket;
    m_NeedsComma = false;
    return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
    m_Json += bracket;
    m_NeedsComma = true;
    return *this;
}

JsonWriter& JsonWriter::name(char const* name) {
    separate();
    m_Json += jsonText(name) + ": ";
    m_NeedsComma = false;
    return *this;
}

JsonWriter& JsonWriter::raw(std::string const& json) {
    separate();
    m_Json += json;
    m_NeedsComma = true;
    return *this;
}

void JsonWriter::separate() {
    if (m_NeedsComma) {
        m_Json += ", ";
    }
}

}  // namespace ledger
