/// Percent-encoding of one byte, for messages and for URLs. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXPERCENT_H
#define TALLOWIN_CORE_KVXPERCENT_H

#include <cctype>
#include <cstdint>

/// `byte` as it is when the current locale calls it a letter or a digit, else "%" and two lower-case hexadecimal
/// digits.
struct KvxPercentEncoded {
    explicit KvxPercentEncoded(unsigned char byte) {
        constexpr char kDigits[] = "0123456789abcdef";
        if (std::isalnum(byte) != 0) {
            m_Text[0] = static_cast<char>(byte);
            m_Length = 1;
            return;
        }
        m_Text[0] = '%';
        m_Text[1] = kDigits[byte >> 4];
        m_Text[2] = kDigits[byte & 0x0F];
        m_Length = 3;
    }

    char m_Text[3];          ///< Not terminated.
    std::uint32_t m_Length;  ///< 1 or 3.
};

#endif
