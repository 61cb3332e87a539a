// Reads the filters of the control API's lists.
// `after` alone or neither bound: the oldest rows first. `before` alone: the newest rows below it, newest first, so
// that a client can walk back from the end. Both bounds: the oldest first. A page ends after `limit` rows, or after the
// row with which it has kMaxListedBytes of content: a response has a bounded size whatever the merchants have sent.
#include "sandbox/control/controlfilters.h"

#include <algorithm>
#include <stdexcept>

#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using Names = std::vector<std::string>;

/// A bound of the list; `row` is what its numbers count, "an exchange".
std::int64_t readBound(std::string const& name, std::string const& text, std::string const& row) {
    std::optional<std::int64_t> const number = wholeNumber(text);
    if (!number) {
        throw HttpError(name + " must be the number of " + row + ", not '" + text + "'");
    }
    return *number;
}

std::int64_t readLimit(std::string const& text) {
    std::optional<std::int64_t> const limit = wholeNumber(text);
    if (!limit || *limit < 1 || *limit > kMaxRows) {
        throw HttpError("limit must be a number from 1 to " + std::to_string(kMaxRows) + ", not '" + text + "'");
    }
    return *limit;
}

Page readPage(Query const& query, std::string const& row) {
    Page page;
    std::optional<std::string> const after = query.value("after");
    std::optional<std::string> const before = query.value("before");
    page.m_After = after ? readBound("after", *after, row) : page.m_After;
    page.m_Before = before && *before != "end" ? readBound("before", *before, row) : page.m_Before;
    page.m_NewestFirst = before && !after;
    page.m_Limit = kDefaultRows;
    if (std::optional<std::string> const limit = query.value("limit")) {
        page.m_Limit = readLimit(*limit);
    }
    page.m_MaxBytes = kMaxListedBytes;
    return page;
}

/// `payment` is the name of the condition on the identifier of a payment.
Filter readFilter(Query const& query, Names const& known, char const* payment) {
    refuseUnknown(query, known);
    Filter filter{query.value("account"), query.value("order"), query.value("token"), query.value(payment)};
    if (std::optional<std::string> const name = query.value("state")) {
        try {
            filter.m_State = stateFromName(*name);
        } catch (std::runtime_error const&) {
            throw HttpError("unknown payment state '" + *name + "'");
        }
    }
    if (std::optional<std::string> const name = query.value("kind")) {
        filter.m_Kind = exchangeFromName(*name);
        if (!filter.m_Kind) {
            throw HttpError("unknown kind of exchange '" + *name + "'");
        }
    }
    return filter;
}

}  // namespace

void refuseUnknown(Query const& query, Names const& known) {
    for (std::string const& name : query.names()) {
        if (std::find(known.begin(), known.end(), name) == known.end()) {
            throw HttpError("unknown filter '" + name + "', the filters of this list are: " + joined(known));
        }
    }
}

ListQuery readPaymentQuery(Query const& query) {
    return {readFilter(query, {"account", "order", "token", "id", "state", "after", "before", "limit"}, "id"),
            readPage(query, "a payment")};
}

ListQuery readExchangeQuery(Query const& query) {
    return {readFilter(query, {"account", "order", "token", "payment", "kind", "after", "before", "limit"}, "payment"),
            readPage(query, "an exchange")};
}

ListQuery readRemovalQuery(Query const& query) {
    ListQuery removal{readFilter(query, {"account", "order", "token", "payment", "kind", "after", "before"}, "payment"),
                      readPage(query, "an exchange")};
    removal.m_Page.m_Limit = Page::kNoLimit;
    return removal;
}

Filter readExportQuery(Query const& query) {
    return readFilter(query, {"account", "order", "token", "payment"}, "payment");
}

std::optional<std::string> readAccount(Query const& query) {
    refuseUnknown(query, {"account"});
    return query.value("account");
}

}  // namespace sandbox
