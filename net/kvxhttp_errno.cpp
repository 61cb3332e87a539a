#include "net/kvxhttp_errno.h"

#include <cerrno>

namespace {

struct ErrnoRow {
    int m_Number;  ///< Here.
    int m_Bsd;     ///< In result codes. Published. Do not change.
};

// clang-format off
constexpr ErrnoRow kErrnoTable[] = {
    {EAGAIN,          35},  // EWOULDBLOCK is the same
    {EINPROGRESS,     36},
    {EALREADY,        37},
    {ENOTSOCK,        38},
    {EDESTADDRREQ,    39},
    {EMSGSIZE,        40},
    {EPROTOTYPE,      41},
    {ENOPROTOOPT,     42},
    {EPROTONOSUPPORT, 43},
    {ESOCKTNOSUPPORT, 44},
    {EOPNOTSUPP,      45},
    {EPFNOSUPPORT,    46},
    {EAFNOSUPPORT,    47},
    {EADDRINUSE,      48},
    {EADDRNOTAVAIL,   49},
    {ENETDOWN,        50},
    {ENETUNREACH,     51},  // has a text
    {ENETRESET,       52},
    {ECONNABORTED,    53},  // has a text
    {ECONNRESET,      54},  // has a text
    {ENOBUFS,         55},
    {EISCONN,         56},
    {ENOTCONN,        57},
    {ESHUTDOWN,       58},
    {ETOOMANYREFS,    59},
    {ETIMEDOUT,       60},  // has a text
    {ECONNREFUSED,    61},  // has a text
    {ELOOP,           62},
    {ENAMETOOLONG,    63},
    {EHOSTDOWN,       64},
    {EHOSTUNREACH,    65},
};
// clang-format on
static_assert(sizeof(kErrnoTable) / sizeof(kErrnoTable[0]) == 31);

}  // namespace

int BsdErrno(int number) noexcept {
    for (ErrnoRow const& row : kErrnoTable) {
        if (row.m_Number == number) {
            return row.m_Bsd;
        }
    }
    return number;
}

int NativeErrno(int bsdNumber) noexcept {
    for (ErrnoRow const& row : kErrnoTable) {
        if (row.m_Bsd == bsdNumber) {
            return row.m_Number;
        }
    }
    return bsdNumber;
}
