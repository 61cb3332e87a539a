#ifndef TALLOWIN_SANDBOX_CRYPTO_FILEDESCRIPTOR_H
#define TALLOWIN_SANDBOX_CRYPTO_FILEDESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
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

/// What a call has returned. Throws std::runtime_error when it is no descriptor, with `what` and the system's reason.
inline FileDescriptor checkedDescriptor(int number, std::string const& what) {
    if (number < 0) {
        throw std::runtime_error(what + ": " + std::generic_category().message(errno));
    }
    return FileDescriptor(number);
}

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CRYPTO_FILEDESCRIPTOR_H
