/// The children of one element. Internal: not installed.
#ifndef TALLOWIN_XML_XMLCHILDREN_H
#define TALLOWIN_XML_XMLCHILDREN_H

#include "xml/xmlmemory.h"
#include "xml/xmlslice.h"

class xmlElement;

/// One child in the list of its parent. An element may be the child of several, and several times of one.
struct xmlChild {
    xmlChild* m_Previous;
    xmlChild* m_Next;
    xmlElement* m_Element;  ///< One counted reference.
    // One that lies in the block of m_Element is released with that.
};

/// Children in insertion order, found by tag and number.
///
/// The first few are searched one after the other; a search that goes further uses a tree of tags, each with its
/// children, which is made then and kept.
class xmlChildren {
public:
    /// `isEmbedded` for one in the block of an element, which is released with that.
    explicit xmlChildren(bool isEmbedded = false) noexcept : m_IsEmbedded(isEmbedded) {}
    xmlChildren(xmlChildren const&) = delete;
    xmlChildren& operator=(xmlChildren const&) = delete;

    /// Requires: no children, they have been taken away. Null is ignored.
    static void release(xmlChildren* children) noexcept;

    [[nodiscard]] xmlChild* first() const noexcept { return m_First; }

    /// Takes one reference of its own, after all others. On failure nothing has changed.
    void append(xmlElement* element);

    /// The same with `child`, which lies in the block of its element.
    void appendEmbedded(xmlChild* child);

    /// Child `index` of those named `tag`; null when there is none.
    [[nodiscard]] xmlChild* find(xmlSlice tag, std::uint64_t index) const noexcept;

    /// Removes child `index` of those named `tag` and hands its reference to the caller; null when there is none.
    [[nodiscard]] xmlElement* remove(xmlSlice tag, std::uint64_t index) noexcept;

    /// Removes the first child and hands its reference to the caller. Only before the destruction: nothing but the
    /// first child is found any more. Requires: there is one.
    [[nodiscard]] xmlElement* takeFirst() noexcept;

    static void* operator new(std::size_t bytes) { return xmlAllocate(bytes); }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* memory) noexcept { tbRelease(memory); }

private:
    struct Index;

    ~xmlChildren();
    [[nodiscard]] bool makeIndex() const noexcept;
    void unlink(xmlChild* child) noexcept;
    static void release(xmlChild* child) noexcept;

    xmlChild* m_First = nullptr;  ///< Owned, with all that follow.
    xmlChild* m_Last = nullptr;
    mutable Index* m_Index = nullptr;  ///< Owned; null until it is needed.
    bool m_IsEmbedded;
};

#endif
