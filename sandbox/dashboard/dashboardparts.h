#ifndef TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H
#define TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/pages/html.h"
#include "sandbox/service/services.h"
#include "sandbox/store/exchange.h"

/// What the pages of the dashboard are made of. Arguments are text unless they are called `content` or are cells,
/// which are HTML.
namespace sandbox {

/// A page under the navigation; `path` is that of the entry which stands for it.
HttpResponse dashboardPage(int status, std::string const& path, std::string const& title, std::string const& content,
                           std::string const& headContent = "");

/// Leads the browser from a form to the page `path`, to be loaded by GET.
HttpResponse seeOther(std::string const& path);

std::string link(std::string const& address, std::string const& text);

/// A text that is never broken into lines, for short ones in narrow columns.
std::string whole(std::string const& text);

/// The cells of one row; the first one names it.
using Cells = std::vector<std::string>;

/// A table that scrolls by itself where it is too wide.
std::string wideTable(std::string const& caption, std::vector<std::string> const& columns,
                      std::vector<Cells> const& rows);

/// What is wrong with a form, to be put before it; empty for an empty `problem`.
std::string problemNotice(std::string const& problem);

/// A form that posts to `action` with `m_FormKey`. When there is a `problem` it is told before the form.
std::string dashboardForm(Services const& services, std::string const& action, std::string const& content,
                          std::string const& problem = "");

/// A labelled line of text to fill in.
std::string textField(std::string const& label, std::string const& name, std::string const& value);

std::string button(std::string const& label, std::string const& name = "", std::string const& value = "");

/// The exchanges as a table.
std::string exchangeTable(std::string const& caption, std::vector<Exchange> const& exchanges);

/// The names with commas between them.
std::string joined(std::vector<std::string> const& names);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_DASHBOARDPARTS_H
