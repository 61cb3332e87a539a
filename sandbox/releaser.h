#pragma once

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
