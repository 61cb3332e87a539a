#include "foundation/tbptr.h"

TbPtr::TbPtr(TbRefCounter* target) : m_Target(target) {
    if (m_Target != nullptr) {
        m_Target->addRef();
    }
}

TbPtr::TbPtr(TbPtr const& other) : TbObject(), m_Target(other.m_Target) {
    if (m_Target != nullptr) {
        m_Target->addRef();
    }
}

TbPtr::~TbPtr() {
    adopt(nullptr);
}

TbPtr& TbPtr::operator=(TbPtr const& other) {
    TbRefCounter* const target = other.m_Target;
    if (target == m_Target) {
        return *this;
    }
    if (target != nullptr) {
        target->addRef();
    }
    adopt(target);
    return *this;
}

TbAllocator TbPtr::getAllocator() const {
    return &TbPtr::allocate;
}

bool TbPtr::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbPtr") || TbObject::isInstanceOf(className);
}

void TbPtr::adopt(TbRefCounter* target) {
    TbRefCounter* const old = m_Target;
    m_Target = target;
    if (old != nullptr) {
        old->release();
    }
}

void TbPtr::allocate(TbObject** slot) {
    tbAllocateInto<TbPtr>(slot);
}
