#include "tests/support/exceptions.h"

#include "core/kvxbase.h"
#include "foundation/tbexception.h"
#include "tests/support/tbtext.h"

namespace kvxtest {

std::int32_t thrownCode(std::function<void()> const& call) {
    try {
        call();
    } catch (KVX_Exception const& failure) {
        return failure.code();
    } catch (TBFC_Exception const& failure) {
        return failure.code();
    }
    return 0;
}

Thrown thrown(std::function<void()> const& call) {
    try {
        call();
    } catch (KVX_Exception const& failure) {
        return {failure.code(), bytesOf(failure.text()), bytesOf(failure.file()), failure.line()};
    }
    return {};
}

}  // namespace kvxtest
