#ifndef TALLOWIN_SANDBOX_STORE_READERPOOL_H
#define TALLOWIN_SANDBOX_STORE_READERPOOL_H

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/store/database.h"

namespace sandbox {

/// Connections that read one database file, for as many threads at a time as there are. Whoever reads waits neither for
/// the writer nor for other readers, and holds up nobody.
class ReaderPool {
public:
    /// A connection for one thread, given back at the end of its life.
    class Reader {
    public:
        Reader(ReaderPool& pool, std::unique_ptr<Database> database) : m_Pool(pool), m_Database(std::move(database)) {}
        ~Reader() {
            if (m_Database) {
                m_Pool.giveBack(std::move(m_Database));
            }
        }
        Reader(Reader&&) = default;
        Reader& operator=(Reader&&) = delete;
        Reader(Reader const&) = delete;
        Reader& operator=(Reader const&) = delete;

        [[nodiscard]] Database& database() const { return *m_Database; }

    private:
        ReaderPool& m_Pool;  ///< Borrowed.
        std::unique_ptr<Database> m_Database;
    };

    /// Opens nothing yet; the file must exist when a reader is taken.
    explicit ReaderPool(std::string path) : m_Path(std::move(path)) { m_Idle.reserve(kMaxIdle); }

    /// A connection that is idle, or a new one. Throws std::runtime_error.
    Reader take();

private:
    /// How many idle connections are kept.
    static constexpr std::size_t kMaxIdle = 8;

    void giveBack(std::unique_ptr<Database> database);

    std::string m_Path;
    std::mutex m_Mutex;
    std::vector<std::unique_ptr<Database>> m_Idle;  ///< At most kMaxIdle. Guarded by m_Mutex.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_READERPOOL_H
