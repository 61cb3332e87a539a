// Children: a doubly linked list in the order of insertion, and a tree of tags with the children of each.
//
// A tag is compared by that of its first child, so it needs no copy and dies with the last child. Looking for the tag
// that was found last costs one comparison. The tree is made for the first search that goes beyond the first kFew;
// while there is no memory for it, children are searched one after the other.

#include "xml/xmlchildren.h"

#include <memory>
#include <set>

#include "xml/xmlaccess.h"

namespace {

/// Children that are searched one after the other.
constexpr std::uint32_t kFew = 8;

struct Releaser {
    void operator()(xmlChild* child) const noexcept { tbRelease(child); }
};

/// The children of one tag, at least one, in insertion order.
struct Tag {
    explicit Tag(xmlChild* child) {
        m_Children.makeRoom();
        m_Children.push(child);
    }

    /// Changes leave the order of tags alone.
    mutable xmlPointers<xmlChild> m_Children;
};

struct ByTag {
    using is_transparent = void;

    [[nodiscard]] static xmlSlice tagOf(Tag const& tag) noexcept {
        return xmlAccess::tagOf(*tag.m_Children[0]->m_Element);
    }
    [[nodiscard]] static xmlSlice tagOf(xmlSlice tag) noexcept { return tag; }

    template <class Left, class Right>
    bool operator()(Left const& left, Right const& right) const noexcept {
        return xmlCompare(tagOf(left), tagOf(right)) < 0;
    }
};

}  // namespace

struct xmlChildren::Index {
    static void* operator new(std::size_t bytes) { return xmlAllocate(bytes); }
    static void operator delete(void* memory) noexcept { tbRelease(memory); }

    [[nodiscard]] Tag const* find(xmlSlice tag) noexcept {
        if (m_Recent == nullptr || xmlCompare(ByTag::tagOf(*m_Recent), tag) != 0) {
            auto const found = m_Tags.find(tag);
            m_Recent = found == m_Tags.end() ? nullptr : &*found;
        }
        return m_Recent;
    }

    [[nodiscard]] xmlChild* find(xmlSlice tag, std::uint64_t index) noexcept {
        Tag const* const found = find(tag);
        return found == nullptr || index >= found->m_Children.count()
                   ? nullptr
                   : found->m_Children[static_cast<std::uint32_t>(index)];
    }

    void append(xmlChild* child) {
        Tag const* const tag = find(xmlAccess::tagOf(*child->m_Element));
        if (tag == nullptr) {
            m_Recent = &*m_Tags.emplace(child).first;
        } else {
            tag->m_Children.makeRoom();
            tag->m_Children.push(child);
        }
    }

    void remove(xmlSlice tag, std::uint32_t index) noexcept {
        auto const found = m_Tags.find(tag);
        if (found->m_Children.count() > 1) {
            found->m_Children.remove(index);
        } else {
            m_Recent = nullptr;
            m_Tags.erase(found);
        }
    }

    std::set<Tag, ByTag, xmlAllocator<Tag>> m_Tags;
    Tag const* m_Recent = nullptr;  ///< The last one found, borrowed.
};

xmlChildren::~xmlChildren() {
    delete m_Index;
}

void xmlChildren::release(xmlChildren* children) noexcept {
    if (children == nullptr) {
        return;
    }
    if (children->m_IsEmbedded) {
        children->~xmlChildren();
    } else {
        delete children;
    }
}

void xmlChildren::append(xmlElement* element) {
    std::unique_ptr<xmlChild, Releaser> child(static_cast<xmlChild*>(xmlAllocate(sizeof(xmlChild))));
    child->m_Element = element;
    appendEmbedded(child.get());
    child.release();
}

void xmlChildren::appendEmbedded(xmlChild* child) {
    child->m_Previous = m_Last;
    child->m_Next = nullptr;
    if (m_Index != nullptr) {
        m_Index->append(child);
    }
    child->m_Element->addRef();
    (m_Last == nullptr ? m_First : m_Last->m_Next) = child;
    m_Last = child;
}

xmlChild* xmlChildren::find(xmlSlice tag, std::uint64_t index) const noexcept {
    std::uint64_t position = 0;
    std::uint64_t left = index;
    for (xmlChild* child = m_First; child != nullptr; child = child->m_Next) {
        if (position++ == kFew && makeIndex()) {
            return m_Index->find(tag, index);
        }
        if (xmlCompare(xmlAccess::tagOf(*child->m_Element), tag) == 0 && left-- == 0) {
            return child;
        }
    }
    return nullptr;
}

/// False when there is no memory for an index.
bool xmlChildren::makeIndex() const noexcept {
    if (m_Index != nullptr) {
        return true;
    }
    try {
        auto index = std::make_unique<Index>();
        for (xmlChild* child = m_First; child != nullptr; child = child->m_Next) {
            index->append(child);
        }
        m_Index = index.release();
        return true;
    } catch (TBFC_Exception const&) {
        return false;
    }
}

xmlElement* xmlChildren::remove(xmlSlice tag, std::uint64_t index) noexcept {
    xmlChild* const child = find(tag, index);
    if (child == nullptr) {
        return nullptr;
    }
    if (m_Index != nullptr) {
        m_Index->remove(tag, static_cast<std::uint32_t>(index));
    }
    xmlElement* const element = child->m_Element;
    unlink(child);
    return element;
}

xmlElement* xmlChildren::takeFirst() noexcept {
    xmlChild* const child = m_First;
    xmlElement* const element = child->m_Element;
    m_First = child->m_Next;
    release(child);
    return element;
}

void xmlChildren::unlink(xmlChild* child) noexcept {
    (child->m_Previous == nullptr ? m_First : child->m_Previous->m_Next) = child->m_Next;
    (child->m_Next == nullptr ? m_Last : child->m_Next->m_Previous) = child->m_Previous;
    release(child);
}

void xmlChildren::release(xmlChild* child) noexcept {
    if (child != xmlAccess::embeddedChildOf(*child->m_Element)) {
        tbRelease(child);
    }
}
