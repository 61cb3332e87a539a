/// Helpers of the containers. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBOWNED_H
#define TALLOWIN_FOUNDATION_TBOWNED_H

#include <memory>

#include "foundation/tbinplace.h"
#include "foundation/tbobject.h"

class TbTreeNode;

/// Owns an object until it is linked somewhere.
template <class T>
using TbOwned = std::unique_ptr<T>;

/// A copy of `text` in one piece of memory with its text where that is short.
inline TbOwned<TbFindable> tbCopyOfText(TbString const& text) {
    if (!TbInPlaceText::suits(text)) {
        TbOwned<TbFindable> copy(new TbString);
        copy->assign(static_cast<TbObject const&>(text));
        return copy;
    }
    auto* const memory = static_cast<char*>(TbString::operator new(sizeof(TbString) + TbInPlaceText::bytesOf(text)));
    auto* const copy = new (memory) TbString;
    TbInPlaceText::copy(*copy, text, memory + sizeof(TbString));
    return TbOwned<TbFindable>(copy);
}

/// A copy of `item`, made through its class's factory and its `assign`.
inline TbOwned<TbFindable> tbCopyOf(TbFindable const& item) {
    if (item.getAllocator() == &TbString::allocate) {
        return tbCopyOfText(static_cast<TbString const&>(item));
    }
    TbObject* slot = nullptr;
    item.getAllocator()(&slot);
    TbOwned<TbFindable> copy(static_cast<TbFindable*>(slot));
    copy->assign(static_cast<TbObject const&>(item));
    return copy;
}

/// Whether `allocator` belongs to one of the classes that containers are made of.
bool tbIsContainerPart(TbAllocator allocator) noexcept;

/// Whether `object` is a `T`, one of the classes that containers are made of, called `className`.
///
/// The factory identifies a class without comparing names; names decide for classes that users derive.
template <class T>
bool tbIs(TbObject const& object, char const* className) {
    TbAllocator const allocator = object.getAllocator();
    return allocator == &T::allocate || (!tbIsContainerPart(allocator) && object.isInstanceOf(className));
}

/// The text that orders `element`: the key of a pair, of a map item around one, or the element itself. Borrowed. Null
/// for other keys, and for classes that users derive, whose operators may be others.
TbString const* tbTextKeyOf(TbFindable const& element);

/// The node that an item of a map lies behind while its pair is not made yet; null for everything else.
TbTreeNode const* tbCompactNodeOf(TbFindable const& element) noexcept;

/// The key that orders an element: the item of a map item, the key of a pair, or the element itself. Borrowed.
TbFindable const& tbKeyOf(TbFindable const& element);

#endif
