// Elements and documents made, parsed and read for the tests of the XML layer.
//
// Most functions turn one call of the layer into a value that a test compares. forEveryFailure() fails one allocation
// after the other and leaves the checks to its caller.

#include "tests/xml/xmlsupport.h"

#include <gtest/gtest.h>

#include "tallowin/codes.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"

namespace kvxtest {

xmlElementPtr newElement(std::string const& tag) {
    return xmlElementPtr(new xmlElement(stringOf(tag)));
}

Parsed parsed(std::string const& text) {
    TbStringStream in(stringOf(text));
    xmlElement* out = nullptr;
    Parsed result;
    result.m_Code = xmlParser().parseText(in, &out);
    EXPECT_EQ(result.m_Code == 0, out != nullptr);
    result.m_Document.adopt(out);
    return result;
}

std::string written(xmlElement const& element) {
    TbStringStream out;
    EXPECT_TRUE(element.toStream(out));
    return bytesOf(out.str());
}

std::string reparsed(std::string const& text) {
    Parsed const result = parsed(text);
    return result.m_Code == 0 ? written(*result.m_Document.get()) : "error " + std::to_string(result.m_Code);
}

xmlElementPtr childOf(xmlElement const& element, std::string const& tag, long index) {
    xmlElement* child = nullptr;
    EXPECT_TRUE(element.getChild(stringOf(tag), index, &child)) << "no child " << tag;
    xmlElementPtr result;
    result.adopt(child);
    return result;
}

std::string tagOf(xmlElement const& element) {
    TbString tag;
    EXPECT_TRUE(element.getTag(tag));
    return bytesOf(tag);
}

std::string textOf(xmlElement const& element) {
    TbString text("old");
    element.getText(text);
    return bytesOf(text);
}

bool hasAttribute(xmlElement const& element, std::string const& name) {
    TbString value;
    return element.getAttribute(stringOf(name), value);
}

std::string attributeOf(xmlElement const& element, std::string const& name) {
    TbString value;
    return element.getAttribute(stringOf(name), value) ? bytesOf(value) : "(none)";
}

std::vector<std::string> enumeratedTags(xmlElement& element, std::string const& tag) {
    xmlElementEnum* raw = nullptr;
    element.enumChildren(stringOf(tag), &raw);
    xmlEnumPtr enumerator;
    enumerator.adopt(raw);
    std::vector<std::string> tags;
    xmlElement* child = nullptr;
    while (enumerator->getNext(&child)) {
        xmlElementPtr holder;
        holder.adopt(child);
        tags.push_back(tagOf(*child));
    }
    EXPECT_TRUE(enumerator->isEmpty());
    return tags;
}

void forEveryFailure(std::function<void()> const& prepare, std::function<void()> const& operation,
                     std::function<void(bool failed)> const& check) {
    constexpr long kMaxRuns = 10000;
    for (long run = 0; run < kMaxRuns; ++run) {
        SCOPED_TRACE("failing allocation " + std::to_string(run));
        prepare();
        bool failed = false;
        bool reached = false;
        {
            FailingAllocation const failing(run, FailingAllocation::Mode::kOnlyThat);
            failed = thrownCode(operation) == KVX_E_OUT_OF_MEMORY;
            reached = FailingAllocation::requested() > run;
        }
        check(failed);
        if (!reached) {
            EXPECT_FALSE(failed);
            return;
        }
    }
    ADD_FAILURE() << "no end after " << kMaxRuns << " runs";
}

}  // namespace kvxtest
