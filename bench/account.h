/// A prepared configuration directory.
#ifndef TALLOWIN_BENCH_ACCOUNT_H
#define TALLOWIN_BENCH_ACCOUNT_H

#include <string>

namespace kvxbench {

/// The directory of a merchant who has been set up, in a temporary place; removed at the end.
class Account {
public:
    Account();
    Account(Account const&) = delete;
    Account& operator=(Account const&) = delete;
    ~Account();

    [[nodiscard]] std::string const& path() const { return m_Path; }

    /// The identifier of the merchant's own key pair, which "keys/current" names.
    static char const* const kOwnKey;

    /// The identifier of the server's key pair. Its private half lies here too, for making confirmations.
    static char const* const kServerKey;

private:
    void write(std::string const& name, std::string const& content) const;
    void writeKeyPair(std::string const& keyId) const;

    std::string m_Path;
};

}  // namespace kvxbench

#endif
