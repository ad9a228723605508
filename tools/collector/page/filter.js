// What the user wants to see. It stands in the address too, so that it can be kept and passed on.

import { marksOf, searchText } from "./exchange.js";

const FIELDS = ["filter", "kind", "outcome"];
const element = (id) => document.getElementById(id);

// Several words must all occur, a -word must not; "…" holds words together.
function wordsOf(text) {
  const wanted = [];
  const unwanted = [];
  for (const [, minus, quoted, plain] of text.toLowerCase().matchAll(/(-?)(?:"([^"]*)"?|(\S+))/g)) {
    const word = quoted ?? plain;
    if (word) (minus ? unwanted : wanted).push(word);
  }
  return { wanted, unwanted };
}

function hasOutcome(exchange, outcome) {
  switch (outcome) {
    case "good": return exchange.status === 200;
    case "other": return exchange.status !== null && exchange.status !== 200;
    case "unanswered": return exchange.status === null;
    case "marked": return marksOf(exchange).length > 0;
    default: return true;
  }
}

export class Filter {
  #changed;

  // `changed()` is called after every change, not for what the address says at first.
  constructor(changed) {
    this.#changed = changed;
    const address = new URLSearchParams(location.search);
    for (const id of FIELDS) {
      element(id).value = address.get(id) ?? "";
      if (element(id).selectedIndex === -1) element(id).value = "";
      element(id).addEventListener("input", () => this.#apply());
    }
  }

  // Only this account.
  setAccount(serial) {
    element("filter").value = /[\s"]|^-/.test(serial) ? `"${serial.replaceAll('"', " ")}"` : serial;
    this.#apply();
  }

  // The test of an exchange, as the fields stand now.
  matcher() {
    const { wanted, unwanted } = wordsOf(element("filter").value);
    const kind = element("kind").value;
    const outcome = element("outcome").value;
    return (exchange) => {
      if (kind && exchange.kind !== kind) return false;
      if (!hasOutcome(exchange, outcome)) return false;
      if (!wanted.length && !unwanted.length) return true;
      const text = searchText(exchange);
      return wanted.every((word) => text.includes(word)) && !unwanted.some((word) => text.includes(word));
    };
  }

  #apply() {
    const address = new URL(location.href);
    for (const id of FIELDS) {
      const { value } = element(id);
      if (value) address.searchParams.set(id, value);
      else address.searchParams.delete(id);
    }
    history.replaceState(null, "", address);
    this.#changed();
  }
}
