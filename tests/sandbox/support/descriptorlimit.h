#ifndef TALLOWIN_TESTS_SANDBOX_SUPPORT_DESCRIPTORLIMIT_H
#define TALLOWIN_TESTS_SANDBOX_SUPPORT_DESCRIPTORLIMIT_H

#include <sys/resource.h>

namespace sandboxtest {

/// Sets how many descriptors this process may have, and sets it back.
class DescriptorLimit {
public:
    DescriptorLimit() { ::getrlimit(RLIMIT_NOFILE, &m_Before); }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &m_Before); }
    DescriptorLimit(DescriptorLimit const&) = delete;
    DescriptorLimit& operator=(DescriptorLimit const&) = delete;

    /// False when the system does not allow so many.
    [[nodiscard]] bool set(rlim_t count) const {
        rlimit const limit{count, m_Before.rlim_max};
        return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
    }

private:
    rlimit m_Before{};
};

}  // namespace sandboxtest

#endif  // TALLOWIN_TESTS_SANDBOX_SUPPORT_DESCRIPTORLIMIT_H
