// Shows what has changed as soon as an event comes, and then at most once in two seconds. What the reader has unfolded or
// typed stays. Without scripts the page refreshes itself.
"use strict";
const pause = 2000;
let isShowing = false;
let isStale = false;

async function replaceParts() {
  const response = await fetch(location.href, {cache: "no-store"});
  const page = new DOMParser().parseFromString(await response.text(), "text/html");
  const opened = new Set(Array.from(document.querySelectorAll("details[open]"), each => each.dataset.name));
  for (const fresh of page.querySelectorAll("[data-live]")) {
    for (const each of fresh.querySelectorAll("details")) {
      each.open = opened.has(each.dataset.name);
    }
    document.querySelector(`[data-live="${fresh.dataset.live}"]`).replaceWith(fresh);
  }
}

async function show() {
  isStale = true;
  if (isShowing) {
    return;
  }
  isShowing = true;
  while (isStale) {
    isStale = false;
    await replaceParts().catch(() => { isStale = true; });
    await new Promise(done => setTimeout(done, pause));
  }
  isShowing = false;
}

const account = new URLSearchParams(location.search).get("account");
const events = new EventSource("/control/events" + (account ? "?account=" + encodeURIComponent(account) : ""));
for (const name of ["open", "payment", "exchange", "notification"]) {
  events.addEventListener(name, show);
}
events.addEventListener("error", () => {
  if (events.readyState === EventSource.CLOSED) {
    setInterval(show, pause);
  }
});
