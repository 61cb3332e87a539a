/// Error numbers of sockets in result codes. Internal: not installed.
#ifndef TALLOWIN_NET_KVXHTTP_ERRNO_H
#define TALLOWIN_NET_KVXHTTP_ERRNO_H

/// The number that BSD systems give to the system's error `number`. Numbers that are no socket errors pass unchanged.
/// Deliberate (bsd-error-numbers): result codes are the same on every system.
[[nodiscard]] int BsdErrno(int number) noexcept;

/// The inverse.
[[nodiscard]] int NativeErrno(int bsdNumber) noexcept;

#endif
