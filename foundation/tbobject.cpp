#include "foundation/tbobject.h"

#include <cstring>

#include "foundation/tbexception.h"
#include "foundation/tbmemory.h"
#include "foundation/tbstring.h"

std::int32_t TbRefCounter::m_nTotalRef = 0;

TbRefCounter::~TbRefCounter() {
    if (m_RefCount != kUncounted) {
        countLiving(-1);
    }
}

void* TbRefCounter::operator new(std::size_t bytes) {
    void* const memory = tbAllocate(bytes);
    if (memory == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    return memory;
}

void* TbRefCounter::operator new(std::size_t bytes, std::nothrow_t const&) noexcept {
    return tbAllocate(bytes);
}

void TbRefCounter::operator delete(void* memory) noexcept {
    tbRelease(memory);
}

bool tbIsName(char const* name, char const* own) noexcept {
    return name != nullptr && (name == own || std::strcmp(name, own) == 0);
}

TbAllocator TbObject::getAllocator() const {
    return &TbObject::allocate;
}

TbObject& TbObject::assign(TbObject const&) {
    return *this;
}

TbObject& TbObject::operator=(TbObject const& other) {
    return assign(other);
}

bool TbObject::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbObject");
}

void TbObject::allocate(TbObject** slot) {
    tbAllocateInto<TbObject>(slot);
}

TbFindable& TbFindable::operator=(TbFindable const& other) {
    assign(other);
    return *this;
}

TbAllocator TbFindable::getAllocator() const {
    return &TbFindable::allocate;
}

bool TbFindable::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbFindable") || TbObject::isInstanceOf(className);
}

bool TbFindable::operator<(TbFindable const&) const {
    return false;
}

bool TbFindable::operator==(TbFindable const&) const {
    return false;
}

void TbFindable::allocate(TbObject** slot) {
    tbAllocateInto<TbFindable>(slot);
}
