/// One deleter for everything that a plain function releases. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBRELEASER_H
#define TALLOWIN_FOUNDATION_TBRELEASER_H

/// Deleter of a `std::unique_ptr` whose object is released by calling `kRelease` with its address.
template <auto kRelease>
struct TbReleaser {
    template <class T>
    void operator()(T* object) const noexcept {
        kRelease(object);
    }
};

#endif
