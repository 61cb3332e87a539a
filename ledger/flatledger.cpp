// The flat functions over the class OrderLedger.
//
// Order: the objects behind the handles, the one boundary that turns exceptions into codes, then the functions of
// tallowin/ledger.h in its order. An object remembers the process that created it: a child of fork() has a copy of its
// memory, but the connection to the store is the parent's.
#include <cxxabi.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>

#include "ledger/failure.h"
#include "ledger/handleregistry.h"
#include "ledger/orderledger.h"
#include "ledger/textout.h"
#include "tallowin/ledger.h"

namespace {

using ledger::Failure;
using ledger::Kind;
using ledger::OrderContent;
using ledger::OrderLedger;
using ledger::TextOut;

struct LedgerOrder;

struct Ledger {
    static constexpr Kind kKind = Kind::kLedger;

    OrderLedger m_Ledger;
    std::set<LedgerOrder*> m_Orders;  ///< Under construction; destroyed with this object.
    pid_t m_Process = ::getpid();
    ledger::OwnHandle m_Handle{this, kKind};
};

struct LedgerOrder {
    static constexpr Kind kKind = Kind::kOrder;

    Ledger* m_Owner = nullptr;
    OrderContent m_Content;
    pid_t m_Process = ::getpid();
    ledger::OwnHandle m_Handle{this, kKind};
};

char const* textOf(char const* text) {
    return text == nullptr ? "" : text;
}

/// Runs `work` and returns its code. An exception becomes a code: a Failure its own, lack of memory
/// KVX_E_OUT_OF_MEMORY, any other KVX_E_UNEXPECTED. Only the cancellation of a thread passes.
template <class Work>
std::int32_t guarded(Work work) {
    std::int32_t code = KVX_OK;
    char const* reason = "";
    try {
        work();
        return KVX_OK;
    } catch (Failure const& failure) {
        ledger::noteFailure(failure.code(), failure.what());
        return failure.code();
    } catch (std::bad_alloc const&) {
        code = KVX_E_OUT_OF_MEMORY;
        reason = "there is no memory";
    } catch (abi::__forced_unwind const&) {
        throw;  // the C library ends the process when a cancellation is stopped
    } catch (std::exception const& failure) {
        ledger::noteFailure(KVX_E_UNEXPECTED, failure.what());
        return KVX_E_UNEXPECTED;
    } catch (...) {
        code = KVX_E_UNEXPECTED;
        reason = "an exception that is none of the ledger's";
    }
    ledger::noteFailure(code, reason);
    return code;
}

/// Runs `work` with the object of a living handle of this process.
template <class Object, class Work>
std::int32_t with(KVX_HANDLE handle, Work work) {
    return guarded([&] {
        auto* const living = static_cast<Object*>(ledger::objectOf(handle, Object::kKind));
        if (living == nullptr) {
            throw Failure(KVX_E_BAD_HANDLE, "the handle is null, destroyed or of another kind");
        }
        Object& object = *living;
        if (object.m_Process != ::getpid()) {
            throw Failure(KVX_E_LEDGER_FORKED, "process " + std::to_string(object.m_Process) +
                                                   " has opened it, this is process " + std::to_string(::getpid()));
        }
        work(object);
    });
}

/// Runs `work` with a ledger and copies the text that it returns.
template <class Work>
std::int32_t copyFrom(KVX_HANDLE handle, std::int32_t* size, char* buffer, Work work) {
    return with<Ledger>(handle, [&](Ledger& ledger) { TextOut(size, buffer).copy(work(ledger.m_Ledger)); });
}

}  // namespace

KVX_HANDLE CreateLedger() {
    KVX_HANDLE made = nullptr;
    guarded([&] { made = std::make_unique<Ledger>().release()->m_Handle.get(); });
    return made;
}

void DestroyLedger(KVX_HANDLE handle) {
    std::unique_ptr<Ledger> const object(static_cast<Ledger*>(ledger::removeHandle(handle, Kind::kLedger)));
    if (object == nullptr) {
        return;
    }
    for (LedgerOrder* const order : object->m_Orders) {
        delete order;
    }
    if (object->m_Process != ::getpid()) {
        object->m_Ledger.abandon();
    }
}

int32_t Ledger_SetOption(KVX_HANDLE handle, char const* name, char const* value) {
    return with<Ledger>(handle, [&](Ledger& ledger) { ledger.m_Ledger.setOption(textOf(name), textOf(value)); });
}

int32_t Ledger_Open(KVX_HANDLE handle, char const* store, char const* directory) {
    return with<Ledger>(handle, [&](Ledger& ledger) { ledger.m_Ledger.open(textOf(store), textOf(directory)); });
}

int32_t Ledger_GetLastErrorText(int32_t* size, char* buffer) {
    char const* const reason = ledger::lastFailure();
    if (reason == nullptr) {
        return KVX_E_NOT_FOUND;
    }
    try {
        TextOut(size, buffer).copy(reason);
        return KVX_OK;
    } catch (Failure const& failure) {
        return failure.code();
    } catch (std::bad_alloc const&) {
        return KVX_E_OUT_OF_MEMORY;
    }
}

int32_t Ledger_CreateOrder(KVX_HANDLE handle, char const* number, char const* amount, char const* currency,
                           KVX_HANDLE* out) {
    return with<Ledger>(handle, [&](Ledger& ledger) {
        auto order = std::make_unique<LedgerOrder>();
        order->m_Owner = &ledger;
        order->m_Content.m_Number = textOf(number);
        order->m_Content.m_Amount = textOf(amount);
        order->m_Content.m_Currency = textOf(currency);
        order->m_Content.requireValid();
        ledger.m_Orders.insert(order.get());
        *out = order.release()->m_Handle.get();
    });
}

void DestroyLedgerOrder(KVX_HANDLE handle) {
    std::unique_ptr<LedgerOrder> const order(static_cast<LedgerOrder*>(ledger::removeHandle(handle, Kind::kOrder)));
    if (order != nullptr) {
        order->m_Owner->m_Orders.erase(order.get());
    }
}

int32_t LedgerOrder_SetAttribute(KVX_HANDLE handle, char const* name, char const* value) {
    return with<LedgerOrder>(handle,
                             [&](LedgerOrder& order) { order.m_Content.setAttribute(textOf(name), textOf(value)); });
}

int32_t LedgerOrder_Begin(KVX_HANDLE handle, int32_t* size, char* url) {
    return with<LedgerOrder>(
        handle, [&](LedgerOrder& order) { TextOut(size, url).copy(order.m_Owner->m_Ledger.begin(order.m_Content)); });
}

int32_t Ledger_Confirm(KVX_HANDLE handle, char const* messenger, char const* data, char const* signature,
                       int32_t* outcome, int32_t* size, char* order) {
    return with<Ledger>(handle, [&](Ledger& ledger) {
        TextOut const number(size, order);
        ledger::Verdict const& verdict =
            ledger.m_Ledger.confirm({textOf(messenger), textOf(data), textOf(signature)}, number);
        number.copy(verdict.m_Number);
        *outcome = verdict.m_Outcome;
    });
}

int32_t Ledger_GetReason(KVX_HANDLE handle, int32_t* reason, int32_t* size, char* sentence) {
    return with<Ledger>(handle, [&](Ledger& ledger) {
        std::optional<ledger::Verdict> const& verdict = ledger.m_Ledger.lastVerdict();
        if (!verdict) {
            throw Failure(KVX_E_NOT_FOUND, "no confirmation has been examined");
        }
        TextOut(size, sentence).copy(verdict->m_Sentence);
        *reason = verdict->m_Reason;
    });
}

int32_t Ledger_NextPaid(KVX_HANDLE handle, int32_t* size, char* order) {
    return with<Ledger>(handle, [&](Ledger& ledger) { ledger.m_Ledger.nextPaid(TextOut(size, order)); });
}

int32_t Ledger_Delivered(KVX_HANDLE handle, char const* order) {
    return with<Ledger>(handle, [&](Ledger& ledger) { ledger.m_Ledger.delivered(textOf(order)); });
}

int32_t Ledger_RenewKeys(KVX_HANDLE handle, char const* url, char const* user, char const* password, int32_t* outcome) {
    return with<Ledger>(handle, [&](Ledger& ledger) {
        std::int32_t result = KVX_LEDGER_RENEWAL_UNCHANGED;
        auto const report = [&] {
            if (outcome != nullptr) {
                *outcome = result;
            }
        };
        try {
            ledger.m_Ledger.renewKeys({textOf(url), textOf(user), textOf(password)}, result);
        } catch (...) {
            report();
            throw;
        }
        report();
    });
}

int32_t Ledger_RunDue(KVX_HANDLE handle, int32_t limit, int32_t* done) {
    return with<Ledger>(handle, [&](Ledger& ledger) { *done = ledger.m_Ledger.runDue(limit); });
}

int32_t Ledger_Resolve(KVX_HANDLE handle, char const* order, char const* state, char const* note) {
    return with<Ledger>(handle,
                        [&](Ledger& ledger) { ledger.m_Ledger.resolve(textOf(order), textOf(state), textOf(note)); });
}

int32_t Ledger_GetState(KVX_HANDLE handle, char const* order, int32_t* size, char* state) {
    return copyFrom(handle, size, state, [&](OrderLedger& ledger) { return ledger.stateOf(textOf(order)); });
}

int32_t Ledger_GetOrder(KVX_HANDLE handle, char const* order, int32_t* size, char* json) {
    return copyFrom(handle, size, json, [&](OrderLedger& ledger) { return ledger.orderAsJson(textOf(order)); });
}

int32_t Ledger_ListOrders(KVX_HANDLE handle, char const* filter, char const* after, int32_t limit, int32_t* size,
                          char* json) {
    return copyFrom(handle, size, json,
                    [&](OrderLedger& ledger) { return ledger.ordersAsJson(textOf(filter), textOf(after), limit); });
}

int32_t Ledger_ExportOrder(KVX_HANDLE handle, char const* order, int32_t* size, char* json) {
    return copyFrom(handle, size, json, [&](OrderLedger& ledger) { return ledger.evidenceAsJson(textOf(order)); });
}
