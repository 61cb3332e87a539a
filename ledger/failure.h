/// How functions of the ledger fail, and what the thread can read about it afterwards.
#ifndef TALLOWIN_LEDGER_FAILURE_H
#define TALLOWIN_LEDGER_FAILURE_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace ledger {

/// A function failed: its result code and the reason in words. The reason holds no password and no private key.
class Failure : public std::runtime_error {
public:
    Failure(std::int32_t code, std::string const& reason) : std::runtime_error(reason), m_Code(code) {}

    [[nodiscard]] std::int32_t code() const noexcept { return m_Code; }

private:
    std::int32_t m_Code;
};

/// Stores the reason of this thread's last failure; without memory the reason is lost, and the code stands alone.
void noteFailure(std::int32_t code, char const* reason) noexcept;

/// The reason of this thread's last failure; null when there was none.
char const* lastFailure() noexcept;

}  // namespace ledger

#endif
