#include "core/kvxcause.h"

#include <cstdio>
#include <cstring>

KvxCause& KvxCause::put(char const* text) noexcept {
    for (; *text != '\0' && m_Length < kMaxLength; ++text) {
        bool const isControl = static_cast<unsigned char>(*text) < ' ' || *text == '\x7F';
        m_Text[m_Length++] = isControl ? '?' : *text;
    }
    m_Text[m_Length] = '\0';
    return *this;
}

KvxCause& KvxCause::put(TbString const& text) noexcept {
    return put(text.isSecret() ? "(not shown)" : text.c_str());
}

KvxCause& KvxCause::put(long number) noexcept {
    char digits[24];
    std::snprintf(digits, sizeof digits, "%ld", number);
    return put(digits);
}

KvxCause& KvxCause::putSystem(int error) noexcept {
    char const* const words = ::strerrordesc_np(error);  // the same in every locale, and needs no memory
    return words == nullptr ? put("error ").put(static_cast<long>(error)) : put(words);
}

KvxCause kvxFileCause(TbString const& directory, TbString const& file, int error) noexcept {
    KvxCause cause;
    cause.put(directory).put("/").put(file.c_str()).put(": ").putSystem(error);
    return cause;
}

KvxCause kvxFileCause(TbString const& directory, TbString const& file, char const* words) noexcept {
    KvxCause cause;
    cause.put(directory).put("/").put(file.c_str()).put(words);
    return cause;
}

KvxCause kvxFileCause(TbString const& path, int error) noexcept {
    KvxCause cause;
    cause.put(path).put(": ").putSystem(error);
    return cause;
}
