import { Accounts } from "./accounts.js";
import { Connection } from "./connection.js";
import { Details } from "./details.js";
import { csvOf, harOf, save } from "./export.js";
import { Filter } from "./filter.js";
import { bindKeys } from "./keys.js";
import { Store } from "./store.js";
import { post, Switches } from "./switches.js";
import { Table } from "./table.js";
import { Timeline } from "./timeline.js";

const element = (id) => document.getElementById(id);
const store = new Store();
const table = new Table(store, new Details());
const timeline = new Timeline();
const switches = new Switches();
const filter = new Filter(() => {
  store.filter(filter.matcher());
  table.restart();
  table.draw();
});
store.filter(filter.matcher());
const accounts = new Accounts((serial) => filter.setAccount(serial));

let frame = 0;
let latest = {};

// However much comes at once, it is drawn once per frame.
function drawSoon() {
  if (frame) return;
  frame = requestAnimationFrame(() => {
    frame = 0;
    for (const [id, number] of Object.entries(latest)) element(id).textContent = number.toLocaleString();
    table.draw();
    timeline.draw();
  });
}

function take({ totals, exchanges }) {
  latest = totals;
  store.add(exchanges);
  for (const exchange of exchanges) timeline.add(exchange);
  accounts.changed();
  drawSoon();
}

new Connection(
  {
    state(state) {
      switches.show(state);
      element("held").textContent = state.held.toLocaleString();
    },
    snapshot(news) {
      timeline.clear();
      store.clear();
      table.forget();
      take(news);
    },
    exchanges: take,
  },
  (state, text) => {
    const shown = element("connection");
    if (state === "lost" && shown.dataset.state !== "lost") {
      element("stale").textContent = `What stands below is as of ${new Date().toLocaleTimeString(undefined, { hourCycle: "h23" })}.`;
    }
    shown.dataset.state = state;
    shown.textContent = text;
    element("stale").hidden = state !== "lost";
  },
);

element("reset").addEventListener("click", () => {
  post("/api/reset", {}).catch(() => {}); // the indicator says already that nobody is there
});
element("har").addEventListener("click", () =>
  save("orbiq-collector.har", "application/json", harOf(store.view().shown, location.origin)));
element("csv").addEventListener("click", () =>
  save("orbiq-collector.csv", "text/csv", csvOf(store.view().shown)));
bindKeys({
  "/": () => {
    element("filter").focus();
    element("filter").select();
  },
  p: () => table.pause(!store.paused),
  ArrowDown: () => table.focus(),
});
// On a small screen the exchanges come first into view.
element("switches").open = window.matchMedia("(min-width: 62em)").matches;
setInterval(() => timeline.draw(), 2000);
