// Parses and writes documents, compared with pugixml; and documents whose shapes would reveal a step that is not
// linear.
//
// Reference numbers (medians of one interleaved run on a shared machine with two processors; they vary by a tenth,
// those of 10 MB by a third):
//                              1 KB   100 KB   1 MB   10 MB   growth 10 MB / 1 MB   pugixml's growth
//   parse / pugixml              55       76    103      68                   1.2               1.8
//   write / pugixml             3.5      3.9     13     9.6                   1.1               1.5
//   growth of parsing, writing and freeing, 10 times the size: children of one name 1.6, nested elements 1.0, an
//   attribute set again 1.0, runs of text 1.7, entities in a value 1.0, ampersands in a value 1.0 growth of removing
//   the first child, 10 times as many: 1.4 memory of a child <a/>: 569 bytes, pugixml 70
// Growth is per byte or child: 1 is linear; up to 1.7 is the cost of memory that is touched for the first time, and
// pugixml shows it too.

#include <benchmark/benchmark.h>

#include <memory>
#include <pugixml.hpp>
#include <string>

#include "bench/bench_support.h"
#include "xml/xmlparser.h"

namespace {

using kvxbench::require;

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

std::unique_ptr<pugi::xml_document> plainParse(std::string const& text) {
    auto document = std::make_unique<pugi::xml_document>();
    require(document->load_buffer(text.data(), text.size()), "pugixml refuses the document");
    return document;
}

std::string plainWrite(pugi::xml_document const& document) {
    struct Writer : pugi::xml_writer {
        void write(void const* data, std::size_t size) override { m_Text.append(static_cast<char const*>(data), size); }
        std::string m_Text;
    } writer;
    document.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
    return writer.m_Text;
}

void addSize(std::string const& size, std::size_t bytes) {
    auto const text = std::make_shared<std::string const>(orders(bytes));
    auto const tree = std::make_shared<Tree const>(parse(*text));
    std::shared_ptr<pugi::xml_document const> const document = plainParse(*text);
    require(write(**tree) == text->c_str() && plainWrite(*document) == *text,
            "a written document differs from the one read");
    kvxbench::addPair(
        "parse " + size, [text] { benchmark::DoNotOptimize(parse(*text)); }, "pugixml",
        [text] { benchmark::DoNotOptimize(plainParse(*text)); });
    kvxbench::addPair(
        "write " + size, [tree] { benchmark::DoNotOptimize(write(**tree)); }, "pugixml",
        [document] { benchmark::DoNotOptimize(plainWrite(*document)); });
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
    kvxbench::compareGrowth("growth: parse, write and free, 10 times the size, " + shape,
                            shape + "/" + std::to_string(10 * kSmall), shape + "/" + std::to_string(kSmall), 10);
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
    kvxbench::compareGrowth("growth: " + name + ", 10 times as many", name + "/" + std::to_string(10 * kSmall),
                            name + "/" + std::to_string(kSmall), 10);
}

void addMemory() {
    constexpr std::size_t kChildren = 10000;
    std::string const text = "<KVX>" + repeated("<a/>", kChildren) + "</KVX>";
    std::size_t const before = kvxbench::heapInUse();
    Tree const tree = parse(text);
    std::size_t const between = kvxbench::heapInUse();
    auto const document = plainParse(text);
    std::size_t const after = kvxbench::heapInUse();
    kvxbench::addBytes("memory of a child <a/>", static_cast<double>(between - before) / kChildren, "pugixml",
                       static_cast<double>(after - between) / kChildren);
}

void setUp() {
    addMemory();
    addSize("1 KB", kKilobyte);
    addSize("100 KB", 100 * kKilobyte);
    addSize("1 MB", kMegabyte);
    addSize("10 MB", 10 * kMegabyte);
    for (std::string const side : {"ours", "pugixml"}) {
        for (std::string const what : {"parse", "write"}) {
            kvxbench::compareGrowth("growth: " + what + ", 10 MB / 1 MB, " + side, what + " 10 MB/" + side,
                                    what + " 1 MB/" + side, 10);
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
