// What an exchange is called: its outcome, its marks, its numbers.

const MALFORMED = {
  "missing-field": "missing field", "no-date": "no date", "bad-date": "bad date",
  "not-utf8": "not UTF-8", "empty": "empty", "cut": "cut short",
};

// By what the library makes of it: an answered hit has left it, an unanswered one is still there.
export function outcomeOf(exchange) {
  if (exchange.kind === "auth") return "auth";
  if (exchange.status === null) return "unanswered";
  return exchange.status === 200 ? "hit" : "otherwise";
}

export function statusText(exchange) {
  return exchange.status === null ? "no answer" : String(exchange.status);
}

// Below a millisecond too: a collector in good health answers in some hundredths of one.
export function tookText(exchange) {
  const took = exchange.tookMs;
  return took.toFixed(took < 10 ? 3 : 1);
}

// What the collector applied to the answer, worst first. A status is no mark: it shows itself.
export function marksOf(exchange) {
  if (exchange.marks) return exchange.marks;
  const { malformed, stall, delayMs, dateSkewSeconds, access, host } = exchange.applied;
  const marks = [];
  if (malformed) marks.push(MALFORMED[malformed] ?? malformed);
  if (stall) marks.push("stalled");
  if (delayMs) marks.push(`delayed ${delayMs} ms`);
  if (dateSkewSeconds) marks.push(`clock ${dateSkewSeconds > 0 ? "+" : "−"}${Math.abs(dateSkewSeconds)} s`);
  if (access !== undefined) marks.push(`access ${access || "empty"}`);
  if (host !== undefined) marks.push("another host");
  exchange.marks = marks;
  return marks;
}

// Lower case, and made once: a filter looks through thousands of them.
export function searchText(exchange) {
  exchange.searchText ??= [
    exchange.kind, exchange.serial, exchange.request, statusText(exchange), exchange.answer,
    exchange.status === null ? "unanswered" : "", ...marksOf(exchange),
  ].join("\n").toLowerCase();
  return exchange.searchText;
}

// An element of the page. Everything that comes from outside goes in as text.
export function make(tag, className = "", ...content) {
  const made = document.createElement(tag);
  made.className = className;
  made.append(...content);
  return made;
}
