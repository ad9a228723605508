// Bars of the last two minutes.

const BARS = 60;
const BAR_MS = 2000;
const CLASSES = ["hit", "lost", "auth"];
const WORDS = ["hits arrived", "hits lost", "authorizations"];

export function classOf(exchange) {
  if (exchange.kind === "auth") return "auth";
  return exchange.status === 200 ? "hit" : "lost";
}

export class Timeline {
  #counts = new Map(); // by bar, since the epoch: one number for each class
  #plot = document.getElementById("bars");
  #peak = document.getElementById("peak");

  clear() {
    this.#counts.clear();
  }

  add(exchange) {
    const bar = Math.floor(Date.parse(exchange.time) / BAR_MS);
    if (!this.#counts.has(bar)) this.#counts.set(bar, [0, 0, 0]);
    this.#counts.get(bar)[CLASSES.indexOf(classOf(exchange))] += 1;
  }

  draw() {
    const first = Math.floor(Date.now() / BAR_MS) - BARS + 1;
    for (const bar of this.#counts.keys()) {
      if (bar < first) this.#counts.delete(bar);
    }
    const sums = [...this.#counts.values()].map((counts) => counts[0] + counts[1] + counts[2]);
    const peak = Math.max(0, ...sums);
    const height = 100 / Math.max(peak, 4); // one hit alone is no tower
    const shapes = [];
    for (const [bar, counts] of this.#counts) {
      let top = 100;
      counts.forEach((count, index) => {
        if (count === 0) return;
        top -= count * height;
        shapes.push(rectangle(bar - first + 0.1, top, 0.8, count * height, CLASSES[index]));
      });
    }
    this.#plot.replaceChildren(...shapes);
    this.#peak.textContent = peak > 0 ? `, at most ${peak} in ${BAR_MS / 1000} s` : "";
    const totals = [0, 0, 0];
    for (const counts of this.#counts.values()) counts.forEach((count, i) => (totals[i] += count));
    const words = totals.map((total, index) => `${total} ${WORDS[index]}`);
    this.#plot.setAttribute("aria-label", `In the last two minutes: ${words.join(", ")}`);
  }
}

function rectangle(x, y, width, height, name) {
  const shape = document.createElementNS("http://www.w3.org/2000/svg", "rect");
  for (const [key, value] of Object.entries({ x, y, width, height, class: name })) {
    shape.setAttribute(key, value);
  }
  return shape;
}
