#include "fuzz/fuzzcheck.h"

#include <cstdio>
#include <cstdlib>
#include <set>

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

bool isPublishedCode(std::int32_t code) {
    static std::set<std::int32_t> const s_Codes = {
        KVX_OK,
        KVX_E_NO_CONTEXT,
        KVX_E_FILE_NOT_FOUND,
        KVX_E_FILE_IO,
        KVX_E_INVALID_FORMAT,
        KVX_E_BUFFER_TOO_SMALL,
        KVX_E_INVALID_URL,
        KVX_E_INVALID_OPTION,
        KVX_E_WRONG_RESPONSE,
        KVX_E_CRYPTO,
        KVX_E_NO_ENDPOINT,
        KVX_E_INVALID_KEY,
        KVX_E_COMMAND_FAILED,
        KVX_E_NOT_FOUND,
        KVX_E_NO_KEY_ID,
        KVX_E_NO_CONFIGURATION,
        KVX_E_KEY_NOT_FOUND,
        KVX_E_UNEXPECTED,
        KVX_E_SERVER_ERROR,
        KVX_E_INVALID_SIGNATURE,
        KVX_E_BAD_HANDLE,
        KVX_E_OUT_OF_MEMORY,
        KVX_E_NO_MESSAGE_TYPE,
        KVX_E_CANNOT_OPEN,
        KVX_E_MISSING_SIGNATURE,
    };
    constexpr std::int32_t kLastErrorNumber = 133;
    std::int32_t const family = code & ~0xFFF;
    bool const isErrorNumber = code > 0 && code <= kLastErrorNumber;
    return s_Codes.count(code) != 0 || isErrorNumber || family == KVX_E_HTTP_FAMILY || family == KVX_E_SOCKET_FAMILY ||
           family == KVX_E_TLS_FAMILY;
}

}  // namespace kvxfuzz
