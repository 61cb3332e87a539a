// Reads the table of situations from the guide, which is embedded as it is: a row has three cells, the second with the
// faults in backquotes. Marks of Markdown are dropped: backquotes, and links but for their text.

#include "sandbox/dashboard/situations.h"

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <utility>

#include "sandbox/pages/templates.h"

namespace sandbox {

namespace {

/// The text between `line`'s bars, without the spaces around it.
std::vector<std::string> cellsOf(std::string const& line) {
    std::vector<std::string> cells;
    std::istringstream in(line);
    std::string cell;
    std::getline(in, cell, '|');
    while (std::getline(in, cell, '|')) {
        std::size_t const from = cell.find_first_not_of(' ');
        cells.push_back(from == std::string::npos ? "" : cell.substr(from, cell.find_last_not_of(' ') - from + 1));
    }
    return cells;
}

std::vector<Fault> faultsIn(std::string const& cell) {
    std::vector<Fault> faults;
    std::istringstream in(cell);
    std::string text;
    for (bool quoted = false; std::getline(in, text, '`'); quoted = !quoted) {
        if (quoted) {
            faults.push_back(parseFault(text));
        }
    }
    return faults;
}

std::string plain(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '`'), text.end());
    for (std::size_t at = text.find("]("); at != std::string::npos; at = text.find("](")) {
        text.erase(at, text.find(')', at) + 1 - at);
        text.erase(text.rfind('[', at), 1);
    }
    return text;
}

std::vector<Situation> readGuide() {
    std::vector<Situation> situations;
    std::istringstream in(templateText("rehearse-failures.md"));
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> const cells = cellsOf(line);
        if (cells.size() != 3) {
            continue;
        }
        std::vector<Fault> faults = faultsIn(cells[1]);
        if (!faults.empty()) {
            situations.push_back({plain(cells[0]), std::move(faults), plain(cells[2])});
        }
    }
    return situations;
}

}  // namespace

std::vector<Situation> const& allSituations() {
    static std::vector<Situation> const situations = readGuide();
    return situations;
}

}  // namespace sandbox
