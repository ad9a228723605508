// What the tests of pages stand on: a browser, and a collector with its page.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import fs from "node:fs";
import http from "node:http";
import { createRequire } from "node:module";
import net from "node:net";
import readline from "node:readline";

const [modules, chromiumPath, collectorPath] = process.argv.slice(2);
const require = createRequire(`${modules}/`);
export const axe = fs.readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");

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
    collector.agent = new http.Agent({ keepAlive: true, maxSockets: 1 });
    return collector;
  }

  async stop() {
    this.process.kill("SIGTERM");
    const [code] = await this.ended;
    this.agent.destroy();
    return code;
  }

  /// One request as an application sends it; its status and its body.
  async get(path, headers = {}) {
    const request = http.get({ port: this.port, host: "127.0.0.1", path, headers, agent: this.agent });
    const [answer] = await once(request, "response");
    let body = "";
    for await (const part of answer) body += part;
    return { status: answer.statusCode, body };
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

/// The page as a user sees it. What goes wrong in it is collected in `faults`.
export class Visitor {
  static async open(browser, collector) {
    const visitor = new Visitor();
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

  /// The browser tells of what it could not load while the collector was away.
  forgiveLostConnection() {
    this.faults = this.faults.filter((fault) => !/ERR_(CONNECTION_REFUSED|INCOMPLETE)/.test(fault));
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

  /// What makes the page, as it stands, hard to use for some; in words.
  async barriers() {
    // By the debugger: the page itself may run no script from elsewhere.
    if (!(await this.page.evaluate(() => "axe" in window))) await this.page.evaluate(axe);
    const found = await this.page.evaluate(() => window.axe.run({ resultTypes: ["violations"] }));
    const all = found.violations.flatMap(({ id, nodes }) => nodes.map((node) => `${id}: ${node.html}`));
    return all.concat(await this.page.evaluate(() => {
      const isCut = (each) => each.checkVisibility() && each.scrollWidth > each.clientWidth;
      return [document.documentElement, ...document.querySelectorAll("button:not([data-serial]), th, #scroller, .answer > .bad")]
        .filter(isCut).map((each) => `cut: ${each.outerHTML.slice(0, 80)}`);
    }));
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
