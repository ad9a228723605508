// Bars of the last two minutes, with the numbers of one of them for the pointer and the keyboard.

import { outcomeOf } from "./exchange.js";

const BARS = 60;
const BAR_MS = 2000;
const LEAST = 3; // pixels, so that one hit beside a thousand is seen
const CLASSES = ["hit", "otherwise", "unanswered", "auth"];
const WORDS = ["arrived", "answered otherwise", "unanswered", "authorizations"];

const clock = new Intl.DateTimeFormat(undefined, {
  hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23",
});
const element = (id) => document.getElementById(id);

export class Timeline {
  #counts = new Map(); // by bar, since the epoch: one number for each class
  #chosen = null; // the bar whose numbers are shown
  #plot = element("plot");
  #size = { width: 0, height: 0 }; // asking for it at each drawing would lay out the page anew

  constructor() {
    this.#plot.addEventListener("pointermove", (event) => this.#choose(this.#under(event)));
    this.#plot.addEventListener("pointerdown", (event) => this.#choose(this.#under(event)));
    this.#plot.addEventListener("pointerleave", () => this.#choose(null));
    this.#plot.addEventListener("blur", () => this.#choose(null));
    this.#plot.addEventListener("keydown", (event) => this.#moved(event));
    new ResizeObserver(([{ contentRect }]) => {
      this.#size = contentRect;
      this.draw();
    }).observe(this.#plot);
  }

  clear() {
    this.#counts.clear();
  }

  add(exchange) {
    const bar = Math.floor(Date.parse(exchange.time) / BAR_MS);
    if (!this.#counts.has(bar)) this.#counts.set(bar, [0, 0, 0, 0]);
    this.#counts.get(bar)[CLASSES.indexOf(outcomeOf(exchange))] += 1;
  }

  draw() {
    const first = firstBar();
    for (const bar of this.#counts.keys()) {
      if (bar < first) this.#counts.delete(bar);
    }
    if (this.#chosen !== null && this.#chosen < first) this.#chosen = first;
    const { height } = this.#size;
    if (height === 0) return; // not laid out yet; the observer draws then
    const width = this.#size.width / BARS;
    const sums = [...this.#counts.values()].map(sum);
    const peak = Math.max(0, ...sums);
    const shapes = [];
    for (const [bar, counts] of this.#counts) {
      let top = height;
      heightsOf(counts, height / Math.max(peak, 4), height).forEach((each, index) => {
        if (each === 0) return;
        top -= each;
        const shape = document.createElementNS("http://www.w3.org/2000/svg", "rect");
        place(shape, { x: (bar - first + 0.1) * width, y: top, width: 0.8 * width, height: each });
        shape.setAttribute("class", CLASSES[index]);
        shapes.push(shape);
      });
    }
    element("shapes").replaceChildren(...shapes);
    this.#tell(first, peak, width, height);
  }

  #tell(first, peak, width, height) {
    const at = this.#chosen === null ? BARS - 1 : this.#chosen - first;
    place(element("chosen"), { x: at * width, y: 0, width: this.#chosen === null ? 0 : width, height });
    let text = `The last two minutes${peak > 0 ? `, at most ${peak.toLocaleString()} in ${BAR_MS / 1000} s` : ""}`;
    if (this.#chosen !== null) {
      const time = (bar) => clock.format(new Date(bar * BAR_MS));
      text = `${time(this.#chosen)}–${time(this.#chosen + 1)}: ${wordsFor(this.#counts.get(this.#chosen))}`;
    }
    if (element("reading").textContent !== text) element("reading").textContent = text;
    this.#plot.setAttribute("aria-valuenow", String(at));
    this.#plot.setAttribute("aria-valuetext", this.#chosen === null ? this.#summary() : text);
  }

  #summary() {
    const totals = CLASSES.map((_, index) => sum([...this.#counts.values()].map((counts) => counts[index])));
    return wordsFor(totals);
  }

  #under(event) {
    const box = this.#plot.getBoundingClientRect();
    const at = Math.floor(((event.clientX - box.left) / box.width) * BARS);
    return firstBar() + Math.max(0, Math.min(BARS - 1, at));
  }

  #moved(event) {
    const first = firstBar();
    const at = this.#chosen ?? first + BARS;
    const to = { ArrowLeft: at - 1, ArrowRight: at + 1, Home: first, End: first + BARS - 1, Escape: null }[event.key];
    if (to === undefined) return;
    event.preventDefault();
    this.#choose(to === null ? null : Math.max(first, Math.min(first + BARS - 1, to)));
  }

  #choose(bar) {
    if (bar === this.#chosen) return;
    this.#chosen = bar;
    this.draw();
  }
}

const firstBar = () => Math.floor(Date.now() / BAR_MS) - BARS + 1;
const sum = (numbers) => numbers.reduce((a, b) => a + b, 0);

// In proportion, but none that is there below the least; what is too much then comes off the largest.
function heightsOf(counts, scale, height) {
  const heights = counts.map((count) => (count ? Math.max(LEAST, count * scale) : 0));
  const over = sum(heights) - height;
  if (over > 0) heights[heights.indexOf(Math.max(...heights))] -= over;
  return heights;
}

function wordsFor(counts) {
  const words = (counts ?? []).map((count, index) => `${count.toLocaleString()} ${WORDS[index]}`);
  return words.filter((_, index) => counts[index]).join(", ") || "nothing";
}

function place(shape, attributes) {
  for (const [key, value] of Object.entries(attributes)) shape.setAttribute(key, value);
}
