/// Elements and documents for the tests of the XML layer.
#ifndef TALLOWIN_TESTS_XML_XMLSUPPORT_H
#define TALLOWIN_TESTS_XML_XMLSUPPORT_H

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "xml/xmlelement.h"
#include "xml/xmlparser.h"

namespace kvxtest {

/// A new element, held by the result alone.
xmlElementPtr newElement(std::string const& tag);

/// The result of parsing a text, and the document when that is 0.
struct Parsed {
    int m_Code = -1;
    xmlElementPtr m_Document;
};
Parsed parsed(std::string const& text);

/// The element as text.
std::string written(xmlElement const& element);

/// The document as text, or "error N".
std::string reparsed(std::string const& text);

/// A child of `element`; fails the test and is empty when there is none.
xmlElementPtr childOf(xmlElement const& element, std::string const& tag, long index = 0);

std::string tagOf(xmlElement const& element);
std::string textOf(xmlElement const& element);
bool hasAttribute(xmlElement const& element, std::string const& name);

/// The unescaped value; "(none)" when the attribute is absent.
std::string attributeOf(xmlElement const& element, std::string const& name);

/// The tags of the children that an enumerator for `tag` meets.
std::vector<std::string> enumeratedTags(xmlElement& element, std::string const& tag);

/// Runs `operation` with its first allocation failing and no other, then with its second, and so on, until none fails.
/// `prepare` goes before and `check` after every run; `check` hears whether the operation failed.
void forEveryFailure(std::function<void()> const& prepare, std::function<void()> const& operation,
                     std::function<void(bool failed)> const& check);

}  // namespace kvxtest

#endif
