#include "xml/xmltext.h"

#include "xml/xmlmemory.h"

xmlText* xmlText::create(xmlSlice text, bool isSecret) {
    xmlText* const created = createAt(xmlAllocate(sizeFor(text)), text, isSecret);
    created->m_IsEmbedded = false;
    return created;
}

xmlText* xmlText::copyOf(TbString const& text, bool isSecret) {
    bool const staysSecret = isSecret || text.isSecret();
    if (text.buffer() == nullptr && !staysSecret) {
        return nullptr;
    }
    xmlText* const copy = create(xmlSliceOf(text), staysSecret);
    copy->m_HasBuffer = text.buffer() != nullptr;
    return copy;
}

void xmlText::release(xmlText* text) noexcept {
    if (text != nullptr) {
        xmlRelease(text, sizeFor(sliceOf(text)), text->m_IsSecret, text->m_IsEmbedded);
    }
}

void xmlText::assignTo(xmlText const* text, TbString& out) {
    out.clear();
    if (text == nullptr) {
        return;
    }
    if (text->m_IsSecret) {
        out.keepSecret();
    }
    if (text->m_HasBuffer) {
        out.append(text->bytes(), text->m_Length);
    }
}
