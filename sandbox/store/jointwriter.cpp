// Transactions that threads share.
// A turn that changes something begins a transaction unless one is open. Each turn ends with commitWhenDue(): the
// transaction is committed when some thread waits for that, none waits for its turn, and no unit will have another one,
// so the last of those that came at the same time commits for all. A thread that waits does so without the lock, and
// commits by itself when that takes too long.
// shortenLog() keeps the log from growing for ever. When that fails, standard error says so: no caller waits for it.
// A turn that fails undoes what it did, by a savepoint. A commit that fails, or a failure at which SQLite gives the
// transaction up, is a failure of all who are in it.
#include "sandbox/store/jointwriter.h"

#include <chrono>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace sandbox {

namespace {

/// A transaction is committed after so many turns even if threads keep coming.
constexpr int kMaxTurns = 256;

/// Pages in the log from which on they are moved to the file: four times SQLite's own limit. Payments write the same
/// pages again and again, so a longer log means fewer pages to move.
constexpr int kMaxLog = 4000;

thread_local JointWriter::Unit* t_Unit = nullptr;

bool isReady(std::shared_future<void> const& committed) {
    return committed.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace

JointWriter::Unit::Unit(JointWriter& writer, std::function<void()> beforeCommit)
    : m_Writer(writer), m_BeforeCommit(std::move(beforeCommit)) {
    if (t_Unit != nullptr) {
        throw std::logic_error("a thread carries out two requests at a time");
    }
    t_Unit = this;
    ++writer.m_Busy;
}

JointWriter::Unit::~Unit() {
    try {
        finish();
    } catch (std::exception const&) {
        // Whoever does not call finish() has failed already, and answers nothing that depends on it.
    }
}

void JointWriter::Unit::finish() {
    if (t_Unit != this) {
        return;
    }
    t_Unit = nullptr;
    bool const isCutShort = m_Busy;
    if (isCutShort) {
        endTurns();
        // A turn outside of the unit leaves nothing uncommitted.
        Turn const turn(m_Writer, Turn::Purpose::kRead);
    }
    for (GroupHolder const& group : m_On) {
        m_Writer.await(group);
    }
    if (isCutShort) {
        std::lock_guard<std::mutex> const lock(m_Writer.m_Mutex);
        m_Writer.m_Changing.erase(this);
    }
    for (std::function<void()> const& action : m_After) {
        action();
    }
    checkKept();
}

void JointWriter::Unit::note(GroupHolder const& group) {
    if (m_On.empty() || m_On.back() != group) {
        m_On.push_back(group);
    }
}

void JointWriter::Unit::endTurns() {
    m_Busy = false;
    --m_Writer.m_Busy;
}

/// Throws std::runtime_error when a transaction that the unit depends on has failed.
void JointWriter::Unit::checkKept() const {
    for (GroupHolder const& group : m_On) {
        if (isReady(group->m_Committed)) {
            group->m_Committed.get();
        }
    }
}

JointWriter::Turn::Turn(JointWriter& writer, Purpose purpose)
    : m_Writer(writer), m_Unit(writer.unitOfThread()), m_Changes(purpose == Purpose::kChange) {
    if (m_Unit != nullptr) {
        m_Unit->checkKept();
    }
    ++writer.m_Coming;
    m_Lock = std::unique_lock<std::mutex>(writer.m_Mutex);
    --writer.m_Coming;
    if (purpose == Purpose::kAlone && writer.m_Open) {
        writer.commit();
    }
    if (m_Changes) {
        if (!writer.m_Open) {
            writer.begin();
        }
        database().prepare("SAVEPOINT turn").step();
    }
}

JointWriter::Turn::~Turn() {
    if (!m_Lock.owns_lock() || !m_Writer.m_Open) {
        return;
    }
    if (m_Changes) {
        undo();
    }
    if (!database().isInTransaction()) {
        m_Writer.end(std::make_exception_ptr(std::runtime_error("the database gave a transaction up")));
        return;
    }
    GroupHolder const group = leave(m_Unit == nullptr);
    if (m_Unit == nullptr) {
        m_Writer.await(group);
    }
}

void JointWriter::Turn::undo() {
    try {
        database().prepare("ROLLBACK TO turn").step();
        database().prepare("RELEASE turn").step();
    } catch (std::runtime_error const&) {
        // SQLite has rolled back all of the transaction.
    }
}

void JointWriter::Turn::keep(std::function<void()> effect, bool isLast) {
    database().prepare("RELEASE turn").step();
    m_Changes = false;
    if (m_Unit != nullptr && isLast) {
        m_Unit->endTurns();
        m_Writer.m_Changing.erase(m_Unit);
    } else if (m_Unit != nullptr && m_Unit->m_BeforeCommit) {
        m_Writer.m_Changing.insert(m_Unit);
    }
    if (effect) {
        m_Writer.m_Open->m_Effects.push_back(std::move(effect));
    }
    GroupHolder const group = leave(isLast || m_Unit == nullptr);
    if (m_Unit == nullptr) {
        m_Writer.await(group);
        group->m_Committed.get();
    }
}

/// Gives the connection to the next thread. Returns the transaction that was open.
JointWriter::GroupHolder JointWriter::Turn::leave(bool awaited) {
    GroupHolder group = m_Writer.m_Open;
    if (m_Unit != nullptr) {
        m_Unit->note(group);
    }
    group->m_Awaited = group->m_Awaited || awaited;
    ++group->m_Turns;
    m_Writer.commitWhenDue();
    m_Lock.unlock();
    return group;
}

void JointWriter::runAfter(std::function<void()> action) {
    if (Unit* const unit = unitOfThread()) {
        unit->m_After.push_back(std::move(action));
    } else {
        action();
    }
}

JointWriter::JointWriter(std::string const& path) : m_Database(path), m_LogMover(path) {
    m_Database.keepLog();
}

JointWriter::Unit* JointWriter::unitOfThread() const {
    return t_Unit != nullptr && &t_Unit->m_Writer == this ? t_Unit : nullptr;
}

void JointWriter::begin() {
    auto group = std::make_shared<Group>();
    m_Database.prepare("BEGIN IMMEDIATE").step();
    m_Open = std::move(group);
}

void JointWriter::commitWhenDue() {
    bool const isLast = m_Coming == 0 && m_Busy == 0;
    if ((m_Open->m_Awaited && isLast) || m_Open->m_Turns >= kMaxTurns) {
        commit();
    }
}

/// Returns when the transaction is committed or has failed.
void JointWriter::await(GroupHolder const& group) {
    if (group->m_Committed.wait_for(kMaxDelay) == std::future_status::ready) {
        return;
    }
    std::lock_guard<std::mutex> const lock(m_Mutex);
    if (m_Open == group) {
        commit();
    }
}

void JointWriter::commit() {
    std::set<Unit*> changing;
    changing.swap(m_Changing);
    try {
        for (Unit* const unit : changing) {
            std::exchange(unit->m_BeforeCommit, nullptr)();
        }
        m_Database.prepare("COMMIT").step();
    } catch (std::exception const&) {
        std::exception_ptr const failure = std::current_exception();
        rollBack();
        end(failure);
        return;
    }
    for (std::function<void()> const& effect : m_Open->m_Effects) {
        effect();
    }
    end(nullptr);
    shortenLog();
}

/// Moves the log to the file when it is long. Most of that is done by a thread of its own while others write, since it
/// waits for the disk. A commit does the rest: only while nobody writes can all of it be moved, so that the log begins
/// anew.
void JointWriter::shortenLog() {
    if (m_Database.pagesInLog() < kMaxLog) {
        return;
    }
    try {
        if (!m_LogMoved.valid()) {
            m_LogMoved = std::async(std::launch::async, [this] {
                m_LogMover.moveLog();
                m_LogMover.moveLog();  // what was written meanwhile, which is much less
            });
        } else if (m_LogMoved.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
            m_LogMoved.get();
            m_Database.moveLog();
            m_LogFailure.clear();
        }
    } catch (std::exception const& failure) {
        // Nothing is lost: the log has it all, and a later commit tries again. No caller waits for it.
        if (std::exchange(m_LogFailure, failure.what()) != failure.what()) {
            std::cerr << "the log of the database grows, it cannot be moved to the file: " + m_LogFailure + "\n";
        }
    }
}

void JointWriter::rollBack() {
    try {
        m_Database.prepare("ROLLBACK").step();
    } catch (std::runtime_error const&) {
        // SQLite has rolled back by itself.
    }
}

/// Reports to all who wait for the transaction that it is committed, or its failure.
void JointWriter::end(std::exception_ptr const& failure) {
    GroupHolder const ended = std::move(m_Open);
    if (failure) {
        ended->m_Commit.set_exception(failure);
    } else {
        ended->m_Commit.set_value();
    }
}

}  // namespace sandbox
