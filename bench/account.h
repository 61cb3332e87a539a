/// A prepared configuration directory.
#ifndef TALLOWIN_BENCH_ACCOUNT_H
#define TALLOWIN_BENCH_ACCOUNT_H

#include <string>

namespace kvxbench {

/// The configuration directory of a merchant after set-up, in a temporary directory; removed by the destructor.
class Account {
public:
    Account();
    Account(Account const&) = delete;
    Account& operator=(Account const&) = delete;
    ~Account();

    [[nodiscard]] std::string const& path() const { return m_Path; }

    /// The key id of the merchant's own key pair, which is also in "keys/current".
    static char const* const kOwnKey;

    /// The key id of the server's key pair. Its private key is in the directory too, to sign confirmations.
    static char const* const kServerKey;

private:
    void write(std::string const& name, std::string const& content) const;
    void writeKeyPair(std::string const& keyId) const;

    std::string m_Path;
};

}  // namespace kvxbench

#endif
