// Element handles, elements and enumerators.
//
// Children are entries of a multimap from tag to handle, in insertion order. Neither writing nor destroying recurses:
// toStream keeps the open entries on a stack, and a dying element collects the children of its whole subtree in a list
// that runs through the elements themselves. Attribute values are escaped when set and unescaped when read.

#include "xml/xmlelement.h"

#include "foundation/tbexception.h"
#include "foundation/tbstrptr.h"

xmlElementPtr::xmlElementPtr(xmlElement* element) : TbPtr(element) {}

TbAllocator xmlElementPtr::getAllocator() const {
    return &xmlElementPtr::allocate;
}

bool xmlElementPtr::isInstanceOf(char const* className) const {
    return tbIsName(className, "xmlElementPtr") || TbPtr::isInstanceOf(className);
}

xmlElement* xmlElementPtr::get() const noexcept {
    return static_cast<xmlElement*>(target());
}

void xmlElementPtr::allocate(TbObject** slot) {
    tbAllocateInto<xmlElementPtr>(slot);
}

xmlEnumPtr::xmlEnumPtr(xmlElementEnum* enumerator) : TbPtr(enumerator) {}

TbAllocator xmlEnumPtr::getAllocator() const {
    return &xmlEnumPtr::allocate;
}

bool xmlEnumPtr::isInstanceOf(char const* className) const {
    return tbIsName(className, "xmlEnumPtr") || TbPtr::isInstanceOf(className);
}

xmlElementEnum* xmlEnumPtr::get() const noexcept {
    return static_cast<xmlElementEnum*>(target());
}

void xmlEnumPtr::allocate(TbObject** slot) {
    tbAllocateInto<xmlEnumPtr>(slot);
}

xmlElement::~xmlElement() {
    // Children are destroyed one after another from a list, never inside each other: a deep tree needs no deep stack.
    xmlElement* dying = nullptr;
    letChildrenGo(dying);
    while (dying != nullptr) {
        xmlElement* const element = dying;
        dying = element->m_NextDying == element ? nullptr : element->m_NextDying;
        element->m_NextDying = nullptr;
        if (element->refCount() == 1) {
            element->letChildrenGo(dying);
        }
        element->release();
    }
}

/// Removes all children and adds each, once and with a reference, to the list `dying`.
void xmlElement::letChildrenGo(xmlElement*& dying) {
    for (TbMapItem const* entry = m_Children.first(); entry != nullptr; entry = entry->next()) {
        xmlElement& child = elementAt(*entry);
        if (child.m_Parent == this) {
            child.m_Parent = nullptr;
        }
        if (child.m_NextDying == nullptr) {
            child.addRef();
            child.m_NextDying = dying == nullptr ? &child : dying;
            dying = &child;
        }
    }
    m_Children.clear();
}

TbAllocator xmlElement::getAllocator() const {
    return &xmlElement::allocate;
}

bool xmlElement::isInstanceOf(char const* className) const {
    return tbIsName(className, "xmlElement") || TbFindable::isInstanceOf(className);
}

bool xmlElement::operator<(TbFindable const& other) const {
    return other.isInstanceOf("xmlElement") && m_Tag.compare(static_cast<xmlElement const&>(other).m_Tag) < 0;
}

bool xmlElement::operator==(TbFindable const& other) const {
    return other.isInstanceOf("xmlElement") && m_Tag.compare(static_cast<xmlElement const&>(other).m_Tag) == 0;
}

bool xmlElement::setAttribute(TbString const& name, TbString const& value) {
    TbString escaped;
    XMLEncode(value, escaped);
    // Pairs are replaced whole: running out of memory must not leave a name with half a value.
    TbKeyValue const fresh(name, escaped);
    auto const* const entry = static_cast<TbMapItem*>(m_Attributes.find(name));
    if (entry == nullptr) {
        m_Attributes.put(fresh);
    } else {
        entry->item()->assign(fresh);
    }
    return true;
}

bool xmlElement::getAttribute(TbString const& name, TbString& value) const {
    auto const* const entry = static_cast<TbMapItem*>(m_Attributes.find(name));
    if (entry == nullptr) {
        return false;
    }
    XMLDecode(*static_cast<TbString*>(static_cast<TbKeyValue*>(entry->item())->value()), value);
    return true;
}

/// The child that an entry of the children holds.
xmlElement& xmlElement::elementAt(TbMapItem const& entry) noexcept {
    return *static_cast<xmlElement*>(static_cast<TbStrPtr*>(entry.item())->value().target());
}

void xmlElement::insertChild(xmlElement* child) {
    m_Children.put(child->m_Tag, xmlElementPtr(child));
    child->m_Parent = this;
}

bool xmlElement::removeChild(TbString const& tag, long index) {
    auto const* const entries = static_cast<TbFindableVector*>(m_Children.find(tag));
    if (entries == nullptr || index < 0 || static_cast<unsigned long>(index) >= entries->count()) {
        return false;
    }
    auto const position = static_cast<std::uint32_t>(index);
    xmlElementPtr const child(&elementAt(*static_cast<TbMapItem*>(entries->at(position))));
    m_Children.remove(tag, index);
    if (child->m_Parent == this) {
        child->m_Parent = nullptr;
    }
    return true;
}

bool xmlElement::getChild(TbString const& tag, long index, xmlElement** child) const {
    auto const* const entries = static_cast<TbFindableVector*>(m_Children.find(tag));
    if (entries == nullptr) {
        return false;
    }
    if (index < 0 || static_cast<unsigned long>(index) >= entries->count()) {
        throw TBFC_Exception(KVX_E_OUT_OF_RANGE);
    }
    xmlElement& found = elementAt(*static_cast<TbMapItem*>(entries->at(static_cast<std::uint32_t>(index))));
    found.addRef();
    *child = &found;
    return true;
}

bool xmlElement::getParent(xmlElement** parent) const {
    if (m_Parent != nullptr) {
        m_Parent->addRef();
    }
    *parent = m_Parent;
    return true;
}

void xmlElement::getText(TbString& text) const {
    text = m_Text;
}

void xmlElement::setText(TbString const& text) {
    m_Text = text;
}

bool xmlElement::getTag(TbString& tag) const {
    tag = m_Tag;
    return true;
}

/// Whether there is text or a child between start tag and end tag.
bool xmlElement::hasContent() const noexcept {
    return !m_Text.isEmpty() || m_Children.count() != 0;
}

/// Writes everything before the children.
void xmlElement::writeHead(TbStringStream& out) const {
    if (!m_Tag.isEmpty()) {
        out.put('<');
        out.put(m_Tag);
        for (TbMapItem const* entry = m_Attributes.first(); entry != nullptr; entry = entry->next()) {
            auto const& attribute = *static_cast<TbKeyValue*>(entry->item());
            out.put(' ');
            out.put(*static_cast<TbString*>(attribute.key()));
            out.put("=\"");
            out.put(*static_cast<TbString*>(attribute.value()));
            out.put('"');
        }
        out.put(hasContent() ? ">" : "/>");
    }
    out.put(m_Text);
}

/// Writes the end tag.
void xmlElement::writeTail(TbStringStream& out) const {
    if (!m_Tag.isEmpty() && hasContent()) {
        out.put("</");
        out.put(m_Tag);
        out.put('>');
    }
}

bool xmlElement::toStream(TbStringStream& out) const {
    TbStack open;  // the entries on the way from this element down to the one being written
    writeHead(out);
    TbMapItem const* entry = m_Children.first();
    while (entry != nullptr || open.count() != 0) {
        if (entry != nullptr) {
            open.push_back(const_cast<TbMapItem*>(entry));  // a stack takes no constant objects; nothing changes it
            elementAt(*entry).writeHead(out);
            entry = elementAt(*entry).m_Children.first();
        } else {
            entry = static_cast<TbMapItem const*>(open.peek());
            open.pop_back();
            elementAt(*entry).writeTail(out);
            entry = entry->next();
        }
    }
    writeTail(out);
    return true;
}

void xmlElement::enumChildren(TbString const& tag, xmlElementEnum** enumerator) {
    auto* const fresh = new xmlElementEnum;
    fresh->addRef();
    fresh->create(this, tag);
    *enumerator = fresh;
}

void xmlElement::allocate(TbObject** slot) {
    tbAllocateInto<xmlElement>(slot);
}

TbAllocator xmlElementEnum::getAllocator() const {
    return &xmlElementEnum::allocate;
}

bool xmlElementEnum::isInstanceOf(char const* className) const {
    return tbIsName(className, "xmlElementEnum") || TbObject::isInstanceOf(className);
}

void xmlElementEnum::create(xmlElement* element, TbString const& tag) {
    m_Element = xmlElementPtr(element);
    if (tag.isEmpty()) {
        m_Position = element->m_Children.first();
        return;
    }
    auto const* const entries = static_cast<TbFindableVector*>(element->m_Children.find(tag));
    m_Position = entries == nullptr ? m_End : static_cast<TbMapItem*>(entries->at(0));
}

bool xmlElementEnum::getNext(xmlElement** child) {
    if (isEmpty()) {
        return false;
    }
    xmlElement& current = xmlElement::elementAt(*m_Position);
    current.addRef();
    m_Position = m_Position->next();
    *child = &current;
    return true;
}

void xmlElementEnum::allocate(TbObject** slot) {
    tbAllocateInto<xmlElementEnum>(slot);
}
