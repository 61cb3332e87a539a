/// Looking up host names. Internal: not installed.
#ifndef TALLOWIN_NET_KVXLOOKUP_H
#define TALLOWIN_NET_KVXLOOKUP_H

#include <cstdint>

#include "net/kvxwait.h"

/// What is known about a name.
struct KvxLookup {
    enum class Outcome {
        kFound,
        kNoAddress,  ///< The name is known.
        kUnknown,
        kLate,  ///< Nothing was known at the deadline.
    };

    Outcome m_Outcome = Outcome::kUnknown;
    std::uint32_t m_Address = 0;  ///< The first one, in network byte order, when found.
};

/// Looks `host` up on the calling thread. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception), also when the system's resolver
/// lacks memory. Blocks.
[[nodiscard]] KvxLookup kvxLookUp(char const* host);

/// The same, but not after `end`. The system's resolver cannot be interrupted, so a thread of its own runs it, detached
/// and with all signals blocked; at the deadline that thread is left to itself and ends when the resolver returns.
/// A thread that cannot be started counts as lack of memory.
[[nodiscard]] KvxLookup kvxLookUp(char const* host, KvxDeadline const& end);

#endif
