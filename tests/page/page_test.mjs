// The collector's page in a real browser.
// Arguments: directory of node_modules, Chromium, orbiq-collector, orbiq-first-hit.

import assert from "node:assert/strict";
import { once } from "node:events";
import fs from "node:fs";
import http from "node:http";
import os from "node:os";
import path from "node:path";
import { after, afterEach, before, beforeEach, test } from "node:test";
import { Collector, launchBrowser, Visitor } from "./Surroundings.mjs";

let browser, collector, visitor, page;

before(async () => {
  browser = await launchBrowser();
});
after(() => browser?.close());

beforeEach(async () => {
  collector = await Collector.start();
  visitor = await Visitor.open(browser, collector);
  page = visitor.page;
});
afterEach(async () => {
  await page.close();
  assert.equal(await collector.stop(), 0);
  assert.deepEqual(visitor.faults, []);
});

test("a hit of the library appears, and the keyboard alone opens its details", async () => {
  const directory = fs.mkdtempSync(path.join(os.tmpdir(), "orbiq-page-"));
  await collector.sendRealHit(directory);
  fs.rmSync(directory, { recursive: true });
  await visitor.accounts(["ABC", "ABC"]);
  await visitor.shows("hits", "1");
  await visitor.shows("authorizations", "1");
  await page.locator("#bars rect.hit").waitFor({ state: "attached" });

  await visitor.tabTo("#rows button");
  await visitor.press("Enter");
  const details = page.locator(".details");
  assert.match(await details.innerText(), /GET \/hit\/ABC HTTP\/1\.1[^]*User-Agent:[^]*\n200 after/);
  await visitor.press("Escape");
  await details.waitFor({ state: "detached" });
  await visitor.press("ArrowDown", "Space");
  assert.match(await details.innerText(), /GET \/auth\/ABC[^]*access=full\|host=/);

  // What arrives later takes neither the details nor the focus away.
  await collector.get("/hit/LATER");
  await visitor.accounts(["LATER", "ABC", "ABC"]);
  assert.equal(await details.count(), 1);
  assert.equal(await page.evaluate(() => document.activeElement.ariaExpanded), "true");
});

test("switches change the next answer, and follow what others change", async () => {
  await visitor.tabTo("#access-choice");
  await visitor.press("ArrowDown");
  await visitor.shows("changed", "1 changed");
  assert.match((await collector.get("/auth/S")).body, /^access=denied\|/);
  await page.selectOption("#access-choice", { label: "other…" });
  await page.fill("#access-other", "half");
  await visitor.press("Tab");
  await page.fill("#hitStatus", "503");
  await visitor.press("Enter");
  await visitor.shows("changed", "2 changed");
  assert.match((await collector.get("/auth/S")).body, /^access=half\|/);
  assert.equal((await collector.get("/hit/S")).status, 503);
  await visitor.shows("hitsAnsweredOtherwise", "1");

  await page.fill("#delayMs", "-1");
  await visitor.press("Enter");
  await page.locator("#delayMs[aria-invalid]").waitFor();
  assert.match(await page.innerText("#refusal"), /^Delay \(ms\): /);
  assert.equal((await collector.behaviour()).delayMs, 0);

  await collector.behave({ stall: "hit" });
  await page.waitForFunction(() => document.getElementById("stall").value === "hit");
  const held = collector.get("/hit/HELD");
  await visitor.shows("held", "1");
  await page.click("#healthy");
  assert.equal((await held).status, 200);
  await visitor.shows("held", "0");
  await visitor.shows("changed", "");
  assert.equal(await page.inputValue("#access-choice"), "full");
});

test("filter, pause and clear", async () => {
  for (const account of ["RED", "BLUE", "RED"]) await collector.get(`/hit/${account}`);
  await collector.get("/auth/RED", { "X-Odd": "needle" });
  await collector.behave({ hitStatus: 404 });
  await collector.get("/hit/GONE");
  await visitor.accounts(["GONE", "RED", "RED", "BLUE", "RED"]);

  await page.fill("#filter", "blue");
  await visitor.accounts(["BLUE"]);
  await visitor.shows("shown", "Showing 1 of 5; 1 match the filter.");
  await page.fill("#filter", "Needle");
  await visitor.accounts(["RED"]);
  await page.fill("#filter", "");
  await page.selectOption("#kind", "hit");
  await page.selectOption("#outcome", "good");
  await visitor.accounts(["RED", "BLUE", "RED"]);
  await page.selectOption("#outcome", "other");
  await visitor.accounts(["GONE"]);
  await page.selectOption("#outcome", "");

  await page.click("#pause");
  await collector.get("/hit/LATER");
  await visitor.shows("shown", "Showing 4 of 6; 5 match the filter; 1 held back by the pause.");
  await visitor.accounts(["GONE", "RED", "BLUE", "RED"]);
  await page.click("#pause");
  await visitor.accounts(["LATER", "GONE", "RED", "BLUE", "RED"]);

  await page.click("#reset");
  await page.locator("#empty").waitFor();
  await visitor.accounts([]);
  for (const id of ["hits", "hitsAnsweredOtherwise", "hitsUnanswered", "authorizations"]) await visitor.shows(id, "0");
  assert.equal(await page.locator("#bars rect").count(), 0);
  assert.match(await page.innerText("#recipe"), new RegExp(`=${collector.url}/auth/ `));
});

test("what comes from outside is text", async () => {
  const markup = "<img/src=x/onerror=alert(1)>";
  await collector.behave({ access: markup });
  await collector.get(`/auth/${markup}`, { "User-Agent": markup });
  await visitor.accounts([markup]);
  await page.click("#rows button");
  assert.equal((await page.innerText(".details")).split(markup).length, 4);
  assert.equal(await page.locator("img").count(), 0);
});

test("a restart on the same port, and a time out of sight, lose and repeat nothing", async () => {
  await collector.get("/hit/OLD");
  await visitor.accounts(["OLD"]);
  assert.equal(await collector.stop(), 0);
  await visitor.connection("lost");
  await page.selectOption("#stall", "hit");
  await page.waitForFunction(() => document.getElementById("stall").value === "none");
  collector = await Collector.start(collector.port);
  await collector.get("/hit/NEW");
  await visitor.connection("live");
  await visitor.accounts(["NEW"]);
  visitor.faults = visitor.faults.filter((fault) => !/ERR_(CONNECTION_REFUSED|INCOMPLETE)/.test(fault));

  const setHidden = (hidden) => page.evaluate((value) => {
    Object.defineProperty(document, "hidden", { value, configurable: true });
    document.dispatchEvent(new Event("visibilitychange"));
  }, hidden);
  await page.click("#rows button");
  await setHidden(true);
  await visitor.connection("idle");
  await collector.get("/hit/UNSEEN");
  await setHidden(false);
  await visitor.accounts(["UNSEEN", "NEW"]);
  // It went on from where it was: a fresh start would have closed the details.
  assert.equal(await page.locator(".details").count(), 1);
});

test("thousands of hits come in a few rows", async () => {
  for (let number = 1; number <= 5000; ++number) await collector.get(`/hit/S${number}`);
  await visitor.shows("hits", (5000).toLocaleString("en-US"));
  await visitor.shows("shown", "Showing 200 of the newest 2000.");
  await page.click("#more");
  await visitor.shows("shown", "Showing 400 of the newest 2000.");
  const shown = await page.locator("#rows td:nth-child(3)").allInnerTexts();
  assert.deepEqual([shown.length, shown[0], shown[399]], [400, "S5000", "S4601"]);
  await page.fill("#filter", "S3001");
  await visitor.accounts(["S3001"]);

  await page.fill("#filter", "");
  await page.click("#pause");
  for (let number = 5001; number <= 7100; ++number) await collector.get(`/hit/S${number}`);
  await visitor.shows("hits", (7100).toLocaleString("en-US"));
  await visitor.shows("shown",
    "Showing 200 of the newest 4000; 2000 held back by the pause.");
  await page.click("#pause");
  await visitor.shows("shown", "Showing 200 of the newest 2000.");
});

test("more pages than there is room for wait until one leaves", async () => {
  const streams = [];
  for (;;) {
    const request = http.get(`${collector.url}/api/events`);
    const [answer] = await once(request, "response");
    streams.push(request);
    if (answer.statusCode !== 200) break;
  }
  assert.equal(streams.length, 16);
  const late = await browser.newPage();
  await late.goto(collector.url);
  await late.locator("#connection[data-state=lost]").waitFor();
  assert.match(await late.innerText("#connection"), /too many pages/);
  assert.equal((await collector.get("/hit/S")).status, 200);
  for (const stream of streams) stream.destroy();
  await late.locator("#connection[data-state=live]").waitFor();
  await late.close();
});

test("a page of another origin can neither read nor switch anything", async () => {
  const elsewhere = http.createServer((_, answer) => answer.end("<!doctype html>")).listen(0, "127.0.0.1");
  await once(elsewhere, "listening");
  const stranger = await browser.newPage();
  await stranger.goto(`http://127.0.0.1:${elsewhere.address().port}/`);
  const outcome = await stranger.evaluate(async ([url, host]) => {
    const denied = JSON.stringify({ access: "denied" });
    const smuggled = `POST /api/behaviour HTTP/1.1\r\nHost: ${host}\r\nContent-Length: ` +
      `${denied.length}\r\n\r\n${denied}`;
    // The server reads its input in pieces of a few kilobytes: one of these begins with a request.
    const bodies = [denied, smuggled, ...[...Array(64).keys()].map((n) => " ".repeat(64 * n) + smuggled)];
    for (const body of bodies) {
      for (const type of ["text/plain", "multipart/form-data"]) {
        await fetch(`${url}/api/behaviour`, { method: "POST", mode: "no-cors", body,
          headers: { "Content-Type": type } }).catch(() => {});
      }
    }
    const read = await fetch(`${url}/api/exchanges`).then(() => "read", () => "refused");
    const stream = await new Promise((resolve) => {
      const source = new EventSource(`${url}/api/events`);
      source.onopen = () => resolve("open");
      source.onerror = () => resolve("refused");
    });
    return { read, stream };
  }, [collector.url, new URL(collector.url).host]);
  assert.deepEqual(outcome, { read: "refused", stream: "refused" });
  assert.equal((await collector.behaviour()).access, "full");
  await stranger.close();
  elsewhere.closeAllConnections();
  elsewhere.close();
});
