// Elements shared by the dashboard's pages: navigation, tables, forms, the table of exchanges.
//
// Arguments are escaped here, except content and table cells, which are HTML already. Wide tables scroll in their own
// region, which can be focused with the keyboard. Each form contains the hidden key against forms of other sites.

#include "sandbox/dashboard/dashboardparts.h"

#include <cstddef>

#include "sandbox/text/httpstatus.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

struct NavigationRow {
    char const* m_Path;
    char const* m_Text;
};

constexpr NavigationRow kNavigation[] = {
    {"/", "Overview"}, {"/faults", "Faults"}, {"/keys", "Keys and clock"}, {"/calculator", "Signature calculator"}};

std::string navigation(std::string const& path) {
    std::string entries;
    for (NavigationRow const& row : kNavigation) {
        std::string const here = path == row.m_Path ? " aria-current=\"page\"" : "";
        entries += std::string("<li><a href=\"") + row.m_Path + "\"" + here + ">" + row.m_Text + "</a></li>\n";
    }
    return "<nav aria-label=\"Dashboard\">\n<ul>\n" + entries + "</ul>\n</nav>\n";
}

/// Order ids of usual length stay on one line.
std::string orderCell(std::string const& order) {
    constexpr std::size_t kMaxUnbroken = 32;
    return order.size() <= kMaxUnbroken ? whole(order) : escapeHtml(order);
}

/// Anything but "ok" is emphasised.
std::string verdictCell(std::string const& verdict) {
    return verdict == "ok" ? "ok" : "<strong>" + escapeHtml(verdict) + "</strong>";
}

}  // namespace

HttpResponse dashboardPage(int status, std::string const& path, std::string const& title, std::string const& content,
                           std::string const& headContent) {
    return htmlPage(status, title, content, languageFor("en"), {headContent, navigation(path)});
}

HttpResponse seeOther(std::string const& path) {
    return {httpstatus::kSeeOther, "text/plain; charset=utf-8", "Done. See " + path + ".\n", path};
}

std::string link(std::string const& address, std::string const& text) {
    return "<a href=\"" + escapeHtml(address) + "\">" + escapeHtml(text) + "</a>";
}

std::string whole(std::string const& text) {
    return "<span class=\"whole\">" + escapeHtml(text) + "</span>";
}

std::string wideTable(std::string const& caption, std::vector<std::string> const& columns,
                      std::vector<Cells> const& rows) {
    std::string const name = escapeHtml(caption);
    // A scrolling region must be focusable, so that it scrolls with the keyboard.
    std::string html = "<div class=\"wide\" role=\"region\" aria-label=\"" + name + "\" tabindex=\"0\">\n<table>\n" +
                       "<caption>" + name + "</caption>\n<thead><tr>";
    for (std::string const& column : columns) {
        html += "<th scope=\"col\">" + escapeHtml(column) + "</th>";
    }
    html += "</tr></thead>\n<tbody>\n";
    for (Cells const& cells : rows) {
        html += "<tr><th scope=\"row\">" + cells.front() + "</th>";
        for (std::size_t i = 1; i < cells.size(); ++i) {
            html += "<td>" + cells[i] + "</td>";
        }
        html += "</tr>\n";
    }
    return html + "</tbody>\n</table>\n</div>\n";
}

std::string problemNotice(std::string const& problem) {
    return problem.empty() ? "" : "<p class=\"problem\" role=\"alert\">" + escapeHtml(problem) + "</p>\n";
}

std::string dashboardForm(Services const& services, std::string const& action, std::string const& content,
                          std::string const& problem) {
    return problemNotice(problem) + "<form method=\"post\" action=\"" + action + "\">\n" +
           hiddenField("key", services.m_FormKey) + content + "</form>";
}

std::string textField(std::string const& label, std::string const& name, std::string const& value) {
    return "<label>" + escapeHtml(label) + "\n<input name=\"" + name + "\" value=\"" + escapeHtml(value) +
           "\" autocomplete=\"off\"/></label>\n";
}

std::string button(std::string const& label, std::string const& name, std::string const& value) {
    std::string const sent = name.empty() ? "" : " name=\"" + name + "\" value=\"" + escapeHtml(value) + "\"";
    return "<button" + sent + ">" + escapeHtml(label) + "</button>\n";
}

std::string exchangeTable(std::string const& caption, std::vector<Exchange> const& exchanges) {
    std::vector<Cells> rows;
    for (Exchange const& exchange : exchanges) {
        std::string const number = std::to_string(exchange.m_Number);
        rows.push_back({link("/exchange?number=" + number, number), whole(exchange.m_Time),
                        whole(exchangeName(exchange.m_Kind)), orderCell(exchange.m_Order),
                        verdictCell(exchange.m_Verdict), escapeHtml(exchange.m_Fault),
                        whole(millisecondsText(exchange.m_Microseconds))});
    }
    return wideTable(caption, {"Number", "Time", "Kind", "Order", "Result", "Fault", "Duration"}, rows);
}

std::string joined(std::vector<std::string> const& names) {
    std::string text;
    for (std::string const& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

}  // namespace sandbox
