// TbContainer, TbFindableContainer and the vectors built on them.
//
// TbVector and TbFindableVector have different bases and the same fields, so their operations are templates over those
// fields (growSlots, pushSlot, removeSlot ...), and the members call them. Odd: a count can be assigned to a container
// without elements behind it; usable() bounds every access by the block that is really there.

#include "foundation/tbvector.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "foundation/tbexception.h"
#include "foundation/tbmemory.h"
#include "foundation/tbowned.h"

namespace {

/// Slots that a growth adds beyond the request.
constexpr std::uint64_t kSlack = 16;

// The operations of both vectors, over their fields.

/// The number of elements with memory behind them: all, unless a bare count was assigned to the container.
template <class T>
std::uint32_t usable(T** elements, std::uint32_t count) {
    return static_cast<std::uint32_t>(std::min<std::size_t>(count, tbBlockSize(elements) / sizeof(T*)));
}

/// Makes the block hold `slots` slots and nulls those behind the elements.
template <class T>
void reserve(T**& elements, std::uint32_t count, std::uint32_t slots) {
    std::uint32_t const kept = usable(elements, count);
    void* const block = tbResizeBlock(elements, std::uint64_t{slots} * sizeof(T*));
    if (block == nullptr) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    elements = static_cast<T**>(block);
    std::memset(elements + kept, 0, std::size_t{slots - kept} * sizeof(T*));
}

template <class T>
void growSlots(T**& elements, std::uint32_t count, std::uint32_t& capacity, std::uint32_t slots) {
    if (slots <= capacity && std::uint64_t{slots} * sizeof(T*) <= tbBlockSize(elements)) {
        return;
    }
    std::uint64_t const wanted = slots + kSlack;
    if (slots > capacity) {
        if (wanted > UINT32_MAX) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        capacity = static_cast<std::uint32_t>(wanted);
    }
    // After a failed growth the published capacity may never be reached; this request may be smaller.
    reserve(elements, count, static_cast<std::uint32_t>(std::min<std::uint64_t>(capacity, wanted)));
}

template <class T>
void pushSlot(T**& elements, std::uint32_t& count, std::uint32_t& capacity, T* element) {
    if (count == UINT32_MAX) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    growSlots(elements, count, capacity, count + 1);
    elements[count++] = element;
}

template <class T>
T* slotAt(T** elements, std::uint32_t count, std::uint32_t index) {
    if (index >= usable(elements, count)) {
        throw TBFC_Exception(KVX_E_OUT_OF_RANGE);
    }
    return elements[index];
}

/// Fills fresh slots with the elements of another vector. Makes room for the elements that are really there; they may
/// be more than a capacity that was assigned without elements.
template <class T>
void copySlots(T**& elements, std::uint32_t& count, std::uint32_t capacity, T** source, std::uint32_t sourceCount) {
    // Checked before there is anything to release: a constructor that fails destroys nothing.
    if (usable(source, sourceCount) < sourceCount) {
        throw TBFC_Exception(KVX_E_OUT_OF_RANGE);
    }
    reserve(elements, 0, std::max(capacity, sourceCount));
    while (count < sourceCount) {
        elements[count] = source[count];
        ++count;
    }
}

template <class T>
void removeSlot(T**& elements, std::uint32_t& count, std::uint32_t index) {
    std::uint32_t const present = usable(elements, count);
    if (index >= present) {
        throw TBFC_Exception(KVX_E_OUT_OF_RANGE);
    }
    --count;
    if (index == 0) {
        // Nothing moves: emptying a vector from its front is as fast as from its end.
        elements = static_cast<T**>(tbDropFront(elements, sizeof(T*)));
        return;
    }
    std::memmove(elements + index, elements + index + 1, std::size_t{present - 1 - index} * sizeof(T*));
    elements[present - 1] = nullptr;
}

template <class T>
void releaseSlots(T**& elements) noexcept {
    tbReleaseBlock(elements);
    elements = nullptr;
}

}  // namespace

TbContainer& TbContainer::operator=(TbContainer const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

bool TbContainer::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbContainer") || TbObject::isInstanceOf(className);
}

TbObject& TbContainer::assign(TbObject& other) {
    auto const& source = static_cast<TbContainer const&>(other);
    m_Count = source.m_Count;
    m_Capacity = source.m_Capacity;
    return *this;
}

void TbContainer::clear() {
    m_Count = 0;
    m_Capacity = 0;
}

TbFindableContainer& TbFindableContainer::operator=(TbFindableContainer const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

bool TbFindableContainer::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbFindableContainer") || TbFindable::isInstanceOf(className);
}

TbObject& TbFindableContainer::assign(TbObject& other) {
    auto const& source = static_cast<TbFindableContainer const&>(other);
    m_Count = source.m_Count;
    m_Capacity = source.m_Capacity;
    return *this;
}

void TbFindableContainer::clear() {
    m_Count = 0;
    m_Capacity = 0;
}

TbVector::TbVector(std::uint32_t capacity) {
    reserve(m_Elements, 0, capacity);
    m_Capacity = capacity;
}

TbVector::TbVector(TbVector const& other) : TbContainer() {
    TbVector::assign(other);
}

TbVector::~TbVector() {
    releaseSlots(m_Elements);
}

TbVector& TbVector::operator=(TbVector const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

TbAllocator TbVector::getAllocator() const {
    return &TbVector::allocate;
}

TbVector& TbVector::assign(TbObject const& other) {
    auto const& source = static_cast<TbVector const&>(other);
    if (&source != this) {
        clear();
        m_Capacity = source.m_Capacity;
        copySlots(m_Elements, m_Count, m_Capacity, source.m_Elements, source.m_Count);
    }
    return *this;
}

bool TbVector::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbVector") || TbContainer::isInstanceOf(className);
}

void TbVector::clear() {
    releaseSlots(m_Elements);
    TbContainer::clear();
}

TbObject* TbVector::at(std::uint32_t index) const {
    return slotAt(m_Elements, m_Count, index);
}

void TbVector::grow(std::uint32_t slots) {
    growSlots(m_Elements, m_Count, m_Capacity, slots);
}

void TbVector::push_back(TbObject* element) {
    pushSlot(m_Elements, m_Count, m_Capacity, element);
}

void TbVector::pop_back() {
    assert(m_Count > 0);
    --m_Count;
}

void TbVector::remove(std::uint32_t index) {
    removeSlot(m_Elements, m_Count, index);
}

void TbVector::allocate(TbObject** slot) {
    tbAllocateInto<TbVector>(slot);
}

TbStack& TbStack::operator=(TbStack const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

TbAllocator TbStack::getAllocator() const {
    return &TbStack::allocate;
}

bool TbStack::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbStack") || TbVector::isInstanceOf(className);
}

TbObject* TbStack::peek() const {
    if (m_Count == 0) {
        throw TBFC_Exception(KVX_E_OUT_OF_RANGE);
    }
    return at(m_Count - 1);
}

void TbStack::allocate(TbObject** slot) {
    tbAllocateInto<TbStack>(slot);
}

TbFindableVector::TbFindableVector(std::uint32_t capacity) {
    reserve(m_Elements, 0, capacity);
    m_Capacity = capacity;
}

TbFindableVector::TbFindableVector(TbFindableVector const& other) : TbFindableContainer() {
    TbFindableVector::assign(other);
}

TbFindableVector::~TbFindableVector() {
    releaseSlots(m_Elements);
}

TbFindableVector& TbFindableVector::operator=(TbFindableVector const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

TbAllocator TbFindableVector::getAllocator() const {
    return &TbFindableVector::allocate;
}

TbFindableVector& TbFindableVector::assign(TbObject const& other) {
    auto const& source = static_cast<TbFindableVector const&>(other);
    if (&source != this) {
        clear();
        m_Capacity = source.m_Capacity;
        copySlots(m_Elements, m_Count, m_Capacity, source.m_Elements, source.m_Count);
    }
    return *this;
}

bool TbFindableVector::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbFindableVector") || TbFindableContainer::isInstanceOf(className);
}

bool TbFindableVector::operator<(TbFindable const& other) const {
    if (!tbIs<TbFindableVector>(other, "TbFindableVector")) {
        return m_Count == 0 || *at(0) < other;
    }
    auto const& vector = static_cast<TbFindableVector const&>(other);
    if (m_Count == 0) {
        return vector.m_Count != 0;
    }
    if (vector.m_Count < m_Count) {
        return false;
    }
    return *at(0) < *vector.at(0);
}

bool TbFindableVector::operator==(TbFindable const& other) const {
    if (!tbIs<TbFindableVector>(other, "TbFindableVector")) {
        return m_Count != 0 && *at(0) == other;
    }
    auto const& vector = static_cast<TbFindableVector const&>(other);
    if (m_Count == 0) {
        return vector.m_Count != 0;
    }
    if (m_Count != vector.m_Count) {
        return false;
    }
    return *at(0) == *vector.at(0);
}

void TbFindableVector::clear() {
    releaseSlots(m_Elements);
    TbFindableContainer::clear();
}

TbFindable* TbFindableVector::at(std::uint32_t index) const {
    return slotAt(m_Elements, m_Count, index);
}

void TbFindableVector::grow(std::uint32_t slots) {
    growSlots(m_Elements, m_Count, m_Capacity, slots);
}

void TbFindableVector::push_back(TbFindable* element) {
    pushSlot(m_Elements, m_Count, m_Capacity, element);
}

void TbFindableVector::pop_back() {
    assert(m_Count > 0);
    --m_Count;
}

void TbFindableVector::remove(std::uint32_t index) {
    removeSlot(m_Elements, m_Count, index);
}

void TbFindableVector::allocate(TbObject** slot) {
    tbAllocateInto<TbFindableVector>(slot);
}
