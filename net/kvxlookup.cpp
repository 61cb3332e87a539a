// Host names, looked up on the calling thread or, with a deadline, on a helper thread.
//
// The two threads share one state with two users; the last one deletes it, so either may be the first to go. The helper
// touches nothing but that state, traces nothing and throws nothing. It may still run when the caller is long gone: the
// shared library stays in memory for its sake (it is linked with -z nodelete).

#include "net/kvxlookup.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>

#include "foundation/tbexception.h"
#include "foundation/tbmemory.h"
#include "foundation/tbobject.h"

namespace {

constexpr std::size_t kFirstBuffer = 1024;

/// Room for the resolver and its modules.
constexpr std::size_t kHelperStack = std::size_t{512} * 1024;

/// A lookup that two threads share.
class SharedLookup {
public:
    explicit SharedLookup(char const* host) : m_Host(tbHoldMemory(std::strlen(host) + 1)) {
        std::memcpy(m_Host.get(), host, std::strlen(host) + 1);
    }
    SharedLookup(SharedLookup const&) = delete;
    SharedLookup& operator=(SharedLookup const&) = delete;
    ~SharedLookup() = default;

    /// The helper's part.
    void run() noexcept {
        KvxLookup result;
        bool hasMemory = true;
        try {
            result = kvxLookUp(m_Host.get());
        } catch (TBFC_Exception const&) {
            hasMemory = false;
        }
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Result = result;
        m_HasMemory = hasMemory;
        m_IsDone = true;
        m_Done.notify_one();
    }

    /// The caller's part.
    KvxLookup wait(KvxDeadline const& end) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (!m_Done.wait_for(lock, std::chrono::milliseconds(end.remaining()), [this] { return m_IsDone; })) {
            return {KvxLookup::Outcome::kLate, 0};
        }
        if (!m_HasMemory) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        return m_Result;
    }

    /// Ends one thread's use.
    static void leave(SharedLookup* lookup) noexcept {
        if (__atomic_sub_fetch(&lookup->m_Users, 1, __ATOMIC_ACQ_REL) == 0) {
            delete lookup;
        }
    }

    static void* operator new(std::size_t bytes) { return TbRefCounter::operator new(bytes); }
    static void operator delete(void* memory) noexcept { TbRefCounter::operator delete(memory); }

private:
    int m_Users = 2;
    TbMemoryHolder m_Host;
    std::mutex m_Mutex;  ///< Guards what follows.
    std::condition_variable m_Done;
    bool m_IsDone = false;
    bool m_HasMemory = true;
    KvxLookup m_Result;
};

struct LookupLeaver {
    void operator()(SharedLookup* lookup) const noexcept { SharedLookup::leave(lookup); }
};
using LookupHolder = std::unique_ptr<SharedLookup, LookupLeaver>;

void* runHelper(void* lookup) {
    LookupHolder const own(static_cast<SharedLookup*>(lookup));
    own->run();
    return nullptr;
}

/// Starts the helper. No signal of the process is handled on its small stack. False when there is no thread to be had.
bool startHelper(SharedLookup* lookup) noexcept {
    pthread_attr_t attributes;
    if (tbSystem().pthread_attr_init(&attributes) != 0) {
        return false;
    }
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, kHelperStack);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread = {};
    bool const isStarted = tbSystem().startThread(&thread, &attributes, &runHelper, lookup) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return isStarted;
}

}  // namespace

KvxLookup kvxLookUp(char const* host) {
    TbMemoryHolder memory;
    hostent storage = {};
    hostent* entry = nullptr;
    int failure = 0;
    for (std::size_t bytes = kFirstBuffer;; bytes *= 2) {
        memory = tbHoldMemory(bytes);
        int reason = 0;
        errno = 0;
        failure = tbSystem().gethostbyname_r(host, &storage, memory.get(), bytes, &entry, &reason);
        if (failure != ERANGE) {
            break;
        }
    }
    if (failure != 0 || entry == nullptr) {
        // The resolver has reasons of its own for this: "try again", "internal error", even "no such host".
        if (failure == ENOMEM || errno == ENOMEM) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        return {};
    }
    char const* const first = entry->h_addr_list[0];
    if (first == nullptr) {
        return {KvxLookup::Outcome::kNoAddress, 0};
    }
    KvxLookup found{KvxLookup::Outcome::kFound, 0};
    std::memcpy(&found.m_Address, first, sizeof found.m_Address);
    return found;
}

KvxLookup kvxLookUp(char const* host, KvxDeadline const& end) {
    LookupHolder const lookup(new SharedLookup(host));
    if (!startHelper(lookup.get())) {
        SharedLookup::leave(lookup.get());
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);  // a process at its limit of threads; the name may be right
    }
    return lookup->wait(end);
}
