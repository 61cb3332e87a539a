#include "foundation/tbsystem.h"

#ifdef KVX_TEST_SEAMS
TbSystemCalls& tbSystem() noexcept {
    static TbSystemCalls calls;
    return calls;
}
#endif
