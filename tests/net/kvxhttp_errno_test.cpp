#include <gtest/gtest.h>

#include <cerrno>

#include "net/kvxhttp_internal.h"

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

TEST(DecimalNumber, ReadsATable) {
    struct {
        char const* m_Text;
        std::int32_t m_Number;
    } const cases[] = {
        {"200", 200},
        {"200 OK", 200},
        {"200OK", 200},
        {"   200", 200},
        {"\t\n\v\f\r 7", 7},
        {"+5", 5},
        {"-5", -5},
        {"007", 7},
        {"", 0},
        {"OK", 0},
        {"- 5", 0},
        {"--5", 0},
        {"+", 0},
        {"0x10", 0},
        {"2147483647", 2147483647},
        {"2147483648", 2147483647},  // saturates
        {"4294967496", 2147483647},  // is not 200
        {"99999999999999999999999999", 2147483647},
        {"-2147483648", INT32_MIN},
        {"-99999999999999999999999999", INT32_MIN},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(DecimalNumber(row.m_Text), row.m_Number) << '"' << row.m_Text << '"';
    }
}

}  // namespace
