#include "sandbox/http/exchangelog.h"

#include <algorithm>
#include <utility>

#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::size_t kMaxKept = std::size_t{64} * 1024;

}  // namespace

ExchangeLog::ExchangeLog(Store& store, std::unique_ptr<Store::Request> request, Exchange exchange, TimePoint begin)
    : m_Store(store), m_Request(std::move(request)), m_Exchange(std::move(exchange)), m_Begin(begin) {}

void ExchangeLog::responseReady(std::string const& response) {
    m_Exchange.m_Response = keptText(response);
    m_Exchange.m_Microseconds = microsecondsSince(m_Begin);
    m_Exchange.m_Number = m_Request->end(m_Exchange);
}

void ExchangeLog::responseSent(Delivery const& delivery) {
    if (!m_Exchange.m_Fault.empty()) {
        m_Store.setDelivery(m_Exchange.m_Number, deliveryText(delivery, microsecondsSince(m_Begin)));
    }
}

std::int64_t microsecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin).count();
}

std::string deliveryText(Delivery const& delivery, std::int64_t microseconds) {
    return std::to_string(delivery.m_Bytes) + " bytes, then " + (delivery.m_Reset ? "a reset" : "the end") +
           ", after " + millisecondsText(microseconds);
}

std::string keptText(std::string const& text) {
    return text.size() <= kMaxKept ? text : text.substr(0, kMaxKept) + "... (cut)";
}

std::string keptRequest(std::string const& raw) {
    std::string kept;
    std::size_t from = 0;
    bool inHead = true;
    while (inHead && from < raw.size()) {
        std::size_t const lineEnd = std::min(raw.find('\n', from), raw.size() - 1) + 1;
        std::string line = raw.substr(from, lineEnd - from);
        std::string const name = "authorization:";
        kept += lowerCase(line.substr(0, name.size())) == name ? "Authorization: (covered)\r\n" : line;
        inHead = line != "\r\n" && line != "\n";
        from = lineEnd;
    }
    return keptText(kept + raw.substr(std::min(from, raw.size())));
}

}  // namespace sandbox
