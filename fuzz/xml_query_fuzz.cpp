// Path queries. The input is a path, a value, a number (a line each) and a document.
//
// Model: a path with the pair "(." fails, with 3 when no ")" follows and with 1 otherwise; any other path is the name
// of an attribute of the element itself. Names of one length that are alike up to a zero byte are one name.

#include "xml/xmlquery.h"

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/xmlmodel.h"
#include "xml/xmlholder.h"
#include "xml/xmlparser.h"

namespace kvxfuzz {

namespace {

std::int32_t modelStatus(std::string const& path) {
    std::size_t const pair = path.find("(.");
    if (pair == std::string::npos) {
        return 0;
    }
    return path.find(')', pair + 1) == std::string::npos ? 3 : 1;
}

void requireQuery(xmlElement* root, std::string const& path) {
    TbString rest = tbText(path);
    xmlElement* found = nullptr;
    std::int32_t const status = xmlQuerySubElement(root, rest, &found);
    xmlElementPtr const holder = xmlAdopt(found);
    requireEqual(status, modelStatus(path), "status of a query");
    requireEqual(textOf(rest), path, "what is left of the path");
    require(found == (status == 0 ? root : nullptr), "a path without steps finds the element itself");
}

void requireNumber(std::string const& text) {
    std::uint32_t number = 0;
    std::size_t used = 0;
    while (used < text.size() && text[used] >= '0' && text[used] <= '9') {
        number = number * 10 + static_cast<std::uint32_t>(text[used++] - '0');
    }
    int value = -1;
    require(xmlAtoi(tbText(text), value) == (used == text.size()), "only digits make a number");
    requireEqual(value, static_cast<std::int32_t>(number), "number");
}

}  // namespace

void runTarget(Input input) {
    std::string const path = input.line();
    std::string const value = input.line();
    requireNumber(input.line());
    std::string const text = input.rest();

    ModelDocument model;
    TbStringStream in(tbText(text));
    xmlElement* parsed = nullptr;
    bool const isDocument = xmlParser().parseText(in, &parsed) == 0;
    xmlElementPtr const document = xmlAdopt(parsed);
    require(isDocument == (model.parse(text) == 0), "the model parses the same documents");
    if (!isDocument) {
        return;
    }
    std::size_t const index = model.at(0).m_Children.empty() ? 0 : model.at(0).m_Children.front();
    TbString tag = tbText(model.at(index).m_Tag);
    xmlElement* first = document.get();
    if (index == 0) {
        first->addRef();
    } else {
        require(document->getChild(tag, 0, &first), "the first element is there");
    }
    xmlElementPtr const root = xmlAdopt(first);
    requireQuery(root.get(), path);

    TbString read("old");
    std::string const* const expected = modelStatus(path) == 0 ? model.at(index).valueOf(path) : nullptr;
    require(xmlGetAttributeEx(root.get(), tbText(path), read) == (expected != nullptr), "an attribute is found");
    requireEqual(textOf(read), expected == nullptr ? "old" : *expected, "value that was read");

    require(xmlSetAttributeEx(root.get(), tbText(path), tbText(value)) == (modelStatus(path) == 0), "a value is set");
    if (modelStatus(path) == 0) {
        model.at(index).set(path, value);
    }
    requireEqual(libraryText(document.get()), model.written(), "document with the value");
}

}  // namespace kvxfuzz
