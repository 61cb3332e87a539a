#include "tests/xml/xmlsupport.h"

#include <atomic>

#include "foundation/tbmemory.h"

namespace kvxtest {

namespace {

std::atomic<std::uint64_t> g_Calls{0};
std::atomic<std::uint64_t> g_Bytes{0};

bool countingGate(std::size_t bytes) {
    ++g_Calls;
    g_Bytes += bytes;
    return true;
}

}  // namespace

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

AllocationMeter::AllocationMeter() {
    g_Calls = 0;
    g_Bytes = 0;
    tbSetAllocationGate(&countingGate);
}

AllocationMeter::~AllocationMeter() {
    tbSetAllocationGate(nullptr);
}

std::uint64_t AllocationMeter::calls() {
    return g_Calls;
}

std::uint64_t AllocationMeter::bytes() {
    return g_Bytes;
}

void forEveryFailure(std::function<void()> const& prepare, std::function<void()> const& operation,
                     std::function<void(bool failed)> const& check) {
    constexpr long kMostRuns = 10000;
    for (long run = 0; run < kMostRuns; ++run) {
        SCOPED_TRACE("failing allocation " + std::to_string(run));
        prepare();
        bool failed = false;
        bool reached = false;
        {
            FailingAllocation const failing(run, FailingAllocation::Mode::kOnlyThat);
            failed = thrownCode(operation) == KVX_E_OUT_OF_MEMORY;
            reached = FailingAllocation::asked() > run;
        }
        check(failed);
        if (!reached) {
            EXPECT_FALSE(failed);
            return;
        }
    }
    ADD_FAILURE() << "no end after " << kMostRuns << " runs";
}

std::string Random::text(std::string const& characters, std::size_t most) {
    std::string result;
    for (std::size_t left = below(most + 1); left > 0; --left) {
        result += of(characters);
    }
    return result;
}

}  // namespace kvxtest
