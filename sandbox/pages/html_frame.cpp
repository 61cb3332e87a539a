#include "sandbox/pages/html.h"

namespace sandbox {

namespace {

constexpr char kName[] = "tallowin-sandbox";

// Every colour is a custom property, and a rule that sets a text colour also sets the background, so that tests can
// compute each contrast from the sheet: at least 4.5:1 for text and 3:1 for lines and focus, in both colour schemes.
// Print is always light. No rule is wider than the window; long words wrap anywhere.
constexpr char kStyleSheet[] = R"css(
:root{color-scheme:light dark;
--page:#ffffff;--text:#1b1f24;--notice:#fff3cd;--notice-text:#4a3500;--panel:#f2f4f7;--panel-text:#1b1f24;
--line:#6b7280;--action:#14532d;--action-text:#ffffff;--focus:#0b4f8a}
@media screen and (prefers-color-scheme:dark){:root{
--page:#14171c;--text:#e8eaed;--notice:#3d2f05;--notice-text:#ffe08a;--panel:#21262e;--panel-text:#e8eaed;
--line:#8b95a3;--action:#8fd6a8;--action-text:#06240f;--focus:#8ab8ff}}
*{box-sizing:border-box}
body{margin:0;font:1rem/1.5 system-ui,sans-serif;overflow-wrap:anywhere;color:var(--text);background:var(--page)}
header{padding:.5rem 1rem;color:var(--notice-text);background:var(--notice)}
header p{margin:0 auto;max-width:48rem}
header ul{margin:.25rem auto 0;max-width:78rem;padding:0;display:flex;flex-wrap:wrap;gap:0 1.5rem;list-style:none}
header .broad{max-width:78rem}
header a{display:inline-block;padding:.5rem 0;color:var(--notice-text);background:var(--notice)}
[aria-current]{font-weight:bold}
main{margin:0 auto;max-width:50rem;padding:0 1rem 2rem}
.broad{max-width:80rem}
a{color:var(--focus);background:var(--page)}
h1{font-size:1.75rem;line-height:1.2;margin:1.5rem 0 1rem}
h2{font-size:1.25rem;line-height:1.2;margin:2rem 0 .5rem}
dl{margin:0;border-top:1px solid var(--line)}
dl div{padding:.5rem 0;border-bottom:1px solid var(--line)}
dt,th{font-weight:bold}
dd{margin:0;white-space:pre-wrap}
.amount{font-size:1.5rem;font-weight:bold}
form{display:flex;flex-wrap:wrap;gap:.75rem;margin-top:1rem}
button{flex:1 1 12rem;min-height:44px;padding:.5rem 1rem;border:2px solid var(--line);border-radius:.375rem;
font:inherit;cursor:pointer;color:var(--text);background:var(--page)}
label{flex:1 1 14rem;align-self:end}
.full{flex-basis:100%}
input,select,textarea{display:block;width:100%;min-height:44px;padding:.5rem;border:2px solid var(--line);
border-radius:.375rem;font:inherit;color:var(--text);background:var(--page)}
td form{margin:0}
.problem{padding:.5rem;border:3px double var(--line);font-weight:bold}
.primary{flex-basis:100%;font-size:1.25rem;font-weight:bold;
border-color:var(--action);color:var(--action-text);background:var(--action)}
:focus-visible{outline:3px solid var(--focus);outline-offset:3px}
table{width:100%;table-layout:fixed;border-collapse:collapse;font-size:.875rem}
caption{padding:.25rem 0;text-align:left;font-weight:bold}
th,td{padding:.25rem .5rem;border:1px solid var(--line);text-align:left;vertical-align:top}
td{white-space:pre-wrap}
.attributes th:first-child{width:50%}
.wide{overflow-x:auto}
.wide table{min-width:44rem;table-layout:auto}
.wide thead th,.whole{white-space:nowrap}
pre{margin:0;padding:.5rem;border:1px solid var(--line);white-space:pre-wrap;
color:var(--panel-text);background:var(--panel)}
.attributes+pre{margin-top:.75rem}
pre small{padding:0 .125rem;border:1px solid var(--line);font-size:.625rem}
@media (min-width:36rem){
dl div{display:grid;grid-template-columns:12rem minmax(0,1fr);gap:1rem;align-items:baseline}
.attributes th:first-child{width:12rem}}
@media print{dl div,tr{break-inside:avoid}}
)css";

// The pages load nothing, so the policy forbids everything but inline styles: injected content could neither load nor
// run. Deliberate (no-form-action): no `form-action`, which would block the form's redirect to the shop.
constexpr char kPolicy[] = "default-src 'none'; style-src 'unsafe-inline'";

}  // namespace

HttpResponse htmlPage(int status, std::string const& title, std::string const& content, Language const& language,
                      FrameParts const& parts) {
    std::string const shown = escapeHtml(title);
    std::string html = std::string("<!DOCTYPE html>\n<html lang=\"") + language.m_Tag + "\">\n";
    html += "<head>\n<meta charset=\"utf-8\"/>\n";
    html += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n";
    html += "<meta http-equiv=\"Content-Security-Policy\" content=\"" + escapeHtml(kPolicy) + "\"/>\n";
    html += "<title>" + shown + " - " + kName + "</title>\n<style>" + kStyleSheet + "</style>\n" + parts.m_Head +
            "</head>\n<body>\n";
    std::string const breadth = parts.m_Navigation.empty() ? "" : " class=\"broad\"";
    html += "<header>\n<p" + breadth + "><strong>" + kName + "</strong> " + escapeHtml(language[PageText::kNotice]) +
            "</p>\n" + parts.m_Navigation + "</header>\n";
    html += "<main" + breadth + ">\n<h1>" + shown + "</h1>\n" + content + "</main>\n</body>\n</html>\n";
    return {status, "text/html; charset=utf-8", html};
}

}  // namespace sandbox
