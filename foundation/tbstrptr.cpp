#include "foundation/tbstrptr.h"

#include "foundation/tbowned.h"

namespace {

/// The key to compare with: that of another pair, or a bare string itself; null for anything else.
TbString const* stringKeyOf(TbFindable const& other) {
    TbFindable const& key = tbKeyOf(other);
    return tbIs<TbString>(key, "TbString") ? static_cast<TbString const*>(&key) : nullptr;
}

}  // namespace

TbStrPtr::TbStrPtr(TbString const& key, TbPtr const& value) : m_Key(key), m_Value(value) {}

TbStrPtr& TbStrPtr::operator=(TbStrPtr const& other) {
    assign(other);
    return *this;
}

TbAllocator TbStrPtr::getAllocator() const {
    return &TbStrPtr::allocate;
}

TbStrPtr& TbStrPtr::assign(TbObject const& other) {
    auto const& source = static_cast<TbStrPtr const&>(other);
    m_Key.assign(source.m_Key);
    m_Value = source.m_Value;
    return *this;
}

bool TbStrPtr::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbStrPtr") || TbFindable::isInstanceOf(className);
}

bool TbStrPtr::operator<(TbFindable const& other) const {
    TbString const* const key = stringKeyOf(other);
    return key != nullptr && m_Key.compare(*key) < 0;
}

bool TbStrPtr::operator==(TbFindable const& other) const {
    TbString const* const key = stringKeyOf(other);
    return key != nullptr && m_Key.compare(*key) == 0;
}

void TbStrPtr::allocate(TbObject** slot) {
    tbAllocateInto<TbStrPtr>(slot);
}
