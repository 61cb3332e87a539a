/// The element tree that every document and message lives in.
///
/// Its free functions are in the static archive only; libtallowin.so exports classes.
#ifndef TALLOWIN_XML_XMLELEMENT_H
#define TALLOWIN_XML_XMLELEMENT_H

#include <utility>

#include "tallowin/export.h"
#include "tallowin/tbptr.h"
#include "tallowin/tbstring.h"
#include "tallowin/tbstringstream.h"

class xmlAttributes;
struct xmlChild;
class xmlChildren;
class xmlElement;
class xmlElementEnum;
struct xmlText;

/// A counted handle on an element.
class KVX_EXPORT xmlElementPtr : public TbPtr {
public:
    xmlElementPtr() = default;

    /// Takes one more reference to `element`; null gives an empty handle.
    explicit xmlElementPtr(xmlElement* element);

    xmlElementPtr(xmlElementPtr const&) = default;
    xmlElementPtr& operator=(xmlElementPtr const&) = default;
    using TbPtr::operator=;

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) const override;

    /// The element, borrowed; null when empty.
    [[nodiscard]] xmlElement* get() const noexcept;
    xmlElement* operator->() const noexcept { return get(); }

    static void allocate(TbObject** slot);
};

/// A counted handle on an enumerator.
class KVX_EXPORT xmlEnumPtr : public TbPtr {
public:
    xmlEnumPtr() = default;

    /// Takes one more reference to `enumerator`; null gives an empty handle.
    explicit xmlEnumPtr(xmlElementEnum* enumerator);

    xmlEnumPtr(xmlEnumPtr const&) = default;
    xmlEnumPtr& operator=(xmlEnumPtr const&) = default;
    using TbPtr::operator=;

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) const override;

    [[nodiscard]] xmlElementEnum* get() const noexcept;
    xmlElementEnum* operator->() const noexcept { return get(); }

    static void allocate(TbObject** slot);

private:
    [[maybe_unused]] std::uint32_t m_Reserved = 0;  ///< Part of the layout; not used.
};

/// One element: tag, attributes, children, text.
///
/// An empty tag marks a nameless container, whose own markup is not written. Attribute values are kept escaped, so
/// writing needs no escaping; text is kept and written exactly as given. A child is held by one counted reference;
/// children of all tags form one list in insertion order. Every element handed out carries one reference for the
/// caller, to be released. Writing and destroying need stack space that does not depend on the depth of the tree. One
/// thread at a time per tree. Running out of memory raises a TBFC_Exception.
///
/// Deliberate (element-copies-nothing): an assignment through a `TbObject&` copies nothing.
class KVX_EXPORT xmlElement : public TbFindable {
public:
    xmlElement() = default;

    /// An element without children and parent whose tag is `tag`.
    explicit xmlElement(TbString const& tag) {
        setText(tag);  // tag and text are kept in one form
        std::swap(m_Tag, m_Text);
    }

    xmlElement(xmlElement const&) = delete;
    xmlElement& operator=(xmlElement const&) = delete;
    using TbFindable::operator=;
    ~xmlElement() override;

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) const override;

    /// Elements order by their tags.
    bool operator<(TbFindable const& other) const override;
    bool operator==(TbFindable const& other) const override;

    /// Stores `value`, escaped, under `name`; a name already present keeps its place. Always true. On failure the
    /// attribute is unchanged.
    /// Deliberate (last-value-first-place): the last value counts, at the place of the first.
    bool setAttribute(TbString const& name, TbString const& value);

    /// The unescaped value under `name`. False, and `value` untouched, when there is none.
    bool getAttribute(TbString const& name, TbString& value) const;

    /// Adds `child` after all others and makes this its parent; takes one reference of its own. On failure nothing has
    /// changed, but a child without other references is destroyed.
    /// Requires: a heap object, not null, not this element and none of its ancestors.
    void insertChild(xmlElement* child);

    /// Drops child `index` (from 0) of those named `tag`; if it stays alive, it has no parent. False when there is no
    /// such child. Enumerators positioned on the child must not be used afterwards. On failure nothing has changed.
    bool removeChild(TbString const& tag, long index);

    /// `*child` becomes child `index` of those named `tag`, one reference for the caller. False when no child has that
    /// tag. An index beyond the last raises KVX_E_OUT_OF_RANGE (TBFC_Exception).
    bool getChild(TbString const& tag, long index, xmlElement** child) const;

    /// `*parent` becomes the parent with one reference for the caller, null for a root. Always true.
    bool getParent(xmlElement** parent) const;

    /// The parent, borrowed; null for a root.
    [[nodiscard]] xmlElement* parent() const noexcept { return m_Parent; }

    void getText(TbString& text) const;

    /// Replaces the text, which is not escaped.
    void setText(TbString const& text);

    /// Always true.
    bool getTag(TbString& tag) const;

    /// Appends the element with its subtree to `out`, without any white space of its own. Always true. On failure `out`
    /// keeps the part already written.
    bool toStream(TbStringStream& out) const;

    /// `*enumerator` becomes a new enumerator made with `xmlElementEnum::create`, one reference for the caller.
    /// Requires: this element is held by a reference.
    void enumChildren(TbString const& tag, xmlElementEnum** enumerator);

    static void allocate(TbObject** slot);

protected:
    explicit xmlElement(TbUncounted how) noexcept : TbFindable(how) {}

private:
    friend class xmlAccess;
    friend class xmlElementEnum;
    friend class xmlWriter;

    void letChildrenGo(xmlElement*& dying);

    xmlText* m_Tag = nullptr;               ///< Owned; null for an empty tag.
    xmlText* m_Text = nullptr;              ///< Owned; null for an empty text.
    xmlAttributes* m_Attributes = nullptr;  ///< Owned; null before the first one.
    xmlChildren* m_Children = nullptr;      ///< Owned; null before the first one.
    xmlElement* m_Parent = nullptr;         ///< Not counted; reset when the parent dies or lets go.
    xmlElement* m_NextDying = nullptr;  ///< Next in the list of elements that a dying ancestor still has to release;
                                        ///< the last one points to itself. Null outside such a list.
};

/// Iterates over an element's children and keeps the element alive meanwhile.
///
/// Deliberate (enumeration-ignores-tag): with a tag it starts at the first child of that tag and continues through
/// every later child of any tag. Callers that want one tag check each child's.
class KVX_EXPORT xmlElementEnum : public TbObject {
public:
    xmlElementEnum() = default;
    xmlElementEnum(xmlElementEnum const&) = delete;
    xmlElementEnum& operator=(xmlElementEnum const&) = delete;
    using TbObject::operator=;

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) const override;

    /// Starts over at the first child of `element`, or at the first named `tag` when that is not empty; there may be
    /// none. Requires: `element` is held by a reference.
    void create(xmlElement* element, TbString const& tag);

    /// `*child` becomes the current child, one reference for the caller, and the position moves on. False at the end.
    bool getNext(xmlElement** child);

    /// Whether the end is reached.
    [[nodiscard]] bool isEmpty() const noexcept { return m_Position == m_End; }

    static void allocate(TbObject** slot);

private:
    xmlElementPtr m_Element;
    xmlChild const* m_Position = nullptr;  ///< Borrowed from the element's children.
    xmlChild const* m_End = nullptr;
};

/// `out` becomes `in` with the five characters " & ' < > replaced by their entities. The two may be one string. A
/// secret `in` makes `out` secret.
void XMLEncode(TbString const& in, TbString& out);

/// The inverse. The two may be one string. A secret `in` makes `out` secret.
///
/// Deliberate (entity-window): an entity is the text from an ampersand to a semicolon or for five characters, whichever
/// is shorter, and the next character of any kind is dropped with it: "&quotX" is a double quote, "AT & T rest" becomes
/// "AT st". An unknown entity vanishes; a longer but otherwise well-formed one vanishes through its semicolon.
void XMLDecode(TbString const& in, TbString& out);

#endif
