#ifndef TALLOWIN_SANDBOX_CRYPTO_RELEASER_H
#define TALLOWIN_SANDBOX_CRYPTO_RELEASER_H

namespace sandbox {

/// Deleter of a handle that a C function releases.
template <auto Release>
struct Releaser {
    template <class Handle>
    void operator()(Handle* handle) const {
        Release(handle);
    }
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CRYPTO_RELEASER_H
