/// A string key with a counted value.
#ifndef TALLOWIN_FOUNDATION_TBSTRPTR_H
#define TALLOWIN_FOUNDATION_TBSTRPTR_H

#include "tallowin/tbptr.h"
#include "tallowin/tbstring.h"

/// Pairs a key with a TbPtr, so that counted objects can be kept in ordered containers.
///
/// Ordered by key alone, in TbString's length-first order. A bare TbString, or a pair or map item around a string,
/// serves as a probe; anything else is neither less nor equal.
class KVX_EXPORT TbStrPtr : public TbFindable {
public:
    TbStrPtr() = default;

    /// Copies `key` and takes one more reference to the target of `value`.
    TbStrPtr(TbString const& key, TbPtr const& value);

    TbStrPtr(TbStrPtr const&) = default;
    TbStrPtr& operator=(TbStrPtr const& other);
    using TbFindable::operator=;

    TbAllocator getAllocator() const override;
    TbStrPtr& assign(TbObject const& other) override;
    bool isInstanceOf(char const* className) const override;
    bool operator<(TbFindable const& other) const override;
    bool operator==(TbFindable const& other) const override;

    [[nodiscard]] TbString const& key() const noexcept { return m_Key; }
    [[nodiscard]] TbPtr const& value() const noexcept { return m_Value; }

    static void allocate(TbObject** slot);

private:
    TbString m_Key;
    TbPtr m_Value;
};

#endif
