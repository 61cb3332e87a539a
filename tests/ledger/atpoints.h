/// What a test does at the points at which a ledger could be ended.
#ifndef TALLOWIN_TESTS_LEDGER_ATPOINTS_H
#define TALLOWIN_TESTS_LEDGER_ATPOINTS_H

#include <functional>
#include <utility>

#include "ledger/testpoints.h"

namespace kvxtest {

/// Calls a function at each point while it lives.
class AtPoints {
public:
    explicit AtPoints(std::function<void(ledger::TestPoint)> call) {
        s_Call = std::move(call);
        ledger::g_TestPoint = [](ledger::TestPoint point) { s_Call(point); };
    }
    AtPoints(AtPoints const&) = delete;
    AtPoints& operator=(AtPoints const&) = delete;
    ~AtPoints() { ledger::g_TestPoint = nullptr; }

private:
    static inline std::function<void(ledger::TestPoint)> s_Call;
};

}  // namespace kvxtest

#endif
