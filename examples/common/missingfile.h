/// Whether a file is missing.
#ifndef TALLOWIN_EXAMPLES_COMMON_MISSINGFILE_H
#define TALLOWIN_EXAMPLES_COMMON_MISSINGFILE_H

#include <filesystem>
#include <system_error>

namespace examples {

/// Whether the system says that there is no such file. The library has one result for a missing file and for one that
/// cannot be opened.
inline bool isMissing(std::filesystem::path const& file) {
    std::error_code ignored;
    return std::filesystem::status(file, ignored).type() == std::filesystem::file_type::not_found;
}

}  // namespace examples

#endif
