#ifndef TALLOWIN_SANDBOX_STORE_SNAPSHOTS_H
#define TALLOWIN_SANDBOX_STORE_SNAPSHOTS_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "sandbox/store/store.h"

namespace sandbox {

/// Copies of the whole database under names, at most kMax, each with a note of its maker. They are files, which outlast
/// the process. Every member may be called by any thread. Members with a name throw HttpError when there is no such
/// snapshot, or when no snapshot can have that name.
class Snapshots {
public:
    static constexpr std::size_t kMax = 20;

    struct Entry {
        std::string m_Name;
        std::string m_Time;  ///< When it was saved, by the system's clock: "2024-01-31T23:59:07Z".
        std::uintmax_t m_Bytes = 0;
    };

    /// Borrows `store`. The directory is created with the first snapshot.
    Snapshots(std::string directory, Store& store) : m_Directory(std::move(directory)), m_Store(store) {}

    /// By name.
    [[nodiscard]] std::vector<Entry> all() const;

    /// Saves the present state under `name`, as a whole or not at all. True when the name is new.
    bool save(std::string const& name, std::string const& note);

    [[nodiscard]] std::string note(std::string const& name);

    /// Replaces the content of the store.
    void restore(std::string const& name);

    void remove(std::string const& name);

private:
    [[nodiscard]] std::string fileOf(std::string const& name) const;
    [[nodiscard]] std::string existing(std::string const& name) const;

    std::string m_Directory;
    Store& m_Store;      ///< Borrowed.
    std::mutex m_Mutex;  ///< Held while files change.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_SNAPSHOTS_H
