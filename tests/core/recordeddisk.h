/// A disk that forgets what was not synchronised.
#ifndef TALLOWIN_TESTS_CORE_RECORDEDDISK_H
#define TALLOWIN_TESTS_CORE_RECORDEDDISK_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/systemcalls.h"

namespace kvxtest {

/// Records the calls of the library that change files below one directory, and computes what a disk may hold when the
/// machine stops between two of them. One at a time.
///
/// Only synchronised content is sure to be there. Of later changes to a file, any leading part may be there; or their
/// effects on its size alone, with zero bytes for what was written. Of later changes to a directory, any leading part,
/// whatever became of other directories and of files. What a directory held at the beginning is synchronised.
class RecordedDisk {
public:
    /// Paths below the directory; directories have no content.
    using Tree = std::map<std::string, std::optional<std::string>>;

    explicit RecordedDisk(std::string const& root);
    RecordedDisk(RecordedDisk const&) = delete;
    RecordedDisk& operator=(RecordedDisk const&) = delete;
    ~RecordedDisk();

    /// How many changes and synchronisations were made.
    [[nodiscard]] std::size_t steps() const { return m_Steps.size(); }

    /// What step number `step` did, for messages.
    [[nodiscard]] std::string describe(std::size_t step) const;

    /// Calls `visit` with each tree that may be there after the first `steps` steps, until it returns false.
    void forEachTree(std::size_t steps, std::function<bool(Tree const&)> const& visit) const;

    /// The tree after the first `steps` steps while the machine runs on.
    [[nodiscard]] Tree liveTree(std::size_t steps) const;

private:
    enum class Kind { kCreate, kMakeDirectory, kRename, kUnlink, kWrite, kTruncate, kSync };
    struct Step {
        Kind m_Kind;
        int m_Node;               ///< The file or directory that is written, made, removed or synchronised.
        int m_Directory = -1;     ///< Of a change to a directory.
        std::string m_Name = "";  ///< The changed entry.
        std::string m_From = "";  ///< Of a renaming: the entry that goes.
        off_t m_Offset = 0;       ///< Of a write; of a cut, the new size.
        std::string m_Data = "";
    };
    struct Node {
        bool m_IsDirectory = false;
        std::string m_Content;
        std::map<std::string, int> m_Entries;
        std::vector<Step const*> m_Pending;  ///< Not synchronised.
    };
    using Nodes = std::vector<Node>;
    enum class Effect { kAll, kSize };

    static void apply(Step const& step, Node& node, Effect effect);
    static Nodes synchronised(Nodes const& start, std::vector<Step> const& steps, std::size_t count);
    static void list(Nodes const& nodes, int directory, std::string const& prefix, Tree& tree);
    void load(std::string const& path, int node);
    [[nodiscard]] int find(std::string const& path) const;
    [[nodiscard]] int find(int file) const;
    void add(Step step);
    void onOpened(std::string const& path, int flags, int file, bool wasThere);

    static inline RecordedDisk* s_Disk = nullptr;

    std::string m_Root;
    Nodes m_Start;  ///< With all nodes made later, still empty.
    Nodes m_Live;
    std::vector<Step> m_Steps;
    std::map<int, int> m_Open;  ///< Nodes of descriptors.
    SystemCalls m_Calls;
};

}  // namespace kvxtest

#endif
