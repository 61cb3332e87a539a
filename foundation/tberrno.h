/// Keeping `errno`. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBERRNO_H
#define TALLOWIN_FOUNDATION_TBERRNO_H

#include <cerrno>

/// Leaves `error` in `errno` at its end, whatever the calls before that do.
class TbErrnoKeeper {
public:
    explicit TbErrnoKeeper(int error = errno) noexcept : m_Error(error) {}
    TbErrnoKeeper(TbErrnoKeeper const&) = delete;
    TbErrnoKeeper& operator=(TbErrnoKeeper const&) = delete;
    ~TbErrnoKeeper() { errno = m_Error; }

private:
    int m_Error;
};

#endif
