#include "tests/support/smallstack.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <exception>

namespace kvxtest {

void onStackOf(std::size_t stackBytes, std::function<void()> const& call) {
    struct Work {
        std::function<void()> const& m_Call;
        std::exception_ptr m_Failure;
    } work{call, nullptr};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, stackBytes), 0);
    pthread_t thread;
    int const started = pthread_create(
        &thread, &attributes,
        [](void* argument) -> void* {
            auto* const todo = static_cast<Work*>(argument);
            try {
                todo->m_Call();
            } catch (...) {
                todo->m_Failure = std::current_exception();
            }
            return nullptr;
        },
        &work);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(started, 0);
    pthread_join(thread, nullptr);
    if (work.m_Failure) {
        std::rethrow_exception(work.m_Failure);
    }
}

}  // namespace kvxtest
