/// Replaces functions of other libraries that the network layer calls.
#ifndef TALLOWIN_TESTS_NET_INTERPOSED_H
#define TALLOWIN_TESTS_NET_INTERPOSED_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace kvxtest {

/// Answers every name look-up of this program while it lives. No name ever reaches a real resolver meanwhile.
class ScriptedResolver {
public:
    enum class Answer { kUnknown, kNoAddress, kAddress };

    /// `address` is dotted. `bytes` is the memory that the answer needs; less is refused, as by a real resolver.
    explicit ScriptedResolver(Answer answer, std::string const& address = "127.0.0.1", std::size_t bytes = 0);
    ScriptedResolver(ScriptedResolver const&) = delete;
    ScriptedResolver& operator=(ScriptedResolver const&) = delete;
    ~ScriptedResolver();

    /// The names looked up, repetitions included.
    [[nodiscard]] std::vector<std::string> const& lookUps() const { return m_LookUps; }

private:
    friend struct Interposition;
    Answer m_Answer;
    std::string m_Address;
    std::size_t m_Bytes;
    std::vector<std::string> m_LookUps;
};

/// How many TLS contexts this thread has made.
int contextsMade();

/// While it lives one function of the TLS library fails on this thread, with or without the entry for lack of memory in
/// the error queue.
class FailingTls {
public:
    enum class What {
        kContext,       ///< A context is made.
        kSession,       ///< A session is made.
        kSocket,        ///< A session gets its socket.
        kVersion,       ///< A context gets its lowest version.
        kTrustText,     ///< A text of authorities is opened.
        kTrustedEntry,  ///< A context gets an authority to trust.
        kTrustedFolder  ///< A context gets the system's folder of authorities.
    };
    enum class Why {
        kNone,
        kMemory,  ///< The entry for lack of memory is in the error queue.
        kNoQueue  ///< There was no memory for an error queue.
    };
    explicit FailingTls(What what, Why why = Why::kNone);
    FailingTls(FailingTls const&) = delete;
    FailingTls& operator=(FailingTls const&) = delete;
    ~FailingTls();
};

/// While it lives every TLS context that this thread makes is made without memory for its algorithms. Calls
/// `meanwhile` inside the function that makes it.
class LackingContexts {
public:
    explicit LackingContexts(std::function<void()> meanwhile);
    LackingContexts(LackingContexts const&) = delete;
    LackingContexts& operator=(LackingContexts const&) = delete;
    ~LackingContexts();
};

/// How a call on a session ends.
struct TlsCallEnd {
    static constexpr int kAsItIs = -1;

    bool m_IsMade;               ///< The TLS library does its work first; else the result is -1.
    std::vector<int> m_Reasons;  ///< Added to the error queue.
    int m_Errno = kAsItIs;
};

/// While it lives the handshakes and reads of this thread end as these say, one after the other, then on their own.
class ScriptedTls {
public:
    explicit ScriptedTls(std::vector<TlsCallEnd> ends);
    ScriptedTls(ScriptedTls const&) = delete;
    ScriptedTls& operator=(ScriptedTls const&) = delete;
    ~ScriptedTls();
};

/// While it lives the sessions of this thread find this verdict on their peer's certificate.
class ScriptedVerdict {
public:
    explicit ScriptedVerdict(long verdict);
    ScriptedVerdict(ScriptedVerdict const&) = delete;
    ScriptedVerdict& operator=(ScriptedVerdict const&) = delete;
    ~ScriptedVerdict();
};

}  // namespace kvxtest

#endif
