// A C++ program of somebody else's: uses classes of every layer of the installed library.

#include <tallowin/cConfigurationSetup.h>
#include <tallowin/cMessageFactory.h>
#include <tallowin/cMessageObject.h>
#include <tallowin/kvxhttp.h>
#include <tallowin/tallowin.h>
#include <tallowin/tbexception.h>
#include <tallowin/tbmap.h>
#include <tallowin/tbvector.h>
#include <tallowin/xmlparser.h>

#include <cstdio>
#include <memory>
#include <typeinfo>

namespace {

int failures = 0;

void check(bool held, char const* what) {
    failures += held ? 0 : 1;
    std::printf("C++: %s: %s\n", held ? "ok" : "FAILED", what);
}

void exceptionsAreCaughtByTheirType() {
    std::int32_t code = KVX_OK;
    try {
        KVXCIMPL_ConfigurationSetup().SetOption("nonsense", "");
    } catch (KVX_Exception const& failure) {
        code = failure.code();
        check(failure.text() == TbString("invalid option"), "an exception carries its text over");
    }
    check(code == KVX_E_INVALID_OPTION, "KVX_Exception is caught by its type");

    code = KVX_OK;
    try {
        (void)TbVector().at(0);
    } catch (TBFC_Exception const& failure) {
        code = failure.code();
    }
    check(code == KVX_E_OUT_OF_RANGE, "TBFC_Exception is caught by its type");
}

/// A class of the program's own on top of one of the library's.
class Note : public TbString {
public:
    using TbString::TbString;
    bool isInstanceOf(char const* className) const override {
        return tbIsName(className, "Note") || TbString::isInstanceOf(className);
    }
};

void classesCanBeUsedAndDerivedFrom() {
    Note const note("abc");
    TbObject const& object = note;
    check(object.isInstanceOf("Note") && object.isInstanceOf("TbFindable"), "a derived class joins the family");

    TbObject* made = nullptr;
    object.getAllocator()(&made);
    check(made != nullptr && typeid(*made) == typeid(TbString), "types are the same on both sides");
    delete made;

    TbStrMap map;
    map[TbString("key")] = TbString("value");
    check(map.count() == 1, "containers work");

    TbStringStream text("<A B=\"1\"/>");
    xmlElement* parsed = nullptr;
    check(xmlParser().parseText(text, &parsed) == 0, "a document is parsed");
    TbStringStream written;
    parsed->toStream(written);
    check(written.str() == TbString("<A B=\"1\"/>"), "and written");
    parsed->release();

    TbStringStream plain("a b");
    TbStringStream encoded;
    UrlEncode(&plain, &encoded);
    check(encoded.str() == TbString("a%20b"), "an exported helper works");
}

void bothFacesShareTheirObjects() {
    KVXCIMPL_MessageObject message;
    check(MessageObject_FromString(&message, "<KVX A=\"1\"/>") == KVX_OK, "the flat face takes a C++ object");
    TbString value;
    message.GetAttribute("A", value);
    check(value == TbString("1"), "and fills it");
    auto made = std::make_unique<KVXCIMPL_MessageObject>();
    made->FromString("<KVX/>");
    check(made->ToString() == TbString("<KVX KEYID=\"\"/>"), "an object made with new works");
}

}  // namespace

int main() {
    std::int32_t const before = TbRefCounter::m_nTotalRef;
    exceptionsAreCaughtByTheirType();
    classesCanBeUsedAndDerivedFrom();
    bothFacesShareTheirObjects();
    check(TbRefCounter::m_nTotalRef == before, "nothing is left behind");
    return failures == 0 ? 0 : 1;
}
