// Parses and writes a message and documents of 1 KB to 10 MB; and documents whose shapes would reveal a step that is
// not linear.
//
// Contestants: bench/xmlcontestants.cpp. All read the same text, and what each writes is that text again.
//
// Times faster in one run:
//   parse message, pugixml          0.88
//   parse message, tinyxml2         4.48
//   parse message, expat and tree   16.5
//   parse message, libxml2          8.65
//   parse 100 KB, pugixml           0.30
//   parse 100 KB, tinyxml2          2.74
//   parse 100 KB, expat and tree    4.05
//   parse 100 KB, libxml2           4.80
//   parse 5 MB, pugixml             0.28
//   parse 5 MB, tinyxml2            3.19
//   parse 5 MB, expat and tree      4.93
//   parse 5 MB, libxml2             6.34
//   write message, pugixml          3.13
//   write message, tinyxml2         6.86
//   write 100 KB, pugixml           1.17
//   write 100 KB, tinyxml2          3.35
//   write 5 MB, pugixml             1.33
//   write 5 MB, tinyxml2            5.27

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "bench/xmlcontestants.h"
#include "xml/xmlparser.h"

namespace {

using kvxbench::Contestant;
using kvxbench::require;
using kvxbench::XmlDocument;
using kvxbench::XmlLibrary;

constexpr std::size_t kKilobyte = 1024;
constexpr std::size_t kMegabyte = kKilobyte * kKilobyte;

/// A document of about `bytes` bytes: orders, each with attributes and a child.
std::string orders(std::size_t bytes) {
    std::string text = "<KVX MSGTYPE=\"Orders\">";
    for (unsigned number = 100000; text.size() < bytes; ++number) {
        text += "<ORDER ID=\"" + std::to_string(number) +
                "\" NAME=\"Tea &amp; cake\" AMOUNT=\"12.50\"><NOTE>two pots, no sugar</NOTE></ORDER>";
    }
    return text + "</KVX>";
}

std::string repeated(std::string const& text, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

struct ElementReleaser {
    void operator()(xmlElement* element) const { element->release(); }
};
using Tree = std::unique_ptr<xmlElement, ElementReleaser>;

Tree parse(std::string const& text) {
    TbStringStream in;
    in.put(text.data(), static_cast<std::uint32_t>(text.size()));
    xmlElement* tree = nullptr;
    require(xmlParser().parseText(in, &tree) == 0, "the document is refused");
    return Tree(tree);
}

TbStringStream write(xmlElement const& tree) {
    TbStringStream out;
    tree.toStream(out);
    return out;
}

/// A message of 1 KB: one element with attributes.
std::string message() {
    std::string text = R"(<KVX MSGTYPE="PayInit" KEYID="0-4711-0123456789abcdef0123456789abcdef" )"
                       R"(TOKEN="0123456789abcdef0123456789abcdef" ALLOWCOLLECT="no" DELIVERY="yes" LANGID="en" )"
                       R"(SUCCESSLINK="https://shop.example.test/paid?shop=1&amp;lang=en" )"
                       R"(NOTIFYADDRESS="shop@example.test" BACKLINK="https://shop.example.test/cart" )"
                       R"(FAILLINK="https://shop.example.test/failed" EXPIRATION="20301231 23:59:59" AMOUNT="1250" )"
                       R"(CURRENCY="EUR" ORDERID="A &amp; B 4711" DESCRIPTION=")";
    while (text.size() < kKilobyte - 3) {
        text += "Tea ";
    }
    return text + "\"/>";
}

void addDocument(std::string const& name, std::string const& content, bool isMessage) {
    auto const text = std::make_shared<std::string const>(content);
    auto const tree = std::make_shared<Tree const>(parse(*text));
    require(write(**tree) == text->c_str(), "a written document differs from the one read");
    std::vector<Contestant> parsers;
    std::vector<Contestant> writers;
    for (XmlLibrary const& library : kvxbench::xmlLibraries()) {
        std::shared_ptr<XmlDocument const> const document = library.m_Parse(*text);
        require(document->write() == *text, "a contestant's document differs from the one read");
        parsers.push_back({library.m_Name, [text, parse = library.m_Parse] { benchmark::DoNotOptimize(parse(*text)); },
                           isMessage ? library.m_MessageParseGoal : library.m_ParseGoal});
        if (library.m_Writes) {
            writers.push_back({library.m_Name, [document] { benchmark::DoNotOptimize(document->write()); },
                               isMessage ? library.m_MessageWriteGoal : library.m_WriteGoal});
        }
    }
    kvxbench::addContest(
        "parse " + name, [text] { benchmark::DoNotOptimize(parse(*text)); }, parsers);
    kvxbench::addContest(
        "write " + name, [tree] { benchmark::DoNotOptimize(write(**tree)); }, writers);
}

/// Adds documents that would take long if any step were to look at all earlier input.
void addShape(std::string const& shape, std::string const& before, std::string const& repetition,
              std::string const& after, std::string const& closing = "") {
    constexpr std::size_t kSmall = 20000;
    for (std::size_t const count : {kSmall, 10 * kSmall}) {
        std::string const text = before + repeated(repetition, count) + after + repeated(closing, count);
        kvxbench::add(shape + "/" + std::to_string(count), [text] {
            Tree const tree = parse(text);
            benchmark::DoNotOptimize(write(*tree));
        });
    }
    kvxbench::compareScaling("10 times the size, " + shape, shape + "/" + std::to_string(10 * kSmall),
                             shape + "/" + std::to_string(kSmall), 10);
}

/// Removes children of one name one by one, always the first.
void addRemoval() {
    constexpr std::size_t kSmall = 5000;
    std::string const name = "removing the first child";
    for (std::size_t const count : {kSmall, 10 * kSmall}) {
        std::string const text = repeated("<a/>", count);
        kvxbench::add(name + "/" + std::to_string(count), [text] {
            Tree const tree = parse(text);
            while (tree->removeChild("a", 0)) {
            }
        });
    }
    kvxbench::compareScaling("" + name + ", 10 times as many", name + "/" + std::to_string(10 * kSmall),
                             name + "/" + std::to_string(kSmall), 10);
}

void setUp() {
    addDocument("message", message(), true);
    addDocument("1 KB", orders(kKilobyte), false);
    addDocument("100 KB", orders(100 * kKilobyte), false);
    addDocument("1 MB", orders(kMegabyte), false);
    addDocument("5 MB", orders(5 * kMegabyte), false);
    addDocument("10 MB", orders(10 * kMegabyte), false);
    for (std::string const side : {"ours", "pugixml"}) {
        for (std::string const what : {"parse", "write"}) {
            kvxbench::compareScaling("" + what + ", 10 MB of 1 MB, " + side, what + " 10 MB/" + side,
                                     what + " 1 MB/" + side, 10,
                                     side == "ours" ? kvxbench::kLinear : kvxbench::kNoGoal);
        }
    }
    addShape("children of one name", "<KVX>", "<a/>", "</KVX>");
    addShape("nested elements", "", "<a>", "", "</a>");
    addShape("an attribute set again", "<KVX", " a=\"v\"", "/>");
    addShape("runs of text", "<KVX>", "text<a/>", "</KVX>");
    addShape("entities in a value", "<KVX a=\"", "&amp;", "\"/>");
    addShape("ampersands in a value", "<KVX a=\"", "&&&&&", "\"/>");
    addRemoval();
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
