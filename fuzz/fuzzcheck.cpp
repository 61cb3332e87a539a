#include "fuzz/fuzzcheck.h"

#include <cstdio>
#include <cstdlib>

#include "core/kvxbase.h"
#include "foundation/tbexception.h"

namespace kvxfuzz {

namespace {

std::string printable(std::string const& text) {
    std::string result;
    for (char const character : text) {
        char piece[5] = {character};
        if (character < ' ' || character > '~' || character == '\\') {
            std::snprintf(piece, sizeof piece, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(character)));
        }
        result += piece;
    }
    return result;
}

[[noreturn]] void fail(std::string const& message) {
    std::fprintf(stderr, "\n%s\n", message.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace

void require(bool holds, char const* rule) {
    if (!holds) {
        fail(rule);
    }
}

void requireEqual(std::string const& library, std::string const& model, char const* rule) {
    if (library != model) {
        fail(std::string(rule) + "\n  library: " + printable(library) + "\n  model:   " + printable(model));
    }
}

void requireEqual(std::int64_t library, std::int64_t model, char const* rule) {
    if (library != model) {
        fail(std::string(rule) + "\n  library: " + std::to_string(library) + "\n  model:   " + std::to_string(model));
    }
}

std::string textOf(TbString const& text) {
    return {text.c_str(), text.length()};
}

TbString tbText(std::string const& text) {
    TbString result("");
    result.append(text.data(), static_cast<std::uint32_t>(text.size()));
    return result;
}

std::string upToZero(std::string const& text) {
    return text.substr(0, text.find('\0'));
}

std::int32_t codeOf(std::function<void()> const& call) {
    try {
        call();
    } catch (KVX_Exception const& failure) {
        return failure.code();
    } catch (TBFC_Exception const& failure) {
        return failure.code();
    }
    return KVX_OK;
}

}  // namespace kvxfuzz
