// The newest exchanges, newest first. Only some rows are in the document, however many there are;
// one of them is in the tab order, and the arrow keys move on from it.

import { classOf } from "./timeline.js";

const KEPT = 2000;
const STEP = 200;

const clock = new Intl.DateTimeFormat(undefined, {
  hour: "2-digit", minute: "2-digit", second: "2-digit", fractionalSecondDigits: 3,
  hourCycle: "h23",
});
// As in the style sheet: where the columns of class "wide" are not shown.
const NARROW = window.matchMedia("(max-width: 48em)");
const columns = () => (NARROW.matches ? 4 : 6);

const element = (id) => document.getElementById(id);

export class Table {
  #exchanges = []; // oldest first
  #rows = new Map(); // by number
  #current = 0; // the number whose row is in the tab order
  #limit = STEP;
  #pausedAt = null; // the newest number when the list was paused
  #body = element("rows");

  constructor() {
    for (const id of ["filter", "kind", "outcome"]) {
      element(id).addEventListener("input", () => this.#refilter());
    }
    element("pause").addEventListener("click", () => this.#pause());
    element("more").addEventListener("click", () => {
      this.#limit += STEP;
      this.draw();
    });
    this.#body.addEventListener("click", (event) => this.#clicked(event));
    this.#body.addEventListener("keydown", (event) => this.#moved(event));
    this.#body.addEventListener("focusin", (event) => {
      const row = event.target.closest("tr[data-number]");
      if (row) this.#makeCurrent(Number(row.dataset.number));
    });
    NARROW.addEventListener("change", () => {
      for (const each of this.#body.querySelectorAll(".details td")) each.colSpan = columns();
    });
    element("recipe").textContent =
      `ORBIQ_AUTHORIZATION_SERVER=${location.origin}/auth/ build/examples/orbiq-first-hit`;
  }

  replace(exchanges) {
    this.#exchanges = [];
    for (const { main, details } of this.#rows.values()) remove(main, details);
    this.#rows.clear();
    this.#limit = STEP;
    this.#setPaused(null);
    this.add(exchanges);
  }

  add(exchanges) {
    this.#exchanges.push(...exchanges);
    this.#trim();
  }

  // While paused, what is shown stays, and of what is held back the newest.
  #trim() {
    let stays = 0;
    if (this.#pausedAt !== null) {
      const newer = this.#exchanges.findIndex((each) => each.number > this.#pausedAt);
      stays = newer < 0 ? this.#exchanges.length : newer;
    }
    const over = this.#exchanges.length - stays - KEPT;
    if (over > 0) this.#exchanges.splice(stays, over);
  }

  draw() {
    const { shown, matching, newer } = this.#select();
    const wanted = new Set(shown.map((exchange) => exchange.number));
    for (const [number, { main, details }] of this.#rows) {
      if (wanted.has(number)) continue;
      remove(main, details);
      this.#rows.delete(number);
    }
    let next = this.#body.firstChild;
    for (const exchange of shown) {
      const row = this.#rows.get(exchange.number) ?? this.#make(exchange);
      if (row.main === next) {
        next = (row.details ?? row.main).nextSibling;
      } else {
        this.#body.insertBefore(row.main, next);
        if (row.details) this.#body.insertBefore(row.details, next);
      }
    }
    // Whoever comes from outside begins at the top.
    const stays = wanted.has(this.#current) && this.#body.contains(document.activeElement);
    if (shown.length && !stays) this.#makeCurrent(shown[0].number);
    this.#describe(shown.length, matching, newer);
  }

  #select() {
    const text = element("filter").value.trim().toLowerCase();
    const kind = element("kind").value;
    const outcome = element("outcome").value;
    const shown = [];
    let matching = 0;
    let newer = 0;
    for (let i = this.#exchanges.length - 1; i >= 0; --i) {
      const exchange = this.#exchanges[i];
      if (kind && exchange.kind !== kind) continue;
      if (outcome && outcome !== outcomeOf(exchange)) continue;
      if (text && !searchText(exchange).includes(text)) continue;
      if (this.#pausedAt !== null && exchange.number > this.#pausedAt) {
        ++newer;
        continue;
      }
      if (++matching <= this.#limit) shown.push(exchange);
    }
    return { shown, matching, newer };
  }

  #describe(shown, matching, newer) {
    const total = this.#exchanges.length;
    const all = total >= KEPT ? `the newest ${total}` : total;
    element("empty").hidden = total > 0;
    element("more").hidden = shown === matching;
    let text = "";
    if (total) text = `Showing ${shown} of ${all}`;
    if (matching + newer < total) text += `; ${matching + newer} match the filter`;
    if (newer) text += `; ${newer} held back by the pause`;
    element("shown").textContent = text && text + ".";
  }

  #make(exchange) {
    const main = document.createElement("tr");
    main.dataset.number = exchange.number;
    const button = document.createElement("button");
    button.type = "button";
    button.tabIndex = exchange.number === this.#current ? 0 : -1;
    button.setAttribute("aria-expanded", "false");
    const time = clock.format(new Date(exchange.time));
    const fraction = document.createElement("span");
    fraction.className = "wide";
    fraction.textContent = time.slice(-4);
    button.append(time.slice(0, -4), fraction);
    main.append(
      cell(button),
      cell(exchange.kind, `kind-${exchange.kind}`),
      cell(exchange.serial),
      cell(exchange.status ?? "no answer", exchange.status === 200 ? "" : "bad"),
      cell(exchange.tookMs.toFixed(1), "wide number"),
      cell(exchange.userAgent, "wide"),
    );
    main.classList.add(classOf(exchange));
    const row = { exchange, main, button, details: null };
    this.#rows.set(exchange.number, row);
    return row;
  }

  #toggle(row) {
    if (row.details) {
      row.details.remove();
      row.details = null;
    } else {
      row.details = detailsOf(row.exchange);
      row.main.after(row.details);
    }
    row.button.setAttribute("aria-expanded", String(row.details !== null));
  }

  #clicked(event) {
    const main = event.target.closest("tr[data-number]");
    if (!main) return;
    this.#toggle(this.#rows.get(Number(main.dataset.number)));
  }

  #moved(event) {
    const main = event.target.closest("tr[data-number]");
    if (!main) return;
    const all = [...this.#body.querySelectorAll("tr[data-number]")];
    const at = all.indexOf(main);
    const to = { ArrowDown: at + 1, ArrowUp: at - 1, Home: 0, End: all.length - 1 }[event.key];
    const row = this.#rows.get(Number(main.dataset.number));
    if (event.key === "Escape" && row.details) {
      this.#toggle(row);
    } else if (all[to]) {
      event.preventDefault();
      all[to].querySelector("button").focus();
    }
  }

  #makeCurrent(number) {
    const old = this.#rows.get(this.#current);
    if (old) old.button.tabIndex = -1;
    this.#current = number;
    this.#rows.get(number).button.tabIndex = 0;
  }

  #refilter() {
    this.#limit = STEP;
    this.draw();
  }

  #pause() {
    this.#setPaused(this.#pausedAt === null ? (this.#exchanges.at(-1)?.number ?? 0) : null);
    this.#trim();
    this.draw();
  }

  #setPaused(number) {
    this.#pausedAt = number;
    element("pause").setAttribute("aria-pressed", String(number !== null));
  }
}

function outcomeOf(exchange) {
  if (exchange.status === null) return "unanswered";
  return exchange.status === 200 ? "good" : "other";
}

function searchText(exchange) {
  exchange.searchText ??= `${exchange.serial}\n${exchange.request}\n${exchange.answer}\n${
    exchange.status ?? "no answer"}`.toLowerCase();
  return exchange.searchText;
}

// Everything that comes from outside goes in as text.
function cell(content, name = "") {
  const made = document.createElement("td");
  made.className = name;
  made.append(content instanceof Node ? content : String(content));
  if (!(content instanceof Node)) made.title = made.textContent;
  return made;
}

function detailsOf(exchange) {
  const made = document.createElement("tr");
  made.className = "details";
  const content = document.createElement("td");
  content.colSpan = columns();
  const answer = exchange.status === null
    ? "The connection ended without an answer."
    : `${exchange.status} after ${exchange.tookMs.toFixed(1)} ms\n${exchange.answer}`.trimEnd();
  for (const [title, text] of [
    [`Request ${exchange.number}, ${exchange.time}`, exchange.request], ["Answer", answer],
  ]) {
    const heading = document.createElement("h3");
    heading.textContent = title;
    const block = document.createElement("pre");
    block.textContent = text;
    content.append(heading, block);
  }
  made.append(content);
  return made;
}

function remove(main, details) {
  main.remove();
  details?.remove();
}
