/// The exceptions of a call.
#ifndef TALLOWIN_TESTS_SUPPORT_EXCEPTIONS_H
#define TALLOWIN_TESTS_SUPPORT_EXCEPTIONS_H

#include <cstdint>
#include <functional>
#include <string>

namespace kvxtest {

/// The result code that `call` throws as KVX_Exception or TBFC_Exception; 0 when it throws neither.
std::int32_t thrownCode(std::function<void()> const& call);

/// The content of a KVX_Exception. All zero and empty when none was thrown.
struct Thrown {
    std::int32_t m_Code = 0;
    std::string m_Text;
    std::string m_File;
    std::int32_t m_Line = 0;
};
Thrown thrown(std::function<void()> const& call);

}  // namespace kvxtest

#endif
