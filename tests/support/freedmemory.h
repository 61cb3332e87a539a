/// Looks for credentials in memory that the library gives back.
#ifndef TALLOWIN_TESTS_SUPPORT_FREEDMEMORY_H
#define TALLOWIN_TESTS_SUPPORT_FREEDMEMORY_H

namespace kvxtest {

/// Credentials that occur nowhere else. The password has a character that percent-encoding changes.
inline constexpr char kCanaryUser[] = "uQxZuser";
inline constexpr char kCanaryPassword[] = "S3cret-Canary";

/// While it lives, every block that the library releases or reallocates is searched for parts of the credentials above:
/// as they are, percent-encoded and in Base64. One at a time.
class FreedMemory {
public:
    FreedMemory();
    FreedMemory(FreedMemory const&) = delete;
    FreedMemory& operator=(FreedMemory const&) = delete;
    ~FreedMemory();

    /// How many blocks had a part of them.
    [[nodiscard]] static int leaks();

    /// How many blocks have been searched.
    [[nodiscard]] static int searched();
};

}  // namespace kvxtest

#endif
