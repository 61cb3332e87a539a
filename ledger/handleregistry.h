/// The living handles of the ledger's objects.
///
/// A handle is the address of its object. Any thread may ask; the lock is taken around fork(), so that a child of a
/// process with many threads can ask too.
#ifndef TALLOWIN_LEDGER_HANDLEREGISTRY_H
#define TALLOWIN_LEDGER_HANDLEREGISTRY_H

#include "tallowin/tallowin.h"

namespace ledger {

enum class Kind { kLedger, kOrder };

/// Throws std::bad_alloc.
void addHandle(KVX_HANDLE handle, Kind kind);

/// False when `handle` is no living object of this kind.
bool isLiving(KVX_HANDLE handle, Kind kind) noexcept;

/// Removes the handle; false when it is no living object of this kind.
bool removeHandle(KVX_HANDLE handle, Kind kind) noexcept;

}  // namespace ledger

#endif
