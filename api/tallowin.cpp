// The flat functions without a handle: the version, the names and the texts of result codes, and the
// reason of the last failure.

#include <cstring>

#include "api/kvxboundary.h"
#include "core/kvxbase.h"
#include "core/kvxerrortable.h"
#include "core/kvxreason.h"
#include "tallowin/tallowin.h"

namespace {

/// Returns 1, or 0 and touches nothing when there is no text.
int copyErrorText(std::int32_t code, std::int32_t* size, char* buffer) {
    TbString text;
    if (!KVX_ErrorLookup::GetErrorStringFromResult(code, text)) {
        return 0;
    }
    // Deliberate (null-size-unknown-code): a null size gives the result of an unknown code.
    if (size == nullptr) {
        return 0;
    }
    auto const need = static_cast<std::int32_t>(text.length()) + 1;
    if (*size > 0 && buffer != nullptr) {
        std::int32_t const copied = *size > need ? need - 1 : *size - 1;
        std::memcpy(buffer, text.c_str(), static_cast<std::size_t>(copied));
        buffer[copied] = '\0';
    }
    *size = need;
    return 1;
}

}  // namespace

char const* KVX_GetVersion() {
    return TALLOWIN_VERSION_STRING;
}

char const* KVX_GetErrorName(int32_t code) {
    return kvxErrorName(code);
}

int32_t KVX_GetLastErrorText(int32_t* size, char* buffer) {
    if (kvxLastFailure() == KVX_OK) {
        return KVX_E_NOT_FOUND;
    }
    KvxPlainReason room;
    return kvxCopyOut(kvxLastReason(room), size, buffer);
}

int KVX_GetErrorStringFromResult(int32_t code, int32_t* size, char* buffer) {
    int copied = 0;
    kvxGuard([&] {
        copied = copyErrorText(code, size, buffer);
        return KVX_OK;
    });
    return copied;
}
