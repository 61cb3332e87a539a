#include "net/kvxhttp_errno.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(BsdErrno, GivesSocketErrorsTheirPublishedNumbers) {
    struct {
        int m_Number;
        int m_Bsd;
    } const cases[] = {
        {EAGAIN, 35},          {EWOULDBLOCK, 35},  {EINPROGRESS, 36},  {EALREADY, 37},     {ENOTSOCK, 38},
        {EDESTADDRREQ, 39},    {EMSGSIZE, 40},     {EPROTOTYPE, 41},   {ENOPROTOOPT, 42},  {EPROTONOSUPPORT, 43},
        {ESOCKTNOSUPPORT, 44}, {EOPNOTSUPP, 45},   {EPFNOSUPPORT, 46}, {EAFNOSUPPORT, 47}, {EADDRINUSE, 48},
        {EADDRNOTAVAIL, 49},   {ENETDOWN, 50},     {ENETUNREACH, 51},  {ENETRESET, 52},    {ECONNABORTED, 53},
        {ECONNRESET, 54},      {ENOBUFS, 55},      {EISCONN, 56},      {ENOTCONN, 57},     {ESHUTDOWN, 58},
        {ETOOMANYREFS, 59},    {ETIMEDOUT, 60},    {ECONNREFUSED, 61}, {ELOOP, 62},        {ENAMETOOLONG, 63},
        {EHOSTDOWN, 64},       {EHOSTUNREACH, 65},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(BsdErrno(row.m_Number), row.m_Bsd) << row.m_Number;
    }
}

TEST(BsdErrno, PassesNumbersThatAreTheSameEverywhereOrUnknown) {
    for (int const number :
         {0, EPERM, EINTR, EIO, EBADF, ENOMEM, EACCES, EFAULT, EINVAL, ENFILE, EMFILE, EPIPE, 4000}) {
        EXPECT_EQ(BsdErrno(number), number);
    }
}

}  // namespace
