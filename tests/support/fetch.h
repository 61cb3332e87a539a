/// Whole HTTP exchanges of the library under test.
#ifndef TALLOWIN_TESTS_SUPPORT_FETCH_H
#define TALLOWIN_TESTS_SUPPORT_FETCH_H

#include <string>

#include "net/kvxhttp.h"

namespace kvxtest {

/// A request for `url`; fails the test when it cannot be split.
KVX_RequestInfo requestFor(std::string const& url);

/// Runs a whole session and returns the body.
std::string fetch(KVX_RequestInfo const& request);
std::string fetch(std::string const& url);

}  // namespace kvxtest

#endif
