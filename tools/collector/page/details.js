// The pane with all that is known of one exchange.

import { make, marksOf, statusText, tookText } from "./exchange.js";
import { curlFor } from "./export.js";

const element = (id) => document.getElementById(id);
const FEEDBACK_MS = 2000;

export class Details {
  #exchange;

  constructor() {
    element("curl").addEventListener("click", () => this.#copy());
  }

  // 0 if none is shown.
  get number() {
    return this.#exchange?.number ?? 0;
  }

  show(exchange) {
    this.#exchange = exchange;
    element("details").hidden = !exchange;
    element("exchanges").toggleAttribute("data-open", Boolean(exchange));
    if (!exchange) return;
    element("detailsTitle").textContent = `Exchange ${exchange.number}, ${exchange.time}`;
    const answer = exchange.status === null
      ? `The connection ended without an answer, after ${tookText(exchange)} ms.`
      : `${statusText(exchange)} after ${tookText(exchange)} ms\n${exchange.answer}`.trimEnd();
    const blocks = [["Request", exchange.request], ["Answer", answer]];
    const applied = [...marksOf(exchange), ...statusMarks(exchange)];
    if (applied.length) blocks.push(["Applied by the switches", applied.join("\n")]);
    element("detailsBody").replaceChildren(
      ...blocks.flatMap(([title, text]) => [make("h4", "", title), make("pre", "", text)]));
    element("detailsBody").scrollTop = 0;
  }

  async #copy() {
    const text = curlFor(this.#exchange, location.origin);
    try {
      await navigator.clipboard.writeText(text);
    } catch {
      // No permission: then the user copies it.
      element("detailsBody").append(make("h4", "", "As curl"), make("pre", "", text));
      return;
    }
    element("curl").textContent = "Copied";
    setTimeout(() => (element("curl").textContent = "Copy as curl"), FEEDBACK_MS);
  }
}

function statusMarks({ applied }) {
  const status = applied.hitStatus ?? applied.authStatus;
  return status === undefined ? [] : [`status ${status}`];
}
