#ifndef TALLOWIN_EXAMPLES_DEMO_SHOP_H
#define TALLOWIN_EXAMPLES_DEMO_SHOP_H

#include <memory>
#include <string>

namespace demo {

/// What a shopper brought along to one of the shop's pages, percent-decoded.
struct Visit {
    std::string m_Path;
    std::string m_Data;
    std::string m_Signature;
};

/// The shop's own web server on a free port of 127.0.0.1, to which shoppers come back. It answers every page and keeps
/// the latest visit.
class Shop {
public:
    /// Listens. Throws std::runtime_error when that is not possible.
    Shop();
    ~Shop();
    Shop(Shop const&) = delete;
    Shop& operator=(Shop const&) = delete;

    /// The address of a page, such as "/paid".
    [[nodiscard]] std::string link(std::string const& path) const;

    /// The latest visit. Any thread.
    [[nodiscard]] Visit latest() const;

private:
    class Server;

    std::unique_ptr<Server> m_Server;
};

}  // namespace demo

#endif
