import { Connection } from "./connection.js";
import { post, Switches } from "./switches.js";
import { Table } from "./table.js";
import { Timeline } from "./timeline.js";

const table = new Table();
const timeline = new Timeline();
const switches = new Switches();

let frame = 0;

// However much comes at once, it is drawn once per frame.
function drawSoon() {
  if (frame) return;
  frame = requestAnimationFrame(() => {
    frame = 0;
    table.draw();
    timeline.draw();
  });
}

function count(id, number) {
  document.getElementById(id).textContent = number.toLocaleString();
}

function take({ totals, exchanges }) {
  for (const [id, number] of Object.entries(totals)) count(id, number);
  for (const exchange of exchanges) timeline.add(exchange);
  drawSoon();
}

new Connection(
  {
    state(state) {
      switches.show(state);
      count("held", state.held);
    },
    snapshot(news) {
      timeline.clear();
      table.replace(news.exchanges);
      take(news);
    },
    exchanges(news) {
      table.add(news.exchanges);
      take(news);
    },
  },
  (state, text) => {
    const shown = document.getElementById("connection");
    shown.dataset.state = state;
    shown.textContent = text;
    document.body.toggleAttribute("data-stale", state === "lost");
  },
);

document.getElementById("reset").addEventListener("click", () => {
  post("/api/reset", {}).catch(() => {}); // the indicator says already that nobody is there
});
// On a small screen the exchanges come first into view.
document.getElementById("switches").open = window.matchMedia("(min-width: 62em)").matches;
setInterval(() => timeline.draw(), 2000);
