// Elements in one block of memory.
//
// What the parser knows of an element when it makes it lies in one block behind the element, in this order: its place
// in the list of its parent, the list of its own children, the list of its attributes with a place for each, the
// attributes, tag and text. Each of them is marked as embedded, so that nobody releases it alone. What changes later
// gets memory of its own, and the bytes that it had in the block stay unused until the element is destroyed.

#include "xml/xmlaccess.h"

#include <memory>
#include <utility>

namespace {

/// The pieces of a block are rounded up to a multiple of this; the lists of pointers come first.
constexpr std::uint64_t kStep = alignof(xmlAttribute);
static_assert(alignof(xmlText) <= kStep);
static_assert(sizeof(xmlElement) % alignof(xmlChild) == 0 && sizeof(xmlChild) % alignof(xmlChildren) == 0 &&
              sizeof(xmlChildren) % alignof(xmlAttributes) == 0);

/// No more than the text of the document and what 32 attributes need, so it fits.
std::size_t rounded(std::uint64_t bytes) {
    return static_cast<std::size_t>((bytes + kStep - 1) / kStep * kStep);
}

std::size_t sizeOf(xmlDraft::Attribute const& attribute) {
    return rounded(xmlAttribute::sizeFor(attribute.m_NameLength, attribute.m_ValueLength));
}

/// Bytes of the block for `draft`.
std::size_t sizeOf(xmlDraft const& draft, bool hasChildren) {
    std::size_t bytes = sizeof(xmlElement) + sizeof(xmlChild) + rounded(xmlText::sizeFor(draft.tag()));
    if (hasChildren) {
        bytes += sizeof(xmlChildren);
    }
    if (draft.attributeCount() != 0) {
        bytes += xmlAttributes::sizeFor(draft.attributeCount());
    }
    for (std::uint32_t i = 0; i < draft.attributeCount(); ++i) {
        bytes += sizeOf(draft.attribute(i));
    }
    return draft.text().m_Length == 0 ? bytes : bytes + xmlText::sizeFor(draft.text());
}

/// The rest of a block.
class Rest {
public:
    explicit Rest(void* begin) : m_Begin(static_cast<char*>(begin)) {}

    /// Takes `bytes` bytes away.
    void* take(std::size_t bytes) { return std::exchange(m_Begin, m_Begin + bytes); }

private:
    char* m_Begin;
};

}  // namespace

xmlElement* xmlAccess::create(xmlDraft const& draft, bool hasChildren) {
    void* const block = xmlAllocate(sizeOf(draft, hasChildren));
    auto* const element = new (block) xmlElement;
    Rest rest(element + 1);
    new (rest.take(sizeof(xmlChild))) xmlChild{nullptr, nullptr, element};
    if (hasChildren) {
        element->m_Children = new (rest.take(sizeof(xmlChildren))) xmlChildren(true);
    }
    std::uint32_t const count = draft.attributeCount();
    if (count != 0) {
        element->m_Attributes = xmlAttributes::createAt(rest.take(xmlAttributes::sizeFor(count)), count);
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        xmlDraft::Attribute const& attribute = draft.attribute(i);
        element->m_Attributes->addEmbedded(xmlAttribute::createAt(rest.take(sizeOf(attribute)), attribute.name(),
                                                                  attribute.value(), draft.isSecret()));
    }
    void* const tag = rest.take(rounded(xmlText::sizeFor(draft.tag())));
    element->m_Tag = xmlText::createAt(tag, draft.tag(), draft.isSecret());
    if (draft.text().m_Length != 0) {
        element->m_Text = xmlText::createAt(rest.take(xmlText::sizeFor(draft.text())), draft.text(), draft.isSecret());
    }
    return element;
}

xmlElement* xmlAccess::create(xmlSlice tag, std::uint32_t attributes, std::uint16_t bytes) {
    std::size_t const list = xmlAttributes::sizeFor(attributes) + bytes;
    void* const block = xmlAllocate(sizeof(xmlElement) + sizeof(xmlChild) + list + xmlText::sizeFor(tag));
    auto* const element = new (block) xmlElement;
    Rest rest(element + 1);
    new (rest.take(sizeof(xmlChild))) xmlChild{nullptr, nullptr, element};
    element->m_Attributes = xmlAttributes::createAt(rest.take(list), attributes, bytes);
    element->m_Tag = xmlText::createAt(rest.take(xmlText::sizeFor(tag)), tag, false);
    return element;
}

xmlElement* xmlAccess::insertNew(xmlElement& parent, xmlDraft const& draft, bool hasChildren) {
    std::unique_ptr<xmlElement> child(create(draft, hasChildren));
    childrenOf(parent).appendEmbedded(embeddedChildOf(*child));
    child->m_Parent = &parent;
    return child.release();
}

xmlChildren& xmlAccess::childrenOf(xmlElement& element) {
    if (element.m_Children == nullptr) {
        element.m_Children = new xmlChildren;
    }
    return *element.m_Children;
}

void xmlAccess::setText(xmlElement& element, xmlPart text) {
    xmlText* const fresh = xmlText::create(text.m_Text, text.m_IsSecret);
    xmlText::release(std::exchange(element.m_Text, fresh));
}

void xmlAccess::setAttribute(xmlElement& element, xmlPart name, xmlPart value, bool isEncoded) {
    if (element.m_Attributes == nullptr) {
        element.m_Attributes = xmlAttributes::create();
    }
    element.m_Attributes->set(name, value, isEncoded);
}
