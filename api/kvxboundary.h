/// The boundary of the flat functions: handles, exceptions, copied texts. Internal: not installed.
#ifndef TALLOWIN_API_KVXBOUNDARY_H
#define TALLOWIN_API_KVXBOUNDARY_H

#include <cxxabi.h>

#include <cassert>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

#include "api/kvxhandle.h"
#include "core/kvxbase.h"
#include "core/kvxreason.h"
#include "foundation/tbexception.h"
#include "foundation/tbstring.h"
#include "tallowin/tallowin.h"

/// Runs `call` and returns its code. An exception becomes a code: a KVX_Exception or TBFC_Exception its own, lack of
/// memory KVX_E_OUT_OF_MEMORY, any other KVX_E_UNEXPECTED. Only the cancellation of a thread passes. A failure is
/// recorded as the thread's last one.
template <class Call>
std::int32_t kvxGuard(Call call) {
    try {
        std::int32_t const code = call();
        return code == KVX_OK ? KVX_OK : kvxRecordFailure(code);
    } catch (KVX_Exception const& failure) {
        kvxRecordFailure(failure);
        return failure.code();
    } catch (TBFC_Exception const& failure) {
        return kvxRecordFailure(failure.code());
    } catch (std::bad_alloc const&) {
        return kvxRecordFailure(KVX_E_OUT_OF_MEMORY);
    } catch (abi::__forced_unwind const&) {
        throw;  // the C library ends the process when a cancellation is stopped
    } catch (...) {
        return kvxRecordFailure(KVX_E_UNEXPECTED);
    }
}

/// Refuses a handle that is no living `Object`, runs `call` with the object and returns its code or that of its
/// exception.
template <class Object, class Call>
std::int32_t kvxCall(KVX_HANDLE handle, Call call) {
    if (!kvxIsLiving(Object::kKind, handle)) {
        return kvxRecordFailure(KVX_E_BAD_HANDLE);
    }
    return kvxGuard([&] { return call(*static_cast<Object*>(handle)); });
}

/// The same for a `call` without a result.
template <class Object, class Call>
std::int32_t kvxRun(KVX_HANDLE handle, Call call) {
    return kvxCall<Object>(handle, [&](Object& object) {
        call(object);
        return KVX_OK;
    });
}

/// The same for a `call` that makes an object, stored in `*out`; on failure `*out` is left alone.
template <class Object, class Call>
std::int32_t kvxMake(KVX_HANDLE handle, KVX_HANDLE* out, Call call) {
    return kvxCall<Object>(handle, [&](Object& object) {
        KVX_HANDLE const made = call(object);
        assert(out != nullptr);
        *out = made;
        return KVX_OK;
    });
}

/// A new object's handle; null when memory is exhausted.
template <class Object>
KVX_HANDLE kvxCreate() {
    KVX_HANDLE made = nullptr;
    kvxGuard([&] {
        made = new Object;
        return KVX_OK;
    });
    return made;
}

/// Deletes an object that the caller has claimed for destruction.
template <class Object>
void kvxDeleteClaimed(KVX_HANDLE object) {
    delete static_cast<Object*>(object);
}

/// Destroys a living object of the kind; ignores all other handles.
template <class Object>
void kvxDestroy(KVX_HANDLE handle) {
    if (kvxClaimForDestruction(Object::kKind, handle)) {
        kvxDeleteClaimed<Object>(handle);  // destructors throw nothing
    }
}

/// A secret copy of the caller's text, which may hold credentials. Null counts as "".
inline TbString kvxSecretText(char const* text) {
    TbString secret("");
    secret.keepSecret();
    secret.append(text);
    return secret;
}

/// Copies `text`, terminator included, into the caller's buffer.
inline std::int32_t kvxCopyOut(char const* text, std::int32_t* size, char* buffer) {
    std::size_t const need = std::strlen(text) + 1;
    if (size == nullptr) {
        return KVX_E_BUFFER_TOO_SMALL;
    }
    if (need > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        return KVX_E_OUT_OF_MEMORY;
    }
    bool const fits = *size >= static_cast<std::int32_t>(need);
    if (fits && buffer != nullptr) {
        std::memcpy(buffer, text, need);
    }
    *size = static_cast<std::int32_t>(need);
    return fits ? KVX_OK : KVX_E_BUFFER_TOO_SMALL;
}

#endif
