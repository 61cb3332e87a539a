#include "tests/support/testdata.h"

#include <algorithm>
#include <stdexcept>

#include "tests/support/directories.h"

namespace kvxtest {

std::string dataText(std::string const& name) {
    std::string content = contentOf(KVX_TEST_DATA_DIR "/" + name);
    if (content.empty()) {
        throw std::runtime_error("no test data " + name);
    }
    return content;
}

std::string dataHex(std::string const& name) {
    std::string digits = dataText(name);
    digits.erase(std::remove(digits.begin(), digits.end(), '\n'), digits.end());
    return digits;
}

Bytes dataBytes(std::string const& name) {
    return bytesOfHex(dataHex(name));
}

}  // namespace kvxtest
