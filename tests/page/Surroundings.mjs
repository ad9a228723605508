// What the test of the page stands on: a collector, a browser, applications that send hits.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import http from "node:http";
import { createRequire } from "node:module";
import readline from "node:readline";

const [modules, chromiumPath, collectorPath, firstHitPath] = process.argv.slice(2);
const { chromium } = createRequire(`${modules}/`)("playwright-core");

export async function launchBrowser() {
  return chromium.launch({ executablePath: chromiumPath });
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

  async behaviour() {
    return JSON.parse((await this.get("/api/behaviour")).body);
  }

  async behave(changes) {
    const answer = await fetch(`${this.url}/api/behaviour`,
      { method: "POST", body: JSON.stringify(changes) });
    assert.equal(answer.status, 200);
  }

  async sendRealHit(directory) {
    const environment = { ...process.env };
    for (const name of Object.keys(environment)) {
      if (/_proxy$/i.test(name)) delete environment[name];
    }
    environment.ORBIQ_AUTHORIZATION_SERVER = `${this.url}/auth/`;
    environment.ORBIQ_LIBRARY_DIRECTORY = directory;
    const application = spawn(firstHitPath, { stdio: ["ignore", "ignore", "inherit"], env: environment });
    const [code] = await once(application, "exit");
    assert.equal(code, 0);
  }
}

/// The page as a user sees it. What goes wrong in it is collected in `faults`.
export class Visitor {
  static async open(browser, collector) {
    const visitor = new Visitor();
    visitor.page = await browser.newPage();
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
