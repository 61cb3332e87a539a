#include "foundation/tbobject.h"
#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* bytes, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* bytes, std::size_t size) {
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    kvxfuzz::runTarget(kvxfuzz::Input(bytes, size));
    kvxfuzz::requireEqual(TbRefCounter::m_nTotalRef, living, "every object of the run is gone at its end");
    return 0;
}
