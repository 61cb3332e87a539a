#include "core/kvxsource.h"

void KvxSource::failBecause(char const* words, std::int32_t code, long line, TbString const& detail) const {
    KvxCause cause;
    cause.put(words);
    failBecause(cause, code, line, detail);
}
