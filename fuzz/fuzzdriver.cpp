// Runs a target on files, for tests and for findings: PROGRAM FILE-OR-DIRECTORY...
// Names each file before it runs, so that a failure shows its input. No file at all is a failure.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* bytes, std::size_t size);

namespace {

std::vector<std::filesystem::path> filesAt(std::filesystem::path const& place) {
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::is_directory(place)) {
        return {place};
    }
    for (auto const& entry : std::filesystem::directory_iterator(place)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool run(std::filesystem::path const& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    std::string const content{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(content.data()), content.size());
    return true;
}

}  // namespace

int main(int count, char** arguments) {
    std::size_t done = 0;
    for (int i = 1; i < count; ++i) {
        for (auto const& file : filesAt(arguments[i])) {
            if (!run(file)) {
                return 1;
            }
            ++done;
        }
    }
    std::printf("%zu inputs\n", done);
    return done == 0 ? 1 : 0;
}
