// Bytes of the heap that documents, maps and messages hold, and whether memory is given back.
//
// Contestants: pugixml, std::map. Bytes include the allocator's overhead per block.
//
// Times smaller in one run:
//   memory of an empty child                 0.62
//   memory of a map entry                    0.70
//   memory of a message with 15 attributes   12.3
//   resident after 1000000 messages          1.00

#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/merchant.h"
#include "foundation/tbmap.h"
#include "tallowin/tallowin.h"
#include "xml/xmlparser.h"

namespace {

using kvxbench::heapInUse;
using kvxbench::require;
using kvxbench::Sizes;

struct ElementReleaser {
    void operator()(xmlElement* element) const { element->release(); }
};

/// The bytes that `make` leaves on the heap with what it returns, for each of `count` parts.
template <class Make>
double bytesOf(std::size_t count, Make make) {
    std::size_t const before = heapInUse();
    [[maybe_unused]] auto const made = make();
    return static_cast<double>(heapInUse() - before) / static_cast<double>(count);
}

Sizes sizesOfChild() {
    constexpr std::size_t kChildren = 10000;
    std::string text = "<KVX>";
    for (std::size_t i = 0; i < kChildren; ++i) {
        text += "<a/>";
    }
    text += "</KVX>";
    double const ours = bytesOf(kChildren, [&text] {
        TbStringStream in;
        in.put(text.data(), static_cast<std::uint32_t>(text.size()));
        xmlElement* tree = nullptr;
        require(xmlParser().parseText(in, &tree) == 0, "the document is refused");
        return std::unique_ptr<xmlElement, ElementReleaser>(tree);
    });
    double const theirs = bytesOf(kChildren, [&text] {
        auto document = std::make_unique<pugi::xml_document>();
        require(document->load_buffer(text.data(), text.size()), "pugixml refuses the document");
        return document;
    });
    return {ours, theirs};
}

Sizes sizesOfEntry() {
    constexpr std::size_t kEntries = 10000;
    std::vector<std::string> keys;
    std::vector<TbString> oursKeys;
    for (std::size_t i = 0; i < kEntries; ++i) {
        keys.push_back("some name " + std::to_string(i));
        oursKeys.emplace_back(keys.back().c_str());
    }
    // The maps and their first entries come before: an entry is what each further one takes.
    TbStrMap map;
    TbString const value("some value");
    map["first"] = value;
    double const ours = bytesOf(kEntries, [&] {
        for (TbString const& key : oursKeys) {
            map[key] = value;
        }
        return 0;
    });
    std::map<std::string, std::string> plain;
    plain["first"] = "some value";
    double const theirs = bytesOf(kEntries, [&] {
        for (std::string const& key : keys) {
            plain[key] = "some value";
        }
        return 0;
    });
    return {ours, theirs};
}

Sizes sizesOfMessage() {
    constexpr std::size_t kMessages = 1000;
    kvxbench::Account const account;
    kvxbench::Merchant const merchant(account.path());
    std::vector<KVX_HANDLE> messages;
    messages.reserve(kMessages);
    DestroyMessageObject(merchant.payment());  // what the first one leaves is not its own
    std::size_t const before = heapInUse();
    for (std::size_t i = 0; i < kMessages; ++i) {
        messages.push_back(merchant.payment());
    }
    double const ours = static_cast<double>(heapInUse() - before) / kMessages;
    for (KVX_HANDLE const message : messages) {
        DestroyMessageObject(message);
    }
    return {ours, 0};
}

double residentBytes() {
    std::ifstream in("/proc/self/statm");
    double total = 0;
    double resident = 0;
    require(static_cast<bool>(in >> total >> resident), "cannot read the resident size");
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

/// The resident size after 1000000 messages, each read from a text and destroyed before the next, and after the first
/// 1000.
Sizes sizesOfProcess() {
    constexpr int kFirst = 1000;
    constexpr int kAll = 1000000;
    std::string const text = [] {
        kvxbench::Account const account;
        kvxbench::Merchant const merchant(account.path());
        KVX_HANDLE message = merchant.payment();
        char content[4096];
        std::int32_t size = sizeof content;
        require(MessageObject_ToString(message, &size, content) == KVX_OK, "no text");
        DestroyMessageObject(message);
        return std::string(content);
    }();
    double early = 0;
    for (int i = 0; i < kAll; ++i) {
        if (i == kFirst) {
            early = residentBytes();
        }
        KVX_HANDLE message = CreateMessageObject();
        require(MessageObject_FromString(message, text.c_str()) == KVX_OK, "a message is refused");
        DestroyMessageObject(message);
    }
    return {residentBytes(), early};
}

void setUp() {
    kvxbench::addBytes("memory of an empty child", "pugixml", &sizesOfChild, {200, kvxbench::kNoGoal});
    kvxbench::addBytes("memory of a map entry", "std::map", &sizesOfEntry, {160, kvxbench::kNoGoal});
    kvxbench::addBytes("memory of a message with 15 attributes", "", &sizesOfMessage, {16384, kvxbench::kNoGoal});
    kvxbench::addBytes("resident after 1000000 messages", "after 1000", &sizesOfProcess, {kvxbench::kNoGoal, 0.99});
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
