#ifndef TALLOWIN_EXAMPLES_SHOP_TURN_H
#define TALLOWIN_EXAMPLES_SHOP_TURN_H

#include <atomic>

namespace storefront {

/// A place among the few who may wait for the payment service at once. The library waits without a limit, so a service
/// that does not answer holds a thread of the shop for each; without this it would soon have all of them.
class Turn {
public:
    static constexpr int kMost = 8;

    /// `taken` counts the places that are taken; borrowed.
    explicit Turn(std::atomic<int>& taken) : m_Taken(taken), m_Mine(++taken <= kMost) {}
    ~Turn() { --m_Taken; }
    Turn(Turn const&) = delete;
    Turn& operator=(Turn const&) = delete;

    /// Whether there was a place.
    explicit operator bool() const { return m_Mine; }

private:
    std::atomic<int>& m_Taken;
    bool m_Mine;
};

}  // namespace storefront

#endif
