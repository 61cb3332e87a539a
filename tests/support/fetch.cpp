#include "tests/support/fetch.h"

#include <gtest/gtest.h>

#include "tests/support/tbtext.h"

namespace kvxtest {

KVX_RequestInfo requestFor(std::string const& url) {
    KVX_RequestInfo request;
    EXPECT_NE(SplitUrl(stringOf(url), request), 0) << url;
    return request;
}

std::string fetch(KVX_RequestInfo const& request) {
    TbStringStream out;
    HttpSession(request, out);
    return bytesOf(out);
}

std::string fetch(std::string const& url) {
    return fetch(requestFor(url));
}

}  // namespace kvxtest
