#ifndef TALLOWIN_SANDBOX_STORE_JOINTWRITER_H
#define TALLOWIN_SANDBOX_STORE_JOINTWRITER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/store/database.h"

namespace sandbox {

/// The one connection that writes a database file, for any number of threads. What several threads change shares one
/// transaction. It is committed when somebody waits for that, and no thread that carries out a request is about to add
/// to it; those are waited for no longer than kMaxDelay.
class JointWriter {
    /// One transaction, kept by those who wait for its end.
    struct Group {
        std::promise<void> m_Commit = {};
        std::shared_future<void> m_Committed = m_Commit.get_future().share();
        std::vector<std::function<void()>> m_Effects = {};
        int m_Turns = 0;
        bool m_Awaited = false;
    };

    using GroupHolder = std::shared_ptr<Group>;

public:
    static constexpr std::chrono::milliseconds kMaxDelay{2};

    /// What one thread changes for a request, in any number of turns. It is committed no later than by finish(). Until
    /// then it is seen in turns alone, and is lost or kept together with what was changed before it.
    /// A thread has one unit at a time, which no other thread uses.
    class Unit {
    public:
        /// Borrows `writer`. `beforeCommit` runs when changes of the unit are committed before its last turn: once, in
        /// a turn of any thread, in the same transaction. Throws std::logic_error when the thread has a unit.
        explicit Unit(JointWriter& writer, std::function<void()> beforeCommit = nullptr);

        /// As finish(), with nobody to report a failure to.
        ~Unit();
        Unit(Unit const&) = delete;
        Unit& operator=(Unit const&) = delete;

        /// Ends the unit: returns when all that was changed and seen in its turns is committed, and what runAfter() was
        /// given has run. Throws std::runtime_error when some of it is lost.
        void finish();

    private:
        friend class JointWriter;

        void note(GroupHolder const& group);
        void checkKept() const;
        void endTurns();

        JointWriter& m_Writer;          ///< Borrowed.
        std::vector<GroupHolder> m_On;  ///< The transactions that it depends on.
        bool m_Busy = true;             ///< It may have more turns.
        std::function<void()> m_BeforeCommit;
        std::vector<std::function<void()>> m_After;
    };

    /// Who has the connection, for one change or one look.
    class Turn {
    public:
        enum class Purpose {
            kChange,
            kRead,
            kAlone  ///< No transaction is open.
        };

        /// Waits until the connection is free. Borrows `writer`. Throws std::runtime_error, also when an earlier change
        /// of the thread's unit is lost.
        explicit Turn(JointWriter& writer, Purpose purpose = Purpose::kChange);

        /// Undoes what was changed and not kept. What was seen is committed on return, unless the thread has a unit.
        ~Turn();
        Turn(Turn const&) = delete;
        Turn& operator=(Turn const&) = delete;

        [[nodiscard]] Database& database() const { return m_Writer.m_Database; }

        /// Keeps what was changed, and ends the turn. It is committed on return, unless the thread has a unit. `effect`
        /// runs once it is committed, in the order of turns; it must not use the writer. Throws std::runtime_error.
        void keep(std::function<void()> effect = nullptr) { keep(std::move(effect), false); }

        /// The same in the last turn before Unit::finish().
        void keepLast(std::function<void()> effect = nullptr) { keep(std::move(effect), true); }

    private:
        void keep(std::function<void()> effect, bool isLast);
        void undo();
        GroupHolder leave(bool awaited);

        JointWriter& m_Writer;  ///< Borrowed.
        Unit* m_Unit;           ///< Of this thread; null without one.
        std::unique_lock<std::mutex> m_Lock;
        bool m_Changes;  ///< It has a savepoint.
    };

    /// Opens the file. Throws std::runtime_error.
    explicit JointWriter(std::string const& path);

    /// Whether the calling thread has a unit.
    [[nodiscard]] bool hasUnit() const { return unitOfThread() != nullptr; }

    /// Runs `action` at the end of the thread's unit, or at once when it has none.
    void runAfter(std::function<void()> action);

    /// To be used in turns, and before other threads use the writer.
    [[nodiscard]] Database& database() { return m_Database; }

private:
    [[nodiscard]] Unit* unitOfThread() const;
    void begin();
    void commit();
    void rollBack();
    void end(std::exception_ptr const& failure);
    void commitWhenDue();
    void await(GroupHolder const& group);
    void shortenLog();

    std::atomic<int> m_Coming{0};  ///< How many threads wait for their turn.
    std::atomic<int> m_Busy{0};    ///< How many units may have more turns.
    std::mutex m_Mutex;            ///< Held in a turn. Guards all below.
    GroupHolder m_Open;            ///< The transaction that is open; null when none is.
    std::set<Unit*> m_Changing;    ///< Units with changes whose beforeCommit has not run.
    std::string m_LogFailure;      ///< Why the log could not be moved the last time; empty when it could.
    Database m_Database;
    Database m_LogMover;           ///< Used by the thread of m_LogMoved, without m_Mutex.
    std::future<void> m_LogMoved;  ///< Valid once most of the log is being moved. Goes first: it awaits its thread.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_JOINTWRITER_H
