// Counts by account, as the collector has them: it counts what is no longer in the table, too.

import { make } from "./exchange.js";

const APART_MS = 1000;
const SHOWN = 50;
const COUNTS = ["hits", "hitsAnsweredOtherwise", "hitsUnanswered", "authorizations"];
const element = (id) => document.getElementById(id);

export class Accounts {
  #timer = 0;
  #panel = element("accounts");

  // `choose(serial)` is called when the user picks an account.
  constructor(choose) {
    this.#panel.addEventListener("toggle", () => this.#read());
    element("accountRows").addEventListener("click", (event) => {
      const button = event.target.closest("button");
      if (button) choose(button.textContent);
    });
  }

  // Something was counted.
  changed() {
    if (!this.#panel.open || this.#timer) return;
    this.#timer = setTimeout(() => {
      this.#timer = 0;
      this.#read();
    }, APART_MS);
  }

  async #read() {
    if (!this.#panel.open) return;
    try {
      this.#show(await (await fetch("/api/counts")).json());
    } catch {
      // The indicator says already that nobody is there.
    }
  }

  #show(counts) {
    const serials = [...new Set(COUNTS.flatMap((name) => Object.keys(counts[name])))];
    const numbers = (serial) => COUNTS.map((name) => counts[name][serial] ?? 0);
    const sum = new Map(serials.map((serial) => [serial, numbers(serial).reduce((a, b) => a + b)]));
    serials.sort((a, b) => sum.get(b) - sum.get(a) || (a < b ? -1 : 1));
    const had = document.activeElement?.dataset?.serial;
    element("accountRows").replaceChildren(...serials.slice(0, SHOWN).map((serial) => rowOf(serial, numbers(serial))));
    if (had) [...element("accountRows").querySelectorAll("button")].find((each) => each.dataset.serial === had)?.focus();
    element("accountsNumber").textContent = serials.length ? serials.length.toLocaleString() : "";
    const rest = serials.length - SHOWN;
    element("accountsRest").textContent = rest > 0
      ? `${rest.toLocaleString()} more with fewer exchanges` : serials.length ? "" : "None yet.";
  }
}

function rowOf(serial, numbers) {
  const button = make("button", "", serial);
  button.type = "button";
  button.dataset.serial = serial;
  button.title = `Show only ${serial}`;
  return make("tr", "", make("td", "", button),
    ...numbers.map((number, at) => make("td", at === 1 || at === 2 ? (number ? "number bad" : "number") : "number",
      number.toLocaleString())));
}
