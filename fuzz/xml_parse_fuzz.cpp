// The XML parser on any text: result and tree as a second parser has them, and writing is a fixed point.

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/xmlmodel.h"
#include "xml/xmlholder.h"
#include "xml/xmlparser.h"

namespace kvxfuzz {

namespace {

int parse(std::string const& text, xmlElementPtr& document) {
    TbStringStream in(tbText(text));
    xmlElement* parsed = nullptr;
    int const result = xmlParser().parseText(in, &parsed);
    require((result == 0) == (parsed != nullptr), "a document comes with success only");
    document = xmlAdopt(parsed);
    return result;
}

}  // namespace

void runTarget(Input input) {
    std::string const text = input.rest();
    ModelDocument model;
    xmlElementPtr document;
    int const result = parse(text, document);
    requireEqual(result, model.parse(text), "result of parsing");
    if (result != 0) {
        return;
    }
    requireSameTree(document.get(), model, 0);
    std::string const written = libraryText(document.get());
    requireEqual(written, model.written(), "document as text");
    xmlElementPtr again;
    requireEqual(parse(written, again), 0, "result of parsing what was written");
    requireEqual(libraryText(again.get()), written, "the document written twice");
}

}  // namespace kvxfuzz
