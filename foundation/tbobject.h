/// The object model: reference counting, class names as text, factories, copying through a virtual `assign`.
#ifndef TALLOWIN_FOUNDATION_TBOBJECT_H
#define TALLOWIN_FOUNDATION_TBOBJECT_H

#include <sys/single_threaded.h>

#include <cstddef>
#include <cstdint>
#include <new>

#include "tallowin/export.h"

class TbObject;

/// A class's factory: destroys the object in `*slot`, regardless of its count, then stores a new empty object there.
/// Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception) when there is no memory; `*slot` is null then.
using TbAllocator = void (*)(TbObject** slot);

/// Marks an object that its maker counts as living, in one step with others.
struct TbCountedByMaker {};

/// Marks an object that does not count itself as living: one of the library's own that begins and ends within one call,
/// or a member that TbCountedMembers counts. All threads share that number, and changing it for every string on a stack
/// would have them wait for each other.
struct TbUncounted {};

/// The root: counts the references to itself, and all living objects together.
///
/// A new object has count 0 and belongs to its creator until a TbPtr takes it. One object may be used by one thread at
/// a time; different objects may be used by different threads, so the common counter is changed atomically.
class KVX_EXPORT TbRefCounter {
public:
    TbRefCounter() noexcept { countLiving(1); }

    /// A copy is an object of its own: its count starts at 0.
    TbRefCounter(TbRefCounter const&) noexcept { countLiving(1); }

    /// Assignment leaves both counts unchanged.
    TbRefCounter& operator=(TbRefCounter const&) noexcept { return *this; }

    virtual ~TbRefCounter();

    /// Adds one reference.
    void addRef() noexcept { ++m_RefCount; }

    /// Drops one reference; destroys the object through its virtual destructor when none is left.
    void release() {
        if (--m_RefCount == 0) {
            delete this;
        }
    }

    /// References held now.
    [[nodiscard]] std::int32_t refCount() const noexcept { return m_RefCount; }

    /// Number of living objects of all derived classes, embedded ones included, save those that a call of the library
    /// makes for itself. Returns to its start when nothing leaks.
    static std::int32_t m_nTotalRef;

    /// Raise KVX_E_OUT_OF_MEMORY (TBFC_Exception) instead of std::bad_alloc.
    static void* operator new(std::size_t bytes);
    static void* operator new(std::size_t bytes, std::nothrow_t const&) noexcept;
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* memory) noexcept;
    static void operator delete(void*, void*) noexcept {}

protected:
    explicit TbRefCounter(TbCountedByMaker) noexcept {}
    explicit TbRefCounter(TbUncounted) noexcept : m_RefCount(kUncounted) {}

private:
    friend struct TbMapEntry;
    template <std::int32_t kMembers>
    friend class TbCountedMembers;

    /// In m_RefCount: an object that does not count itself, and that takes no references.
    static constexpr std::int32_t kUncounted = INT32_MIN;

    /// In a process with one thread a plain addition does, which takes a fraction of the time.
    static void countLiving(std::int32_t change) noexcept {
        if (__libc_single_threaded != 0) {
            m_nTotalRef += change;
        } else {
            __atomic_fetch_add(&m_nTotalRef, change, __ATOMIC_RELAXED);
        }
    }

    std::int32_t m_RefCount = 0;  ///< Never negative, but for kUncounted.
};

/// A part of an object that has `kMembers` uncounted members: counts them as living, in one step.
template <std::int32_t kMembers>
class TbCountedMembers {
public:
    TbCountedMembers() noexcept { TbRefCounter::countLiving(kMembers); }
    TbCountedMembers(TbCountedMembers const&) noexcept : TbCountedMembers() {}
    TbCountedMembers& operator=(TbCountedMembers const&) noexcept { return *this; }
    ~TbCountedMembers() { TbRefCounter::countLiving(-kMembers); }
};

/// An object that knows its class: name, factory and copying.
class KVX_EXPORT TbObject : public TbRefCounter {
public:
    TbObject() = default;
    TbObject(TbObject const&) = default;

    /// The factory of this object's class.
    [[nodiscard]] virtual TbAllocator getAllocator() const;

    /// Copies the state of `other`, an object of the same class (not checked), into this one and returns this one.
    /// Here: copies nothing.
    virtual TbObject& assign(TbObject const& other);

    /// Calls the virtual `assign`.
    virtual TbObject& operator=(TbObject const& other);

    /// Whether `className` is this class or one of its bases up to TbObject. Null and "TbRefCounter" never are.
    virtual bool isInstanceOf(char const* className) const;

    static void allocate(TbObject** slot);

protected:
    explicit TbObject(TbCountedByMaker how) noexcept : TbRefCounter(how) {}
    explicit TbObject(TbUncounted how) noexcept : TbRefCounter(how) {}
};

/// An object that can be ordered. Containers call both operators; here both return false.
class KVX_EXPORT TbFindable : public TbObject {
public:
    TbFindable() = default;
    TbFindable(TbFindable const&) = default;
    using TbObject::operator=;
    TbFindable& operator=(TbFindable const& other);

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) const override;
    virtual bool operator<(TbFindable const& other) const;
    virtual bool operator==(TbFindable const& other) const;

    static void allocate(TbObject** slot);

protected:
    explicit TbFindable(TbCountedByMaker how) noexcept : TbObject(how) {}
    explicit TbFindable(TbUncounted how) noexcept : TbObject(how) {}
};

/// The body of every class's `allocate`.
template <class T>
void tbAllocateInto(TbObject** slot) {
    TbObject* const old = *slot;
    *slot = nullptr;
    delete old;
    *slot = new T;
}

/// Whether `name` is `own`. Null never is.
KVX_EXPORT bool tbIsName(char const* name, char const* own) noexcept;

#endif
