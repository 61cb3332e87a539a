/// The living handles of the ledger's objects.
///
/// A handle is a number that no other object of the process had or will have, so one of a destroyed object never means
/// another. Any thread may ask; the lock is held around fork(), so that a child of a process with many threads can ask
/// too.
#ifndef TALLOWIN_LEDGER_HANDLEREGISTRY_H
#define TALLOWIN_LEDGER_HANDLEREGISTRY_H

#include "tallowin/tallowin.h"

namespace ledger {

enum class Kind { kLedger, kOrder };

/// A new handle for `object`. Throws std::bad_alloc.
KVX_HANDLE addHandle(void* object, Kind kind);

/// The object of the handle; null when it is no living one of this kind.
void* objectOf(KVX_HANDLE handle, Kind kind) noexcept;

/// Removes the handle and returns its object; null when it is no living one of this kind.
void* removeHandle(KVX_HANDLE handle, Kind kind) noexcept;

/// The handle of an object, for as long as it lives.
class OwnHandle {
public:
    OwnHandle(void* object, Kind kind) : m_Kind(kind), m_Handle(addHandle(object, kind)) {}
    OwnHandle(OwnHandle const&) = delete;
    OwnHandle& operator=(OwnHandle const&) = delete;
    ~OwnHandle() { removeHandle(m_Handle, m_Kind); }

    [[nodiscard]] KVX_HANDLE get() const { return m_Handle; }

private:
    Kind m_Kind;
    KVX_HANDLE m_Handle;
};

}  // namespace ledger

#endif
