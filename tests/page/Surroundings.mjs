// What the tests of pages stand on: a browser, and a collector with its page.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import fs from "node:fs";
import { createRequire } from "node:module";
import net from "node:net";
import readline from "node:readline";

const [modules, chromiumPath, collectorPath] = process.argv.slice(2);
const require = createRequire(`${modules}/`);
const axe = fs.readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");

export async function launchBrowser() {
  return require("playwright-core").chromium.launch({ executablePath: chromiumPath });
}

export class Collector {
  static async start(port = 0) {
    const collector = new Collector();
    collector.process = spawn(collectorPath, ["--port", String(port)],
      { stdio: ["ignore", "pipe", "inherit"] });
    collector.ended = once(collector.process, "exit");
    const lines = readline.createInterface({ input: collector.process.stdout });
    const [first] = await once(lines, "line");
    collector.url = first.match(/http:.*(?=\/$)/)[0];
    collector.port = Number(new URL(collector.url).port);
    return collector;
  }

  async stop() {
    this.process.kill("SIGTERM");
    const [code] = await this.ended;
    return code;
  }

  /// One request as an application sends it; its status and its body.
  async get(path, headers = {}) {
    const answer = await fetch(`${this.url}${path}`, { headers });
    return { status: answer.status, body: await answer.text() };
  }

  /// Hits of accounts with a prefix and a number.
  async flood(prefix, from, to) {
    const socket = net.connect(this.port, "127.0.0.1");
    for (let number = from; number <= to; ++number) {
      socket.write(`GET /hit/${prefix}${number} HTTP/1.1\r\nHost: x\r\nUser-Agent: Flood\r\n\r\n`);
      await once(socket, "data");
    }
    socket.end();
  }

  /// A request whose client leaves before the answer.
  async leave(path) {
    const held = async () => JSON.parse((await this.get("/api/exchanges")).body).held;
    const socket = net.connect(this.port, "127.0.0.1");
    socket.write(`GET ${path} HTTP/1.1\r\nHost: x\r\n\r\n`);
    while (await held() !== 1);
    socket.destroy();
    while (await held() !== 0);
  }

  async behave(changes) {
    const request = { method: "POST", body: JSON.stringify(changes) };
    return (await fetch(`${this.url}/api/behaviour`, request)).json();
  }
}

/// What makes a page, as it stands, hard to use for some; in words.
export async function barriersOf(page, narrow = "html") {
  // By the debugger: the page itself may run no script from elsewhere.
  if (!(await page.evaluate(() => "axe" in window))) await page.evaluate(axe);
  const { violations } = await page.evaluate(() => window.axe.run({ resultTypes: ["violations"] }));
  const all = violations.flatMap(({ id, nodes }) => nodes.map((node) => `${id}: ${node.html}`));
  return all.concat(await page.evaluate((selector) => [...document.querySelectorAll(selector)]
    .filter((each) => each.checkVisibility() && each.scrollWidth > each.clientWidth)
    .map((each) => `cut: ${each.outerHTML.slice(0, 80)}`), narrow));
}

/// The page as a user sees it. What goes wrong in it is collected in `faults`.
export class Visitor {
  static async open(browser, collector) {
    const visitor = new Visitor();
    visitor.collector = collector;
    visitor.page = await browser.newPage({ permissions: ["clipboard-read", "clipboard-write"] });
    visitor.page.setDefaultTimeout(100_000);  // as a sanitizer's collector beside other builds needs
    visitor.faults = [];
    visitor.page.on("pageerror", (error) => visitor.faults.push(String(error)));
    visitor.page.on("console", (message) => {
      if (["error", "warning"].includes(message.type())) visitor.faults.push(message.text());
    });
    visitor.page.on("response", (answer) => {
      if (answer.status() >= 400) visitor.faults.push(`${answer.status()} ${answer.url()}`);
    });
    await visitor.page.goto(`${collector.url}/`);
    await visitor.connection("live");
    return visitor;
  }

  async connection(state) {
    await this.page.locator(`#connection[data-state="${state}"]`).waitFor();
  }

  /// Ends the collector. The browser tells of what it cannot load while that is away.
  async loseConnection() {
    this.page.on("console", () => {
      this.faults = this.faults.filter((fault) => !/ERR_(CONNECTION_REFUSED|INCOMPLETE)/.test(fault));
    });
    assert.equal(await this.collector.stop(), 0);
    await this.connection("lost");
  }

  /// As if another tab had come before the page.
  async setHidden(hidden) {
    await this.page.evaluate((value) => {
      Object.defineProperty(document, "hidden", { value, configurable: true });
      document.dispatchEvent(new Event("visibilitychange"));
    }, hidden);
  }

  /// Waits for the text of an element.
  async shows(id, text) {
    await this.page.waitForFunction(
      ([each, wanted]) => document.getElementById(each).textContent === wanted, [id, text]);
  }

  async accounts(wanted) {
    await this.page.waitForFunction((expected) => {
      const cells = [...document.querySelectorAll("#rows td:nth-child(3)")];
      return cells.map((each) => each.textContent).join() === expected;
    }, wanted.join());
  }

  /// The text of the file that a button saves.
  async download(selector) {
    const [download] = await Promise.all([this.page.waitForEvent("download"), this.page.click(selector)]);
    return fs.readFileSync(await download.path(), "utf8");
  }

  async press(...keys) {
    for (const key of keys) await this.page.keyboard.press(key);
  }

  /// Goes on by the Tab key until the element has the focus.
  async tabTo(selector) {
    for (let steps = 0; steps < 40; ++steps) {
      await this.press("Tab");
      if (await this.page.evaluate((each) => document.activeElement.matches(each), selector)) return;
    }
    assert.fail(`the Tab key does not lead to ${selector}`);
  }
}
