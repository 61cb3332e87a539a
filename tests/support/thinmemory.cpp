#include "tests/support/thinmemory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace kvxtest {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kBlock = std::size_t{2} * 1024 * 1024;

}  // namespace

bool makeThin(char* memory, std::size_t bytes) {
    auto const first = reinterpret_cast<std::uintptr_t>(memory);
    std::uintptr_t const begin = (first + kPage - 1) / kPage * kPage;
    std::uintptr_t const end = (first + bytes) / kPage * kPage;
    int const file = ::memfd_create("thin", MFD_CLOEXEC);
    bool isDone = file != -1 && ::ftruncate(file, kBlock) == 0;
    for (std::uintptr_t at = begin; isDone && at < end; at += kBlock) {
        std::size_t const size = std::min<std::size_t>(kBlock, end - at);
        isDone = ::mmap(reinterpret_cast<void*>(at), size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0) !=
                 MAP_FAILED;
    }
    ::close(file);
    return isDone;
}

ThinText::ThinText(std::size_t length) : m_Bytes(length + 1) {
    void* const memory =
        ::mmap(nullptr, m_Bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        return;
    }
    auto* const text = static_cast<char*>(memory);
    std::size_t const thin = length / kPage * kPage;
    if (!makeThin(text, thin)) {
        ::munmap(memory, m_Bytes);
        return;
    }
    m_Text = text;
    std::memset(text, 'x', std::min(thin, kBlock));
    std::memset(text + thin, 'x', length - thin);  // the terminator behind is zero already
}

ThinText::~ThinText() {
    if (m_Text != nullptr) {
        ::munmap(m_Text, m_Bytes);
    }
}

}  // namespace kvxtest
