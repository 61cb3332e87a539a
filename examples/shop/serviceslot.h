#ifndef TALLOWIN_EXAMPLES_SHOP_SERVICESLOT_H
#define TALLOWIN_EXAMPLES_SHOP_SERVICESLOT_H

#include <atomic>

namespace storefront {

/// One of the few slots for threads that wait for the payment service at the same time. The library has no timeout, so
/// a service that does not answer blocks each waiting thread; without this limit it would soon block all of the shop's.
class ServiceSlot {
public:
    static constexpr int kMaxSlots = 8;

    /// Takes a slot when one is free. `inUse` counts the slots in use; borrowed.
    explicit ServiceSlot(std::atomic<int>& inUse) : m_InUse(inUse), m_IsMine(++inUse <= kMaxSlots) {}
    ~ServiceSlot() { --m_InUse; }
    ServiceSlot(ServiceSlot const&) = delete;
    ServiceSlot& operator=(ServiceSlot const&) = delete;

    /// Whether this object has a slot.
    explicit operator bool() const { return m_IsMine; }

private:
    std::atomic<int>& m_InUse;
    bool m_IsMine;
};

}  // namespace storefront

#endif
