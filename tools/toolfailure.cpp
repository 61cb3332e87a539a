#include "tools/toolfailure.h"

#include <tallowin/tallowin.h>

#include <cstddef>
#include <cstdio>
#include <system_error>
#include <utility>

#include "tools/codelookup.h"

namespace tool {

namespace {

/// The library's reason for this thread's last failure; empty when there is none.
std::string lastReason() {
    std::int32_t size = 0;
    KVX_GetLastErrorText(&size, nullptr);
    if (size <= 0) {
        return "";
    }
    std::string text(static_cast<std::size_t>(size), '\0');
    bool const isCopied = KVX_GetLastErrorText(&size, text.data()) == KVX_OK;
    return isCopied ? text.substr(0, static_cast<std::size_t>(size) - 1) : "";
}

}  // namespace

ToolFailure::ToolFailure(std::string const& text, std::string hint)
    : std::runtime_error(text), m_Hint(std::move(hint)) {}

ToolFailure::ToolFailure(std::string const& doing, std::int32_t code, std::string hint, bool mayHaveHappened)
    : std::runtime_error(doing + ": " + codeText(code)),
      m_Code(code),
      m_Hint(std::move(hint)),
      m_Reason(lastReason()),
      m_MayHaveHappened(mayHaveHappened) {}

ToolFailure ToolFailure::withReason(std::string const& doing, std::int32_t code, std::string reason, std::string hint,
                                    bool mayHaveHappened) {
    ToolFailure failure(doing, code, std::move(hint), mayHaveHappened);
    failure.m_Reason = std::move(reason);
    return failure;
}

void require(std::int32_t code, char const* doing) {
    if (code != KVX_OK) {
        throw ToolFailure(doing, code);
    }
}

std::string systemFailure(std::string const& doing, int error) {
    return doing + ": " + std::generic_category().message(error);
}

std::string codeNumber(std::int32_t code) {
    char digits[16];
    std::snprintf(digits, sizeof digits, code > 0 ? "%u" : "0x%08X", static_cast<unsigned>(code));
    return digits;
}

std::string codeName(std::int32_t code) {
    return KVX_GetErrorName(code);
}

std::string codeMeaning(std::int32_t code) {
    if (code > 0) {
        return std::generic_category().message(code);
    }
    char text[256];
    std::int32_t size = sizeof text;
    return KVX_GetErrorStringFromResult(code, &size, text) != 0 ? text : "";
}

std::string codeText(std::int32_t code) {
    std::string const meaning = codeMeaning(code);
    std::string const words = meaning.empty() ? labelOf(code) : meaning;
    std::string const name = codeName(code);
    std::string const text = (code > 0 ? "errno " : "") + codeNumber(code) + (name.empty() ? "" : ' ' + name);
    return words.empty() ? text : text + " (" + words + ')';
}

}  // namespace tool
