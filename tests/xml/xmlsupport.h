/// What the tests of the XML layer share.
#ifndef TALLOWIN_TESTS_XML_XMLSUPPORT_H
#define TALLOWIN_TESTS_XML_XMLSUPPORT_H

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/test_support.h"
#include "xml/xmlelement.h"
#include "xml/xmlparser.h"

namespace kvxtest {

/// A new element, held by the result alone.
xmlElementPtr newElement(std::string const& tag);

/// What the parser made of a text: its result, and the document when that is 0.
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

/// Counts what the library asks for while it lives. Not together with FailingAllocation.
class AllocationMeter {
public:
    AllocationMeter();
    AllocationMeter(AllocationMeter const&) = delete;
    AllocationMeter& operator=(AllocationMeter const&) = delete;
    ~AllocationMeter();

    static std::uint64_t calls();
    static std::uint64_t bytes();
};

/// Runs `operation` with its first allocation failing and no other, then with its second, and so on, until none fails.
/// `prepare` goes before and `check` after every run; `check` hears whether the operation failed.
void forEveryFailure(std::function<void()> const& prepare, std::function<void()> const& operation,
                     std::function<void(bool failed)> const& check);

/// Random choices of one test, from the seed of the run.
class Random {
public:
    Random() : m_Engine(testSeed()) {}

    /// From 0 to `limit` - 1.
    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(m_Engine); }

    char byte() { return static_cast<char>(static_cast<unsigned char>(below(256))); }
    char of(std::string const& characters) { return characters[below(characters.size())]; }

    /// Up to `most` characters of `characters`.
    std::string text(std::string const& characters, std::size_t most);

private:
    std::mt19937_64 m_Engine;
};

}  // namespace kvxtest

#endif
