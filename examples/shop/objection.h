#ifndef TALLOWIN_EXAMPLES_SHOP_OBJECTION_H
#define TALLOWIN_EXAMPLES_SHOP_OBJECTION_H

#include <exception>
#include <string>
#include <utility>
#include <vector>

namespace storefront {

/// What a call of the library did, for the pages that show what happens underneath.
struct Call {
    std::string m_Function;
    std::string m_Result;  ///< Code and text.
};

using Calls = std::vector<Call>;

/// A request that the shop does not carry out. The page for it says what and why.
class Objection : public std::exception {
public:
    /// Whose mistake it is, as a status of HTTP.
    enum Fault { kVisitor = 400, kUnknown = 404, kShop = 500, kBusy = 503 };

    Objection(std::string title, std::string reason, Calls calls = {}, Fault fault = kVisitor)
        : m_Title(std::move(title)), m_Reason(std::move(reason)), m_Calls(std::move(calls)), m_Fault(fault) {}

    [[nodiscard]] char const* what() const noexcept override { return m_Reason.c_str(); }

    [[nodiscard]] std::string const& title() const { return m_Title; }

    /// Whole sentences. May hold zero bytes, when it quotes what came.
    [[nodiscard]] std::string const& reason() const { return m_Reason; }

    [[nodiscard]] Calls const& calls() const { return m_Calls; }
    [[nodiscard]] Fault fault() const { return m_Fault; }

private:
    std::string m_Title;
    std::string m_Reason;
    Calls m_Calls;  ///< What the library said, may be empty.
    Fault m_Fault;
};

}  // namespace storefront

#endif
