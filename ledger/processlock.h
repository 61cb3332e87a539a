/// The lock of the tables that all handles of a process share.
#ifndef TALLOWIN_LEDGER_PROCESSLOCK_H
#define TALLOWIN_LEDGER_PROCESSLOCK_H

#include <mutex>

namespace ledger {

/// Held around fork(), so that a child of a process with many threads can take it too.
std::mutex& processLock();

}  // namespace ledger

#endif
