#ifndef TALLOWIN_SANDBOX_CRYPTO_FILEDESCRIPTOR_H
#define TALLOWIN_SANDBOX_CRYPTO_FILEDESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace sandbox {

/// A file descriptor that closes itself.
class FileDescriptor {
public:
    explicit FileDescriptor(int number) : m_Number(number) {}
    ~FileDescriptor() {
        if (m_Number >= 0) {
            ::close(m_Number);
        }
    }
    FileDescriptor(FileDescriptor&& other) noexcept : m_Number(std::exchange(other.m_Number, -1)) {}
    FileDescriptor& operator=(FileDescriptor&&) = delete;
    FileDescriptor(FileDescriptor const&) = delete;
    FileDescriptor& operator=(FileDescriptor const&) = delete;

    [[nodiscard]] int get() const { return m_Number; }

private:
    int m_Number;  ///< Negative without a file.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CRYPTO_FILEDESCRIPTOR_H
