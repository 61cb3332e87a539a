/// What the sources of kvxhttp share. Internal: not installed.
#ifndef TALLOWIN_NET_KVXHTTP_INTERNAL_H
#define TALLOWIN_NET_KVXHTTP_INTERNAL_H

#include <csignal>
#include <cstdint>
#include <memory>

#include "foundation/tbmemory.h"
#include "foundation/tbstring.h"

struct sockaddr;

/// The number that BSD systems give to the system's error `number`. Numbers without a place among the socket errors
/// pass as they are.
[[nodiscard]] int BsdErrno(int number) noexcept;

/// Reads a number as `atoi` does (white space, one sign, digits; 0 without digits), but a number that does not fit
/// becomes INT32_MAX or INT32_MIN.
[[nodiscard]] std::int32_t DecimalNumber(char const* text) noexcept;

/// Keeps a write to a closed peer from raising SIGPIPE, for the calling thread alone: blocked while this lives, and one
/// that came up meanwhile is taken away. Leaves `errno` alone.
class SigPipeGuard {
public:
    SigPipeGuard() noexcept;
    SigPipeGuard(SigPipeGuard const&) = delete;
    SigPipeGuard& operator=(SigPipeGuard const&) = delete;
    ~SigPipeGuard();

private:
    sigset_t m_Before;         ///< The thread's mask as found.
    bool m_WasPending = true;  ///< Somebody else's signal is left in place.
};

struct TbMemoryReleaser {
    void operator()(char* memory) const noexcept { tbRelease(memory); }
};
using TbMemoryHolder = std::unique_ptr<char, TbMemoryReleaser>;

/// `bytes` bytes; raises KVX_E_OUT_OF_MEMORY (TBFC_Exception).
[[nodiscard]] TbMemoryHolder HoldMemory(std::size_t bytes);

/// The bytes to send for `text`: all of it, with zeros from its first zero byte on.
[[nodiscard]] TbMemoryHolder CopyForSending(TbString const& text);

/// Connects `socket` to `address`; -1 and `errno` on failure. A signal does not end it.
[[nodiscard]] int ConnectSocket(int socket, sockaddr const* address) noexcept;

/// A new TCP socket, closed on exec; -1 and `errno` on failure.
[[nodiscard]] int MakeSocket() noexcept;

#endif
