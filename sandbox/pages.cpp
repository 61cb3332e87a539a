#include "sandbox/pages.h"

#include "sandbox/wiretext.h"

namespace sandbox {

namespace {

constexpr char kHead[] =
    "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
    "<style>body{font:1rem/1.5 sans-serif;max-width:50rem;margin:2rem auto;padding:0 1rem}"
    "dt{font-weight:bold}button{font:inherit;padding:.5rem 1rem;margin:.25rem}"
    "pre{white-space:pre-wrap;overflow-wrap:anywhere;border:1px solid;padding:.5rem}"
    "table{border-collapse:collapse}th,td{border:1px solid;padding:.25rem .5rem;text-align:left}</style>\n";

/// `title` is text, `content` is HTML.
HttpReply page(int status, std::string const& title, std::string const& content) {
    std::string const shown = escapeHtml(title);
    return {status, "text/html; charset=utf-8",
            kHead + ("<title>" + shown + "</title>\n</head>\n<body>\n<main>\n<h1>" + shown + "</h1>\n") + content +
                "</main>\n</body>\n</html>\n"};
}

std::string paragraph(std::string const& text) {
    return "<p>" + escapeHtml(text) + "</p>\n";
}

std::string verbatim(std::string const& heading, std::string const& text) {
    return "<h2>" + escapeHtml(heading) + "</h2>\n<pre>" + escapeHtml(text) + "</pre>\n";
}

std::string term(std::string const& name, std::string const& value) {
    return "<dt>" + escapeHtml(name) + "</dt><dd>" + escapeHtml(value) + "</dd>\n";
}

std::string hiddenField(std::string const& name, std::string const& value) {
    return "<input type=\"hidden\" name=\"" + escapeHtml(name) + "\" value=\"" + escapeHtml(value) + "\">\n";
}

std::string given(Payment const& payment, char const* name) {
    return payment.attribute(name).value_or("not given");
}

std::string amountText(Payment const& payment) {
    return given(payment, "AMOUNT") + " " + payment.attribute("CURRENCY").value_or("");
}

std::string cell(std::string const& text) {
    return "<td>" + escapeHtml(text) + "</td>";
}

}  // namespace

std::string escapeHtml(std::string const& text) {
    std::string out;
    out.reserve(text.size());
    for (char const c : text) {
        unsigned char const byte = static_cast<unsigned char>(c);
        if (c == '&') {
            out += "&amp;";
        } else if (c == '<') {
            out += "&lt;";
        } else if (c == '>') {
            out += "&gt;";
        } else if (c == '"') {
            out += "&quot;";
        } else if (c == '\'') {
            out += "&#39;";
        } else if ((byte < 0x20 && c != '\n' && c != '\t') || byte == 0x7F) {
            out += "&#xFFFD;";
        } else {
            out += c;
        }
    }
    return out;
}

HttpReply paymentPage(PaymentRecord const& record, std::string const& customer) {
    Payment const& payment = record.payment;
    std::string const content =
        "<dl>\n" + term("Order", given(payment, "ORDERID")) + term("Amount", amountText(payment)) +
        term("Merchant", payment.account + " (customer " + customer + ")") + term("Payment", payment.id) +
        "</dl>\n<form method=\"post\" action=\"/pay/decision\">\n" + hiddenField("payment", payment.id) +
        hiddenField("key", record.formKey) +
        "<button name=\"decision\" value=\"pay\">Pay</button>\n"
        "<button name=\"decision\" value=\"decline\">Decline</button>\n"
        "<button name=\"decision\" value=\"cancel\">Cancel and go back</button>\n</form>\n" +
        paragraph("This is a sandbox: no money moves.");
    return page(200, "Payment", content);
}

HttpReply refusalPage(int status, std::string const& reason, Exchange const& record) {
    std::string content = paragraph(reason);
    if (!record.data.empty()) {
        content += verbatim("The message", record.data);
    }
    if (!record.signature.empty()) {
        content += verbatim("Its signature", record.signature);
    }
    return page(status, "The request was turned down", content);
}

HttpReply outcomePage(Payment const& payment, std::string const& signedQuery) {
    return page(200, "The payment is " + std::string(stateName(payment.state)),
                paragraph("The merchant gave no link to return to.") + verbatim("What it would get", signedQuery));
}

HttpReply returnedPage(HttpRequest const& request) {
    Query const query(request.query);
    return page(200, "Back at the shop",
                paragraph("The shop would go on here: it verifies this message and looks at its RESULT.") +
                    verbatim("DATA", query.value("DATA").value_or("")) +
                    verbatim("SIGNATURE", query.value("SIGNATURE").value_or("")));
}

HttpReply listPage(std::vector<Payment> const& payments) {
    if (payments.empty()) {
        return page(200, "Payments", paragraph("There are no payments yet."));
    }
    std::string rows;
    for (Payment const& payment : payments) {
        std::string const opened = payment.history.empty() ? "" : payment.history.front().time;
        rows += "<tr>" + cell(opened) + cell(payment.id) + cell(payment.account) + cell(given(payment, "ORDERID")) +
                cell(amountText(payment)) + cell(stateName(payment.state)) + "</tr>\n";
    }
    return page(200, "Payments",
                "<table>\n<thead><tr><th scope=\"col\">Opened</th><th scope=\"col\">Payment</th>"
                "<th scope=\"col\">Merchant</th><th scope=\"col\">Order</th><th scope=\"col\">Amount</th>"
                "<th scope=\"col\">State</th></tr></thead>\n<tbody>\n" +
                    rows + "</tbody>\n</table>\n");
}

}  // namespace sandbox
