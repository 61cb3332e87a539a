#include "tests/support/tbtext.h"

#include <cstdint>

namespace kvxtest {

std::string bytesOf(TbString const& text) {
    return {text.c_str(), text.length()};
}

TbString stringOf(std::string const& bytes) {
    TbString text("");
    text.append(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    return text;
}

}  // namespace kvxtest
