#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/pages/html.h"
#include "sandbox/service/services.h"
#include "sandbox/store/exchange.h"

/// Elements shared by the dashboard's pages. Arguments are text, except `content` and table cells, which are HTML.
namespace sandbox {

/// A page with the navigation, in which the entry of `path` is marked as current.
HttpResponse dashboardPage(int status, std::string const& path, std::string const& title, std::string const& content,
                           std::string const& headContent = "");

/// Redirects the browser after a form to the page `path`, loaded with GET.
HttpResponse seeOther(std::string const& path);

std::string link(std::string const& address, std::string const& text);

/// A text without line breaks, for short values in narrow columns.
std::string whole(std::string const& text);

/// The cells of one row; the first is its header.
using Cells = std::vector<std::string>;

/// A table that scrolls in its own region when it is wider than the page.
std::string wideTable(std::string const& caption, std::vector<std::string> const& columns,
                      std::vector<Cells> const& rows);

/// An error message to show before a form; empty for an empty `problem`.
std::string problemNotice(std::string const& problem);

/// A form that posts to `action` with `m_FormKey`. A `problem` is shown before the form.
std::string dashboardForm(Services const& services, std::string const& action, std::string const& content,
                          std::string const& problem = "");

/// A text field with a label.
std::string textField(std::string const& label, std::string const& name, std::string const& value);

std::string button(std::string const& label, std::string const& name = "", std::string const& value = "");

/// The exchanges as a table.
std::string exchangeTable(std::string const& caption, std::vector<Exchange> const& exchanges);

/// The names, separated by commas.
std::string joined(std::vector<std::string> const& names);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H
