// Entities: encoding and decoding of any text as the model has them, also from a string into itself.

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/xmlmodel.h"
#include "xml/xmlelement.h"

namespace kvxfuzz {

void runTarget(Input input) {
    std::string const text = input.rest();
    TbString encoded("old");
    XMLEncode(tbText(text), encoded);
    requireEqual(textOf(encoded), modelEncoded(text), "text encoded");
    TbString decoded("old");
    XMLDecode(tbText(text), decoded);
    requireEqual(textOf(decoded), modelDecoded(text), "text decoded");

    TbString itself = tbText(text);
    XMLEncode(itself, itself);
    requireEqual(textOf(itself), modelEncoded(text), "a string encoded into itself");
    XMLDecode(itself, itself);
    requireEqual(textOf(itself), text, "a string encoded and decoded");
}

}  // namespace kvxfuzz
