/// The order that every contestant pays.
#ifndef TALLOWIN_BENCH_ORDER_H
#define TALLOWIN_BENCH_ORDER_H

namespace kvxbench {

struct Field {
    char const* m_Name;
    char const* m_Value;
};

/// Its fields. With KEYID, TOKEN, EXPIRATION and the defaults of the account they make 15 attributes.
inline constexpr Field kOrder[] = {
    {"AMOUNT", "1250"}, {"CURRENCY", "EUR"}, {"ORDERID", "A & B 4711"}, {"DESCRIPTION", "Tea"}};

}  // namespace kvxbench

#endif
