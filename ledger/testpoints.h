/// The points at which tests end a process. Outside of tests they are nothing.
#ifndef TALLOWIN_LEDGER_TESTPOINTS_H
#define TALLOWIN_LEDGER_TESTPOINTS_H

namespace ledger {

enum class TestPoint { kBeforeChange, kBeforeCommit, kAfterCommit, kBeforeSending, kAfterSending, kFileStep };

#ifdef KVX_TEST_SEAMS
/// Called at each point; null: nothing is called.
inline void (*g_TestPoint)(TestPoint) = nullptr;

inline void reached(TestPoint point) {
    if (g_TestPoint != nullptr) {
        g_TestPoint(point);
    }
}
#else
inline void reached(TestPoint) {}
#endif

}  // namespace ledger

#endif
