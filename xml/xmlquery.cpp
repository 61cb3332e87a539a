#include "xml/xmlquery.h"

#include "xml/xmlholder.h"

namespace {

/// Separates a child's tag from its index.
constexpr char const* kSeparator = "(.";

enum Status : std::int32_t { kFound = 0, kBadIndex = 1, kMalformed = 3, kNoChild = 4 };

/// `xmlQuerySubElement` with the element in a holder.
Status walk(xmlElement* start, TbString& path, xmlElementPtr& found) {
    xmlElementPtr current(start);
    std::uint32_t position = 0;
    for (;;) {
        std::uint32_t const separator = path.find(kSeparator, position);
        if (separator == TbString::npos) {
            if (position != 0) {
                path = path.substring(position);
            }
            found = current;
            return kFound;
        }
        std::uint32_t const indexStart = separator + 1;
        std::uint32_t const closing = path.find(")", indexStart);
        if (closing == TbString::npos) {
            return kMalformed;
        }
        int index = 0;
        if (!xmlAtoi(path.substring(indexStart, closing - indexStart), index)) {
            return kBadIndex;
        }
        // Deliberate (path-step-refused): no key reaches this line, because the index text begins with the full stop of
        // the separator. The step is implemented all the same, as part of the path language.
        xmlElement* child = nullptr;
        if (!current->getChild(path.substring(position, separator - position), index, &child)) {
            return kNoChild;
        }
        current = xmlAdopt(child);
        position = closing + 2;
    }
}

}  // namespace

std::int32_t xmlQuerySubElement(xmlElement* start, TbString& path, xmlElement** found) {
    xmlElementPtr element;
    Status const status = walk(start, path, element);
    if (status == kFound) {
        xmlHandOut(element, found);
    }
    return status;
}

bool xmlGetAttributeEx(xmlElement* start, TbString const& key, TbString& value) {
    TbString name(key);
    xmlElementPtr element;
    return walk(start, name, element) == kFound && element->getAttribute(name, value);
}

bool xmlSetAttributeEx(xmlElement* start, TbString const& key, TbString const& value) {
    TbString name(key);
    xmlElementPtr element;
    return walk(start, name, element) == kFound && element->setAttribute(name, value);
}

bool xmlAtoi(TbString const& text, int& value) {
    unsigned number = 0;
    bool isNumber = true;
    for (std::uint32_t i = 0; i < text.length() && isNumber; ++i) {
        isNumber = text[i] >= '0' && text[i] <= '9';
        if (isNumber) {
            number = number * 10 + static_cast<unsigned>(text[i] - '0');
        }
    }
    value = static_cast<int>(number);
    return isNumber;
}
