/// The library as a merchant's program uses it: the flat functions.
#ifndef TALLOWIN_BENCH_MERCHANT_H
#define TALLOWIN_BENCH_MERCHANT_H

#include <cstdint>
#include <string>

#include "tallowin/tallowin.h"

namespace kvxbench {

/// A factory for one configuration directory. Failures throw std::runtime_error. One thread at a time.
class Merchant {
public:
    explicit Merchant(std::string const& directory);
    Merchant(Merchant const&) = delete;
    Merchant& operator=(Merchant const&) = delete;
    ~Merchant();

    /// The borrowed handle.
    [[nodiscard]] KVX_HANDLE factory() const { return m_Factory; }

    /// A new payment of the order, with 15 attributes. Owned by the caller.
    [[nodiscard]] KVX_HANDLE payment() const;

    /// The URL of a new payment of the order.
    [[nodiscard]] std::string paymentUrl() const;

    /// The URL of `message`, which takes at most `size` bytes.
    static std::string urlOf(KVX_HANDLE message, std::int32_t size);

private:
    KVX_HANDLE m_Factory;
};

/// `url` without the parts that differ each time: token, expiry, signature. Ends with the length of all.
std::string maskedUrl(std::string url);

}  // namespace kvxbench

#endif
