// Files and directories are nodes with numbers; the root has 0. Each step is kept with the node it changes. A disk
// after a stop: all nodes as of their last synchronisation, and then, for each node, some of its pending steps.

#include "tests/core/recordeddisk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/support/directories.h"

namespace kvxtest {

namespace {

std::string directoryOf(std::string const& path) {
    return std::filesystem::path(path).parent_path();
}

std::string nameOf(std::string const& path) {
    return std::filesystem::path(path).filename();
}

}  // namespace

RecordedDisk::RecordedDisk(std::string const& root) : m_Root(root) {
    m_Start.emplace_back();
    m_Start[0].m_IsDirectory = true;
    load(root, 0);
    m_Live = m_Start;
    s_Disk = this;

    m_Calls->open = [](char const* path, int flags, mode_t mode) {
        bool const wasThere = s_Disk->find(path) != -1;
        int const file = TbSystemCalls::openFile(path, flags, mode);
        if (file >= 0) {
            s_Disk->onOpened(path, flags, file, wasThere);
        }
        return file;
    };
    m_Calls->close = [](int file) {
        s_Disk->m_Open.erase(file);
        return ::close(file);
    };
    m_Calls->write = [](int file, void const* data, std::size_t bytes) {
        off_t const offset = ::lseek(file, 0, SEEK_CUR);
        ssize_t const count = ::write(file, data, bytes);
        int const node = s_Disk->find(file);
        if (count > 0 && node != -1) {
            s_Disk->add({Kind::kWrite, node, -1, "", "", offset,
                         std::string(static_cast<char const*>(data), static_cast<std::size_t>(count))});
        }
        return count;
    };
    m_Calls->ftruncate = [](int file, off_t bytes) {
        int const result = ::ftruncate(file, bytes);
        int const node = s_Disk->find(file);
        if (result == 0 && node != -1) {
            s_Disk->add({Kind::kTruncate, node, -1, "", "", bytes});
        }
        return result;
    };
    m_Calls->fsync = [](int file) {
        int const node = s_Disk->find(file);
        if (node != -1) {
            s_Disk->add({Kind::kSync, node});
        }
        return 0;
    };
    m_Calls->rename = [](char const* from, char const* to) {
        int const result = ::rename(from, to);
        if (result == 0 && s_Disk->find(directoryOf(to)) != -1) {
            EXPECT_EQ(directoryOf(from), directoryOf(to));
            s_Disk->add(
                {Kind::kRename, s_Disk->find(from), s_Disk->find(directoryOf(to)), nameOf(to), nameOf(from), 0, ""});
        }
        return result;
    };
    m_Calls->unlink = [](char const* path) {
        int const result = ::unlink(path);
        if (result == 0 && s_Disk->find(directoryOf(path)) != -1) {
            s_Disk->add({Kind::kUnlink, s_Disk->find(path), s_Disk->find(directoryOf(path)), nameOf(path)});
        }
        return result;
    };
    m_Calls->mkdir = [](char const* path, mode_t mode) {
        int const result = ::mkdir(path, mode);
        int const directory = s_Disk->find(directoryOf(path));
        if (result == 0 && directory != -1) {
            s_Disk->m_Start.emplace_back();
            s_Disk->m_Start.back().m_IsDirectory = true;
            s_Disk->m_Live.push_back(s_Disk->m_Start.back());
            s_Disk->add({Kind::kMakeDirectory, static_cast<int>(s_Disk->m_Start.size()) - 1, directory, nameOf(path)});
        }
        return result;
    };
}

RecordedDisk::~RecordedDisk() {
    s_Disk = nullptr;
}

/// Takes what is below `path` as the content of `node`.
void RecordedDisk::load(std::string const& path, int node) {
    for (auto const& entry : std::filesystem::directory_iterator(path)) {
        int const child = static_cast<int>(m_Start.size());
        m_Start.emplace_back();
        m_Start[static_cast<std::size_t>(node)].m_Entries[entry.path().filename()] = child;
        if (entry.is_directory()) {
            m_Start.back().m_IsDirectory = true;
            load(entry.path(), child);
        } else {
            m_Start.back().m_Content = contentOf(entry.path());
        }
    }
}

/// The node at `path`; -1 when there is none, and outside the root.
int RecordedDisk::find(std::string const& path) const {
    if (path == m_Root) {
        return 0;
    }
    if (path.rfind(m_Root + "/", 0) != 0) {
        return -1;
    }
    int node = 0;
    for (auto const& name : std::filesystem::path(path.substr(m_Root.size() + 1))) {
        auto const& entries = m_Live[static_cast<std::size_t>(node)].m_Entries;
        auto const entry = entries.find(name);
        if (entry == entries.end()) {
            return -1;
        }
        node = entry->second;
    }
    return node;
}

/// The node of a descriptor; -1 outside the root.
int RecordedDisk::find(int file) const {
    auto const node = m_Open.find(file);
    return node == m_Open.end() ? -1 : node->second;
}

void RecordedDisk::onOpened(std::string const& path, int flags, int file, bool wasThere) {
    int const directory = find(directoryOf(path));
    if (directory == -1 && path != m_Root) {
        return;
    }
    if (!wasThere) {
        m_Start.emplace_back();
        m_Live.emplace_back();
        add({Kind::kCreate, static_cast<int>(m_Start.size()) - 1, directory, nameOf(path)});
    }
    int const node = find(path);
    if (wasThere && (flags & O_TRUNC) != 0) {
        add({Kind::kTruncate, node});
    }
    m_Open[file] = node;
}

void RecordedDisk::add(Step step) {
    std::size_t const changed = static_cast<std::size_t>(step.m_Directory != -1 ? step.m_Directory : step.m_Node);
    apply(step, m_Live[changed], Effect::kAll);
    m_Steps.push_back(std::move(step));
}

void RecordedDisk::apply(Step const& step, Node& node, Effect effect) {
    auto const offset = static_cast<std::size_t>(step.m_Offset);
    switch (step.m_Kind) {
        case Kind::kRename:
            node.m_Entries.erase(step.m_From);
            node.m_Entries[step.m_Name] = step.m_Node;
            break;
        case Kind::kCreate:
        case Kind::kMakeDirectory:
            node.m_Entries[step.m_Name] = step.m_Node;
            break;
        case Kind::kUnlink:
            node.m_Entries.erase(step.m_Name);
            break;
        case Kind::kTruncate:
            node.m_Content.resize(offset);
            break;
        case Kind::kWrite:
            node.m_Content.resize(std::max(node.m_Content.size(), offset + step.m_Data.size()));
            if (effect == Effect::kAll) {
                node.m_Content.replace(offset, step.m_Data.size(), step.m_Data);
            }
            break;
        case Kind::kSync:
            break;
    }
}

/// The nodes after `count` steps as far as they are synchronised, each with its pending steps.
RecordedDisk::Nodes RecordedDisk::synchronised(Nodes const& start, std::vector<Step> const& steps, std::size_t count) {
    Nodes nodes = start;
    for (std::size_t i = 0; i < count; ++i) {
        Step const& step = steps[i];
        Node& node = nodes[static_cast<std::size_t>(step.m_Directory != -1 ? step.m_Directory : step.m_Node)];
        if (step.m_Kind != Kind::kSync) {
            node.m_Pending.push_back(&step);
            continue;
        }
        for (Step const* const pending : node.m_Pending) {
            apply(*pending, node, Effect::kAll);
        }
        node.m_Pending.clear();
    }
    return nodes;
}

void RecordedDisk::list(Nodes const& nodes, int directory, std::string const& prefix, Tree& tree) {
    for (auto const& [name, number] : nodes[static_cast<std::size_t>(directory)].m_Entries) {
        Node const& node = nodes[static_cast<std::size_t>(number)];
        if (node.m_IsDirectory) {
            tree[prefix + name] = std::nullopt;
            list(nodes, number, prefix + name + "/", tree);
        } else {
            tree[prefix + name] = node.m_Content;
        }
    }
}

void RecordedDisk::forEachTree(std::size_t steps, std::function<bool(Tree const&)> const& visit) const {
    Nodes const sure = synchronised(m_Start, m_Steps, steps);
    // One choice for each node with pending steps: how many of them are there, and with which effect.
    std::vector<std::size_t> choices(sure.size(), 0);
    for (;;) {
        Nodes nodes = sure;
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            std::size_t const pending = nodes[i].m_Pending.size();
            bool const isWhole = choices[i] <= pending;
            std::size_t const count = isWhole ? choices[i] : choices[i] - pending;
            for (std::size_t j = 0; j < count; ++j) {
                apply(*sure[i].m_Pending[j], nodes[i], isWhole ? Effect::kAll : Effect::kSize);
            }
        }
        Tree tree;
        list(nodes, 0, "", tree);
        if (!visit(tree)) {
            return;
        }

        std::size_t next = 0;
        auto const last = [&](std::size_t i) { return sure[i].m_Pending.size() * (sure[i].m_IsDirectory ? 1 : 2); };
        while (next < choices.size() && choices[next] == last(next)) {
            choices[next++] = 0;
        }
        if (next == choices.size()) {
            return;
        }
        ++choices[next];
    }
}

RecordedDisk::Tree RecordedDisk::liveTree(std::size_t steps) const {
    Nodes nodes = synchronised(m_Start, m_Steps, steps);
    for (Node& node : nodes) {
        for (Step const* const pending : node.m_Pending) {
            apply(*pending, node, Effect::kAll);
        }
    }
    Tree tree;
    list(nodes, 0, "", tree);
    return tree;
}

std::string RecordedDisk::describe(std::size_t step) const {
    constexpr char const* kNames[] = {"create", "mkdir", "rename", "unlink", "write", "truncate", "fsync"};
    Step const& done = m_Steps.at(step);
    return std::string(kNames[static_cast<std::size_t>(done.m_Kind)]) + " of node " + std::to_string(done.m_Node) +
           (done.m_Name.empty() ? "" : ", " + done.m_Name);
}

}  // namespace kvxtest
