#ifndef TALLOWIN_SANDBOX_CRYPTO_RELEASER_H
#define TALLOWIN_SANDBOX_CRYPTO_RELEASER_H

#include <unistd.h>

namespace sandbox {

/// Deleter of a handle that a C function releases.
template <auto Release>
struct Releaser {
    template <class Handle>
    void operator()(Handle* handle) const {
        Release(handle);
    }
};

/// A file descriptor that closes itself.
class Descriptor {
public:
    explicit Descriptor(int number) : m_Number(number) {}
    ~Descriptor() {
        if (m_Number >= 0) {
            ::close(m_Number);
        }
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    [[nodiscard]] int get() const { return m_Number; }

private:
    int m_Number;  ///< Negative without a file.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CRYPTO_RELEASER_H
