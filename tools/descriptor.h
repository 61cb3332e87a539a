/// Owners of descriptors and open folders.
#ifndef TALLOWIN_TOOLS_DESCRIPTOR_H
#define TALLOWIN_TOOLS_DESCRIPTOR_H

#include <dirent.h>
#include <unistd.h>

#include <memory>

namespace tool {

/// Owns a descriptor; a negative one is none.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : m_Descriptor(descriptor) {}
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    ~Descriptor() {
        if (m_Descriptor >= 0) {
            ::close(m_Descriptor);
        }
    }
    [[nodiscard]] int get() const { return m_Descriptor; }

private:
    int m_Descriptor;
};

struct FolderCloser {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

/// An open folder; null is none.
using Folder = std::unique_ptr<DIR, FolderCloser>;

}  // namespace tool

#endif
