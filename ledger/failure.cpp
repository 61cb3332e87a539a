#include "ledger/failure.h"

#include <new>

#include "tallowin/tallowin.h"

namespace ledger {

namespace {

/// What a thread knows about its last failure.
struct LastFailure {
    bool m_HasFailed = false;
    std::string m_Reason;
};

thread_local LastFailure t_Last;

}  // namespace

void noteFailure(std::int32_t code, char const* reason) noexcept {
    t_Last.m_HasFailed = true;
    try {
        t_Last.m_Reason = std::string(KVX_GetErrorName(code)) + ": " + reason;
    } catch (std::bad_alloc const&) {
        t_Last.m_Reason.clear();
    }
}

char const* lastFailure() noexcept {
    return t_Last.m_HasFailed ? t_Last.m_Reason.c_str() : nullptr;
}

}  // namespace ledger
