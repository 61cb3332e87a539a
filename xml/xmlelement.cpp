// Element handles, elements and enumerators.
//
// An element is small: tag, text, attributes and children are made when there is something to hold, and a child costs
// its parent one link of a list. Neither writing (xml/xmlwriter.cpp) nor destroying recurses: a dying element collects
// the children of its whole subtree in a list that runs through the elements themselves. Attribute values are escaped
// when set and unescaped when read.

#include "xml/xmlelement.h"

#include <cstring>
#include <utility>

#include "foundation/tbexception.h"
#include "foundation/tblocalstring.h"
#include "xml/xmlaccess.h"
#include "xml/xmlchildren.h"
#include "xml/xmlentities.h"
#include "xml/xmlholder.h"
#include "xml/xmlwriter.h"

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
    xmlAttributes::release(m_Attributes);
    xmlText::release(m_Text);
    xmlText::release(m_Tag);
}

/// Removes all children and adds each, once and with a reference, to the list `dying`.
void xmlElement::letChildrenGo(xmlElement*& dying) {
    while (m_Children != nullptr && m_Children->first() != nullptr) {
        xmlElement* const child = m_Children->takeFirst();
        if (child->m_Parent == this) {
            child->m_Parent = nullptr;
        }
        if (child->m_NextDying == nullptr) {
            child->m_NextDying = dying == nullptr ? child : dying;
            dying = child;
        } else {
            child->release();  // the list has another reference
        }
    }
    xmlChildren::release(std::exchange(m_Children, nullptr));
}

TbAllocator xmlElement::getAllocator() const {
    return &xmlElement::allocate;
}

bool xmlElement::isInstanceOf(char const* className) const {
    return tbIsName(className, "xmlElement") || TbFindable::isInstanceOf(className);
}

bool xmlElement::operator<(TbFindable const& other) const {
    return other.isInstanceOf("xmlElement") &&
           xmlCompare(xmlAccess::tagOf(*this), xmlAccess::tagOf(static_cast<xmlElement const&>(other))) < 0;
}

bool xmlElement::operator==(TbFindable const& other) const {
    return other.isInstanceOf("xmlElement") &&
           xmlCompare(xmlAccess::tagOf(*this), xmlAccess::tagOf(static_cast<xmlElement const&>(other))) == 0;
}

bool xmlElement::setAttribute(TbString const& name, TbString const& value) {
    xmlAccess::setAttribute(*this, xmlPartOf(name), xmlPartOf(value), false);
    return true;
}

bool xmlElement::getAttribute(TbString const& name, TbString& value) const {
    xmlAttribute const* const found = m_Attributes == nullptr ? nullptr : m_Attributes->find(xmlSliceOf(name));
    if (found == nullptr) {
        return false;
    }
    xmlSlice const encoded = found->value();
    if (encoded.m_Length != 0 && std::memchr(encoded.m_Bytes, '&', encoded.m_Length) == nullptr) {
        value = TbBorrowed(encoded.m_Bytes, encoded.m_Length, found->m_IsValueSecret);
        return true;
    }
    TbLongString decoded;
    xmlDecodeInto({encoded, found->m_IsValueSecret}, decoded);
    value = decoded;
    return true;
}

void xmlElement::insertChild(xmlElement* child) {
    xmlHolder const holder = xmlHold(child);
    xmlAccess::childrenOf(*this).append(child);
    child->m_Parent = this;
}

bool xmlElement::removeChild(TbString const& tag, long index) {
    if (m_Children == nullptr || index < 0) {
        return false;
    }
    xmlHolder const child(m_Children->remove(xmlSliceOf(tag), static_cast<unsigned long>(index)));
    if (child == nullptr) {
        return false;
    }
    if (child->m_Parent == this) {
        child->m_Parent = nullptr;
    }
    return true;
}

bool xmlElement::getChild(TbString const& tag, long index, xmlElement** child) const {
    xmlSlice const wanted = xmlSliceOf(tag);
    if (m_Children == nullptr || m_Children->find(wanted, 0) == nullptr) {
        return false;
    }
    xmlChild const* const found = index < 0 ? nullptr : m_Children->find(wanted, static_cast<unsigned long>(index));
    if (found == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_RANGE);
    }
    found->m_Element->addRef();
    *child = found->m_Element;
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
    xmlText::assignTo(m_Text, text);
}

void xmlElement::setText(TbString const& text) {
    xmlText* const fresh = xmlText::copyOf(text, m_Text != nullptr && m_Text->m_IsSecret);
    xmlText::release(std::exchange(m_Text, fresh));
}

bool xmlElement::getTag(TbString& tag) const {
    xmlText::assignTo(m_Tag, tag);
    return true;
}

bool xmlElement::toStream(TbStringStream& out) const {
    xmlWriter(out).write(*this);
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
    xmlChildren const* const children = element->m_Children;
    if (children == nullptr) {
        m_Position = m_End;
        return;
    }
    m_Position = tag.isEmpty() ? children->first() : children->find(xmlSliceOf(tag), 0);
}

bool xmlElementEnum::getNext(xmlElement** child) {
    if (isEmpty()) {
        return false;
    }
    xmlElement* const current = m_Position->m_Element;
    current->addRef();
    m_Position = m_Position->m_Next;
    *child = current;
    return true;
}

void xmlElementEnum::allocate(TbObject** slot) {
    tbAllocateInto<xmlElementEnum>(slot);
}
