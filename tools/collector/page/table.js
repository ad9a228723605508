// The table of exchanges: what its rows say, the line above it, pause and selection.

import { make, marksOf, outcomeOf, statusText, tookText } from "./exchange.js";
import { numberOf, Rows } from "./rows.js";

const clock = new Intl.DateTimeFormat(undefined, {
  hour: "2-digit", minute: "2-digit", second: "2-digit", fractionalSecondDigits: 3,
  hourCycle: "h23",
});
const element = (id) => document.getElementById(id);

export class Table {
  #store;
  #details;
  #rows;
  #isAnother = false; // the list is another one, not the old one gone on

  constructor(store, details) {
    this.#store = store;
    this.#details = details;
    this.#rows = new Rows(element("scroller"), element("rows"), (exchange) => this.#make(exchange));
    element("pause").addEventListener("click", () => this.pause(!store.paused));
    element("rows").addEventListener("click", (event) => this.#clicked(numberOf(event.target)));
    // Open details follow the arrow keys.
    element("rows").addEventListener("focusin", (event) => {
      if (details.number) this.#open(numberOf(event.target));
    });
    element("exchanges").addEventListener("keydown", (event) => {
      if (event.key !== "Escape" || !details.number || event.target.id === "filter") return;
      this.#open(0);
      this.#rows.focusCurrent();
    });
    element("close").addEventListener("click", () => {
      this.#open(0);
      this.#rows.focusCurrent();
    });
    const address = `${location.origin}/`;
    element("recipe").textContent = `ORBIQ_AUTHORIZATION_SERVER=${address}auth/ your-application`;
    element("trial").textContent = `orbiq-doctor --server ${address}auth/ --serial ABC --send`;
  }

  pause(paused) {
    this.#store.pause(paused);
    this.draw();
  }

  // From the top at the next drawing.
  restart() {
    this.#isAnother = true;
  }

  // Nothing of what was shown is there any more.
  forget() {
    this.#open(0);
    this.#rows.clear();
    this.restart();
  }

  focus() {
    this.#rows.focusCurrent();
  }

  draw() {
    const view = this.#store.view();
    element("table").setAttribute("aria-rowcount", String(view.shown.length + 1));
    element("pause").setAttribute("aria-pressed", String(this.#store.paused));
    element("empty").hidden = view.total > 0;
    for (const id of ["scroller", "above", "keys"]) element(id).hidden = view.total === 0;
    for (const id of ["har", "csv"]) element(id).disabled = view.shown.length === 0;
    // Only now: rows that are not shown have no height.
    this.#rows.show(view.shown, this.#isAnother);
    this.#isAnother = false;
    element("shown").textContent = describe(view, this.#store.paused);
  }

  #make(exchange) {
    const time = clock.format(new Date(exchange.time));
    const button = make("button", "", time.slice(0, -4), make("span", "wide", time.slice(-4)));
    button.type = "button";
    button.ariaExpanded = String(exchange.number === this.#details.number);
    const answer = make("td", "answer", make("span", exchange.status === 200 ? "" : "bad", statusText(exchange)));
    answer.append(...marksOf(exchange).map((mark) => make("span", "mark", mark)));
    const account = make("td", "account", exchange.serial);
    account.dataset.kind = exchange.kind; // shown where the column of kinds is not
    const row = make("tr", outcomeOf(exchange), make("td", "", button),
      make("td", `wide kind-${exchange.kind}`, exchange.kind), account, answer,
      make("td", "wide number", tookText(exchange)), make("td", "wide", exchange.userAgent));
    for (const cell of [...row.cells].slice(2)) cell.title = cell.textContent;
    answer.title = [statusText(exchange), ...marksOf(exchange)].join(", ");
    return row;
  }

  #clicked(number) {
    if (number) this.#open(number === this.#details.number ? 0 : number);
  }

  // 0 closes the details.
  #open(number) {
    const set = (each, value) => this.#rows.mark(each, (row) => {
      row.querySelector("button").ariaExpanded = value;
    });
    if (this.#details.number) set(this.#details.number, "false");
    this.#details.show(number ? this.#rows.get(number) : undefined);
    if (number) set(number, "true");
  }
}

function describe({ shown, heldBack, total, isFull }, paused) {
  const number = (value) => value.toLocaleString();
  const texts = [];
  if (total) {
    const matching = shown.length + heldBack;
    const all = `${isFull ? "the newest " : ""}${number(total)} exchange${total === 1 ? "" : "s"}`;
    texts.push(matching < total ? `${number(matching)} of ${all} match the filter` : all);
  }
  if (paused) texts.push(`paused, ${number(heldBack)} held back`);
  return texts.join("; ");
}
