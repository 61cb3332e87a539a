/// Growable arrays of object pointers.
#ifndef TALLOWIN_FOUNDATION_TBVECTOR_H
#define TALLOWIN_FOUNDATION_TBVECTOR_H

#include <cstdint>

#include "tallowin/tbobject.h"

// Deliberate (hidden-overloads): containers hide inherited overloads; which one a call finds is part of their
// behaviour.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"

/// Count and capacity of a container.
class KVX_EXPORT TbContainer : public TbObject {
public:
    TbContainer() = default;
    TbContainer(TbContainer const&) = delete;
    using TbObject::operator=;
    TbContainer& operator=(TbContainer const& other);

    TbAllocator getAllocator() const override = 0;
    using TbObject::assign;
    bool isInstanceOf(char const* className) const override;

    /// Copies count and capacity alone; accessing a counted element that is not there raises KVX_E_OUT_OF_RANGE.
    /// Deliberate (bare-count-assign): another operation than `assign(TbObject const&)`, and the one a non-const
    /// argument finds here.
    virtual TbObject& assign(TbObject& other);

    /// Count and capacity become 0.
    virtual void clear();

    /// Elements in use.
    [[nodiscard]] std::uint32_t count() const noexcept { return m_Count; }

    /// Slots allocated.
    [[nodiscard]] std::uint32_t capacity() const noexcept { return m_Capacity; }

protected:
    std::uint32_t m_Count = 0;     ///< Never above m_Capacity where the container has slots.
    std::uint32_t m_Capacity = 0;  ///< Published number of slots; stays raised when a growth fails.
};

/// The same for containers that can be ordered themselves.
class KVX_EXPORT TbFindableContainer : public TbFindable {
public:
    TbFindableContainer() = default;
    TbFindableContainer(TbFindableContainer const&) = delete;
    using TbFindable::operator=;
    TbFindableContainer& operator=(TbFindableContainer const& other);

    TbAllocator getAllocator() const override = 0;
    using TbFindable::assign;
    bool isInstanceOf(char const* className) const override;

    /// Copies count and capacity alone; accessing a counted element that is not there raises KVX_E_OUT_OF_RANGE.
    /// Deliberate (bare-count-assign): overloads `assign(TbObject const&)` and is chosen here for a non-const argument.
    virtual TbObject& assign(TbObject& other);

    /// Count and capacity become 0.
    virtual void clear();

    [[nodiscard]] std::uint32_t count() const noexcept { return m_Count; }
    [[nodiscard]] std::uint32_t capacity() const noexcept { return m_Capacity; }

protected:
    std::uint32_t m_Count = 0;     ///< Never above m_Capacity.
    std::uint32_t m_Capacity = 0;  ///< Published number of slots; stays raised when a growth fails.
};

/// Pointers to any objects. Stores addresses only: no element is ever constructed, copied, counted or destroyed here.
///
/// KVX_E_OUT_OF_MEMORY and KVX_E_OUT_OF_RANGE are raised as TBFC_Exception; a failing `at`, `remove` or `peek` changes
/// nothing. One thread at a time.
class KVX_EXPORT TbVector : public TbContainer {
public:
    TbVector() = default;

    /// An empty vector with `capacity` slots, all null.
    explicit TbVector(std::uint32_t capacity);

    /// A shallow copy.
    TbVector(TbVector const& other);
    ~TbVector() override;

    TbVector& operator=(TbVector const& other);
    using TbContainer::operator=;

    TbAllocator getAllocator() const override;

    /// Takes capacity and element pointers of `other`: both share their elements then. Itself: no change.
    TbVector& assign(TbObject const& other) override;

    bool isInstanceOf(char const* className) const override;

    /// Frees the slots; the elements are untouched.
    void clear() override;

    /// Element `index`, borrowed. Raises KVX_E_OUT_OF_RANGE.
    [[nodiscard]] TbObject* at(std::uint32_t index) const;

    /// Makes room for `slots` elements in all.
    /// Deliberate (vector-slack): the capacity becomes `slots` + 16, never a multiple.
    void grow(std::uint32_t slots);

    /// Adds `element` at the end.
    void push_back(TbObject* element);

    /// Removes the last element. Requires: `count()` > 0, which is not checked in release builds.
    /// Deliberate (vector-pop-wraps): without an element the count wraps around.
    void pop_back();

    /// Removes element `index`; later ones move down in order. Raises KVX_E_OUT_OF_RANGE.
    void remove(std::uint32_t index);

    static void allocate(TbObject** slot);

private:
    TbObject** m_Elements = nullptr;  ///< Owned slots; null behind the elements after a growth.
};

/// A vector used as a stack: `push_back`, `pop_back`, `peek`.
class KVX_EXPORT TbStack : public TbVector {
public:
    using TbVector::TbVector;
    TbStack() = default;
    TbStack(TbStack const&) = default;
    TbStack& operator=(TbStack const& other);
    using TbVector::operator=;

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) const override;

    /// The last element, borrowed. Raises KVX_E_OUT_OF_RANGE on an empty stack.
    [[nodiscard]] TbObject* peek() const;

    static void allocate(TbObject** slot);
};

/// Pointers to orderable objects; a TbVector otherwise.
///
/// Deliberate (vector-order-by-first): only first elements are compared, and counts and empty vectors make the results
/// no strict order; see the operators.
class KVX_EXPORT TbFindableVector : public TbFindableContainer {
public:
    TbFindableVector() = default;
    explicit TbFindableVector(std::uint32_t capacity);
    TbFindableVector(TbFindableVector const& other);
    ~TbFindableVector() override;

    TbFindableVector& operator=(TbFindableVector const& other);
    using TbFindableContainer::operator=;

    TbAllocator getAllocator() const override;
    TbFindableVector& assign(TbObject const& other) override;
    bool isInstanceOf(char const* className) const override;

    /// Not a vector: true when this is empty, else first element < `other`. A vector: empty this is less than a
    /// non-empty one; one with fewer elements than this is never greater; else first < first.
    bool operator<(TbFindable const& other) const override;

    /// Not a vector: first element == `other`, false when empty. A vector: an empty one equals every non-empty one;
    /// different counts are unequal; else first == first.
    bool operator==(TbFindable const& other) const override;

    void clear() override;

    [[nodiscard]] TbFindable* at(std::uint32_t index) const;
    void grow(std::uint32_t slots);
    void push_back(TbFindable* element);
    void pop_back();
    void remove(std::uint32_t index);

    static void allocate(TbObject** slot);

private:
    TbFindable** m_Elements = nullptr;  ///< Owned slots; null behind the elements after a growth.
};

#pragma GCC diagnostic pop

#endif
