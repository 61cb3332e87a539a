/// Counted handles.
#ifndef TALLOWIN_FOUNDATION_TBPTR_H
#define TALLOWIN_FOUNDATION_TBPTR_H

#include "tallowin/tbobject.h"

/// Holds at most one counted reference to its target.
///
/// Deliberate (pointer-assign-does-nothing): `assign` is TbObject's, so an assignment through a `TbObject&` changes
/// nothing; pointers are copied by their own `operator=`.
class KVX_EXPORT TbPtr : public TbObject {
public:
    TbPtr() = default;

    /// Takes one more reference to `target`; null gives an empty pointer.
    explicit TbPtr(TbRefCounter* target);

    TbPtr(TbPtr const& other);
    ~TbPtr() override;

    /// Takes the target of `other` and releases the old one. The same target: no change.
    TbPtr& operator=(TbPtr const& other);
    using TbObject::operator=;

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) const override;

    /// The target, borrowed; null when empty.
    [[nodiscard]] TbRefCounter* target() const noexcept { return m_Target; }

    /// Releases the old target and takes over the caller's reference to `target`.
    void adopt(TbRefCounter* target);

    /// Releases the target; the pointer is empty afterwards.
    void reset() { adopt(nullptr); }

    static void allocate(TbObject** slot);

private:
    TbRefCounter* m_Target = nullptr;  ///< One counted reference, or null.
};

#endif
