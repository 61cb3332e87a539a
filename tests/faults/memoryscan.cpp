// The search walks the writable mappings of /proc/self/maps and reads them in place.

#include "tests/faults/memoryscan.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

#include "tests/faults/failingheap.h"

namespace kvxtest {

namespace {

constexpr unsigned char kMask = 0xA5;
constexpr std::size_t kBefore = 12;

struct Mapping {
    unsigned char const* m_Begin;
    unsigned char const* m_End;
    std::string m_Name;
};

/// Shared mappings are the test's own reports.
std::vector<Mapping> writableMappings() {
    std::vector<Mapping> mappings;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0;
        unsigned long end = 0;
        char modes[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, modes) == 3 && std::strcmp(modes, "rw-p") == 0) {
            std::size_t const name = line.find_first_of("/[");
            mappings.push_back({reinterpret_cast<unsigned char const*>(begin),
                                reinterpret_cast<unsigned char const*>(end),
                                name == std::string::npos ? "anonymous" : line.substr(name)});
        }
    }
    return mappings;
}

/// What stands before a text in memory, without the text: a report must not hold secrets that the next search finds.
std::string prefixOf(Mapping const& mapping, unsigned char const* text) {
    std::string prefix;
    std::size_t const room = text < mapping.m_Begin ? 0 : static_cast<std::size_t>(text - mapping.m_Begin);
    for (std::size_t i = std::min(kBefore, room); i > 0; --i) {
        unsigned char const byte = *(text - i);
        prefix += std::isprint(byte) != 0 ? static_cast<char>(byte) : '.';
    }
    return prefix;
}

}  // namespace

char Canary::at(std::size_t index) const {
    constexpr char kCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::uint64_t mixed = (m_Number * 1000U + index + 1) * 0x9E3779B97F4A7C15U;
    mixed = (mixed ^ (mixed >> 31)) * 0xBF58476D1CE4E5B9U;
    return kCharacters[(mixed ^ (mixed >> 29)) % (sizeof kCharacters - 1)];
}

std::string Canary::text() const {
    std::string all;
    for (std::size_t i = 0; i < kLength; ++i) {
        all += at(i);
    }
    return all;
}

Revealed::~Revealed() {
    OPENSSL_cleanse(m_Text, sizeof m_Text);
}

Revealed& Revealed::add(char const* text) {
    while (*text != '\0') {
        m_Text[m_Length++] = *text++;
    }
    return *this;
}

Revealed& Revealed::add(Canary const& canary) {
    for (std::size_t i = 0; i < Canary::kLength; ++i) {
        m_Text[m_Length++] = canary.at(i);
    }
    return *this;
}

void MemoryScan::lookFor(char const* name, void const* bytes, std::size_t length, std::size_t piece) {
    auto const* const from = static_cast<unsigned char const*>(bytes);
    for (std::size_t position = 0; position + piece <= length; position += piece) {
        Piece masked = {{}, piece, name, position};
        for (std::size_t i = 0; i < piece; ++i) {
            masked.m_Masked[i] = from[position + i] ^ kMask;
        }
        m_Pieces.push_back(masked);
    }
}

bool MemoryScan::Piece::isAt(unsigned char const* at) const {
    for (std::size_t i = 0; i < m_Length; ++i) {
        if (static_cast<unsigned char>(at[i] ^ kMask) != m_Masked[i]) {
            return false;
        }
    }
    return true;
}

bool MemoryScan::isIn(void const* memory, std::size_t bytes) const {
    auto const* const begin = static_cast<unsigned char const*>(memory);
    for (std::size_t at = 0; at < bytes; ++at) {
        for (Piece const& piece : m_Pieces) {
            if (piece.m_Length <= bytes - at && piece.isAt(begin + at)) {
                return true;
            }
        }
    }
    return false;
}

std::string MemoryScan::find(std::size_t most) const {
    std::vector<Piece const*> byFirst[256];
    for (Piece const& piece : m_Pieces) {
        byFirst[piece.m_Masked[0]].push_back(&piece);
    }
    // By name and begin of the whole text, of which single pieces may be gone.
    struct Copy {
        Mapping const* m_Mapping;
        std::size_t m_Pieces;
    };
    std::map<std::pair<unsigned char const*, std::string>, Copy> copies;
    std::vector<Mapping> const mappings = writableMappings();
    for (Mapping const& mapping : mappings) {
        for (unsigned char const* at = mapping.m_Begin; at + kMaxPiece <= mapping.m_End; ++at) {
            for (Piece const* piece : byFirst[static_cast<unsigned char>(*at ^ kMask)]) {
                if (piece->isAt(at)) {
                    Copy& copy = copies[{at - piece->m_Position, piece->m_Name}];
                    copy.m_Mapping = &mapping;
                    ++copy.m_Pieces;
                }
            }
        }
    }
    std::ostringstream found;
    std::size_t count = 0;
    for (auto const& [key, copy] : copies) {
        if (count++ < most) {
            found << key.second << " (" << copy.m_Pieces << " pieces) in " << copy.m_Mapping->m_Name << " at "
                  << static_cast<void const*>(key.first) << " behind '" << prefixOf(*copy.m_Mapping, key.first) << "'\n"
                  << HeapWatch::lastStackOf(key.first);
        }
    }
    if (count > most) {
        found << count << " copies in all\n";
    }
    return found.str();
}

}  // namespace kvxtest
