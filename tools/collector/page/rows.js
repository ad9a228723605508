// The rows of a long list, of which only the visible ones are in the document. One of them is in
// the tab order, and the arrow keys move on from it.

import { above } from "./store.js";

const BEYOND = 6; // rows above and below what is visible, so that no scrolling shows a gap

export class Rows {
  #list = []; // oldest first; the newest is shown at the top
  #rows = new Map(); // by number: those in the document
  #current = 0; // the number whose row is in the tab order
  #top = null; // where the list stands: the number of its first visible row, and pixels above it
  // These are kept: asking for them at each drawing would lay out the page anew.
  #height = 0; // of a row
  #visible = 0; // of the scroller
  #scrollTop = 0;
  #scroller;
  #body;
  #make;
  #before = spacer();
  #after = spacer();

  // `make(exchange)` gives a row with one button, in its first cell.
  constructor(scroller, body, make) {
    this.#scroller = scroller;
    this.#body = body;
    this.#make = make;
    body.append(this.#before, this.#after);
    scroller.addEventListener("scroll", () => this.#scrolled());
    new ResizeObserver(([{ contentRect }]) => {
      this.#visible = contentRect.height;
      this.#height = 0; // the style sheet has another one for another width
      this.#render(this.#top);
    }).observe(scroller);
    body.addEventListener("keydown", (event) => this.#moved(event));
    body.addEventListener("focusin", (event) => this.#makeCurrent(numberOf(event.target)));
  }

  // Takes a list that goes on where the last one ended, or, from the top, another one. Whoever has
  // scrolled down, or stands on a row, goes on to see the same rows.
  show(list, fromTop) {
    this.#list = list;
    const stays = this.#scrollTop > 0 || this.#body.contains(document.activeElement);
    if (fromTop && this.#scrollTop > 0) this.#scrollTo(0);
    this.#render(fromTop || !stays ? null : this.#top);
  }

  // What comes next may have the same numbers, and be something else.
  clear() {
    for (const row of this.#rows.values()) row.remove();
    this.#rows.clear();
    this.#list = [];
  }

  get(number) {
    const found = this.#list[above(this.#list, number) - 1];
    return found?.number === number ? found : undefined;
  }

  // Changes a row, if it is in the document.
  mark(number, change) {
    const row = this.#rows.get(number);
    if (row) change(row);
  }

  focusCurrent() {
    this.#rows.get(this.#current)?.querySelector("button").focus();
  }

  #place(number) {
    return this.#list.length - above(this.#list, number);
  }

  #scrolled() {
    if (Math.abs(this.#scroller.scrollTop - this.#scrollTop) < 1) return; // our own
    this.#scrollTop = this.#scroller.scrollTop;
    this.#render();
  }

  #scrollTo(top) {
    this.#scroller.scrollTop = top;
    this.#scrollTop = this.#scroller.scrollTop;
  }

  #render(keep = null) {
    const { length } = this.#list;
    if (!this.#height) this.#measure();
    if (!this.#height && length) return; // not shown
    const height = this.#height || 1; // or nothing is there to be seen
    let wanted = NaN;
    // The spacers first: the browser scrolls no further than there is something.
    if (keep) {
      wanted = this.#place(keep.number) * height + keep.above;
      this.#before.firstChild.style.height = `${wanted}px`;
      this.#after.firstChild.style.height = `${Math.max(0, length * height - wanted)}px`;
      if (Math.abs(this.#scrollTop - wanted) >= 1) this.#scrollTo(wanted);
    }
    const top = this.#scrollTop;
    const visible = Math.ceil(this.#visible / height);
    const first = Math.max(0, Math.min(Math.floor(top / height), length - visible) - BEYOND);
    const last = Math.min(length, first + visible + 2 * BEYOND);
    this.#fill(first, last);
    this.#before.firstChild.style.height = `${first * height}px`;
    this.#after.firstChild.style.height = `${(length - last) * height}px`;
    // The browser rounds where it scrolls to. Taken from there, the list would drift off.
    if (Math.abs(top - wanted) < 1) {
      this.#top = keep;
      return;
    }
    const place = Math.max(0, Math.min(length - 1, Math.floor(top / height)));
    this.#top = length ? { number: this.#list[length - 1 - place].number, above: top - place * height } : null;
  }

  #measure() {
    if (!this.#list.length) return;
    if (!this.#rows.size) this.#fill(0, 1);
    const [row] = this.#rows.values();
    this.#height = row.getBoundingClientRect().height;
  }

  #fill(first, last) {
    const { length } = this.#list;
    const wanted = new Set();
    for (let i = first; i < last; ++i) wanted.add(this.#list[length - 1 - i].number);
    let hadFocus = false;
    for (const [number, row] of this.#rows) {
      if (wanted.has(number)) continue;
      hadFocus ||= row.contains(document.activeElement);
      row.remove();
      this.#rows.delete(number);
    }
    let next = this.#before.nextSibling;
    for (let i = first; i < last; ++i) {
      const exchange = this.#list[length - 1 - i];
      const row = this.#rows.get(exchange.number) ?? this.#add(exchange);
      row.ariaRowIndex = i + 2;
      if (row === next) next = row.nextSibling;
      else this.#body.insertBefore(row, next);
    }
    if (last > first && !this.#stands(wanted)) {
      this.#makeCurrent(this.#list[length - 1 - Math.min(first && first + BEYOND, last - 1)].number);
      if (hadFocus) this.#rows.get(this.#current).querySelector("button").focus({ preventScroll: true });
    }
  }

  // Whoever comes from outside begins at the top.
  #stands(wanted) {
    return wanted.has(this.#current) && this.#body.contains(document.activeElement);
  }

  #add(exchange) {
    const row = this.#make(exchange);
    row.dataset.number = exchange.number;
    row.querySelector("button").tabIndex = exchange.number === this.#current ? 0 : -1;
    this.#rows.set(exchange.number, row);
    return row;
  }

  #makeCurrent(number) {
    const set = (tabIndex) => this.mark(this.#current, (row) => (row.querySelector("button").tabIndex = tabIndex));
    set(-1);
    this.#current = number;
    set(0);
  }

  #moved(event) {
    const at = this.#place(numberOf(event.target));
    const page = Math.floor(this.#visible / this.#height) - 2;
    const end = this.#list.length - 1;
    const to = { ArrowDown: at + 1, ArrowUp: at - 1, PageDown: Math.min(end, at + page),
      PageUp: Math.max(0, at - page), Home: 0, End: end }[event.key];
    if (to === undefined || event.ctrlKey || event.altKey || event.metaKey) return;
    event.preventDefault();
    if (to >= 0 && to <= end) this.#goTo(to);
  }

  #goTo(place) {
    const head = this.#body.previousElementSibling.offsetHeight;
    const top = place * this.#height;
    const room = this.#visible - head - this.#height;
    if (this.#scrollTop > top) this.#scrollTo(top);
    if (this.#scrollTop < top - room) this.#scrollTo(top - room);
    this.#render();
    const { number } = this.#list[this.#list.length - 1 - place];
    this.#rows.get(number).querySelector("button").focus({ preventScroll: true });
  }
}

export function numberOf(target) {
  return Number(target.closest("tr[data-number]")?.dataset.number ?? 0);
}

function spacer() {
  const row = document.createElement("tr");
  row.ariaHidden = "true";
  row.className = "spacer";
  row.append(document.createElement("td"));
  return row;
}
