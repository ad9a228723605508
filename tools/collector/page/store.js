// The newest exchanges, as many as the collector keeps, and which of them are to be seen.

const KEPT = 10000;

// The first place in a list by number whose number is above the given one.
export function above(list, number) {
  let low = 0;
  let high = list.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (list[middle].number > number) high = middle;
    else low = middle + 1;
  }
  return low;
}

export class Store {
  #all = []; // oldest first, as is the next
  #matching = [];
  #matches = () => true;
  #pausedAt = null; // the newest number when the list was paused

  clear() {
    this.#all = [];
    this.#matching = [];
    this.#pausedAt = null;
  }

  add(exchanges) {
    for (const exchange of exchanges) {
      this.#all.push(exchange);
      if (this.#matches(exchange)) this.#matching.push(exchange);
    }
    this.#trim();
  }

  filter(matches) {
    this.#matches = matches;
    this.#matching = this.#all.filter(matches);
  }

  get paused() {
    return this.#pausedAt !== null;
  }

  pause(paused) {
    this.#pausedAt = paused ? (this.#all.at(-1)?.number ?? 0) : null;
    this.#trim();
  }

  // While paused, what is shown stays, and of what is held back the newest.
  #trim() {
    const stays = this.paused ? above(this.#all, this.#pausedAt) : 0;
    const over = this.#all.length - stays - KEPT;
    if (over <= 0) return;
    const last = this.#all[stays + over - 1].number;
    this.#all.splice(stays, over);
    const from = this.paused ? above(this.#matching, this.#pausedAt) : 0;
    this.#matching.splice(from, above(this.#matching, last) - from);
  }

  // What is to be seen, and what the pause holds back of it.
  view() {
    const { length } = this.#matching;
    const shown = this.paused ? above(this.#matching, this.#pausedAt) : length;
    return {
      shown: shown === length ? this.#matching : this.#matching.slice(0, shown),
      heldBack: length - shown,
      total: this.#all.length,
      isFull: this.#all.length >= KEPT,
    };
  }
}
