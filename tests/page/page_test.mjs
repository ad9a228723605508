// The collector's page in a real browser.
// Arguments: directory of node_modules, Chromium, orbiq-collector.

import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { after, afterEach, before, beforeEach, test } from "node:test";
import { barriersOf, Collector, launchBrowser, Visitor } from "./Surroundings.mjs";

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

test("a hit appears, and the keyboard alone opens its details", async () => {
  await collector.get("/auth/ABC");
  await collector.get("/hit/ABC", { "User-Agent": "Player/4.2" });
  await visitor.accounts(["ABC", "ABC"]);
  await visitor.shows("hits", "1");
  await visitor.shows("authorizations", "1");
  await page.locator("#shapes .hit").waitFor({ state: "attached" });

  await visitor.tabTo("#rows button");
  await visitor.press("Enter");
  const details = page.locator("#details");
  assert.match(await details.innerText(), /GET \/hit\/ABC HTTP\/1\.1[^]*User-Agent: Player[^]*\n200 after/);
  await visitor.press("Escape");
  await details.waitFor({ state: "hidden" });
  await visitor.press("ArrowDown", "Space");
  assert.match(await details.innerText(), /GET \/auth\/ABC[^]*access=full\|host=/);

  // What arrives later takes neither the details nor the focus away.
  await collector.get("/hit/LATER");
  await visitor.accounts(["LATER", "ABC", "ABC"]);
  assert.equal(await details.isVisible(), true);
  await visitor.press("ArrowUp");  // open details follow
  assert.match(await details.innerText(), /GET \/hit\/ABC/);
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
  assert.equal((await collector.behave({ stall: "hit" })).delayMs, 0);
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

  await visitor.press("/");
  await page.keyboard.type('-needle -"gone http"');
  await visitor.accounts(["RED", "BLUE", "RED"]);
  await page.reload();  // the address has kept it
  await visitor.shows("shown", "3 of 5 exchanges match the filter");
  await page.click("#accounts summary");
  await page.waitForFunction(() => document.getElementById("accountRows").innerText ===
    "RED\t2\t0\t0\t1\nBLUE\t1\t0\t0\t0\nGONE\t0\t1\t0\t0");
  await page.click("#accountRows button >> nth=2");
  await visitor.accounts(["GONE"]);
  await page.fill("#filter", "");
  await page.selectOption("#kind", "hit");
  await visitor.accounts(["GONE", "RED", "BLUE", "RED"]);
  await page.selectOption("#outcome", "other");
  await visitor.accounts(["GONE"]);

  await page.click("h1");
  await visitor.press("p");
  await collector.get("/hit/LATER");
  await visitor.shows("shown", "2 of 6 exchanges match the filter; paused, 1 held back");
  await visitor.accounts(["GONE"]);
  await page.click("#pause");
  await visitor.accounts(["LATER", "GONE"]);

  await page.click("#reset");
  await page.locator("#empty").waitFor();
  await visitor.accounts([]);
  for (const id of ["hits", "hitsAnsweredOtherwise", "authorizations"]) await visitor.shows(id, "0");
  assert.equal(await page.locator("#shapes rect").count(), 0);
  assert.match(await page.innerText("#empty"),
    new RegExp(`=${collector.url}/auth/ [^]*\norbiq-doctor --server ${collector.url}/auth/ --serial`));
});

test("what was applied to an answer is marked, and one lost hit among a thousand is seen", async () => {
  await collector.behave({ malformed: "cut", dateSkewSeconds: -60 });
  await collector.get("/auth/CUT").catch(() => {});
  await collector.behave({ malformed: "none", dateSkewSeconds: 0, stall: "hit" });
  await collector.leave("/hit/HELD");
  await collector.behave({ stall: "none" });
  await page.selectOption("#outcome", "marked");
  await visitor.accounts(["HELD", "CUT"]);
  assert.equal(await page.getAttribute("#rows .answer >> nth=0", "title"), "no answer, stalled");
  await page.click("#rows button >> nth=1");
  assert.match(await page.innerText("#details"), /Applied by the switches\s+cut short\s+clock −60 s/);

  await collector.flood("S", 1, 1000);
  await visitor.shows("hits", (1000).toLocaleString("en-US"));
  await visitor.shows("hitsUnanswered", "1");
  const lost = page.locator("#shapes .unanswered");
  const height = async () => (await lost.boundingBox())?.height ?? height(); // null while drawn anew
  assert.ok(await height() >= 3);
  const reading = /^\d\d:\d\d:\d\d–\d\d:\d\d:\d\d: [^]*1 unanswered/;
  await page.focus("#plot");
  const text = () => page.getAttribute("#plot", "aria-valuetext");
  for (let steps = 0; steps < 60 && !reading.test(await text()); ++steps) await visitor.press("ArrowLeft");
  assert.match(await text(), reading);
});

test("what comes from outside is text, in the page and in what is exported", async () => {
  const markup = "<img/src=x/onerror=alert(1)>,'\"`$HOME`";
  await collector.behave({ access: markup });
  await collector.get(encodeURI(`/auth/${markup}`), { "User-Agent": markup });
  const serial = encodeURI(markup);
  await visitor.accounts([serial]);
  await page.click("#rows button");
  assert.equal((await page.innerText("#details")).split(markup).length, 4);
  assert.equal(await page.locator("img").count(), 0);

  await page.click("#curl");
  await page.locator("#curl:text('Copied')").waitFor();
  const command = await page.evaluate(() => navigator.clipboard.readText());
  const shown = spawnSync("sh", ["-c", `curl() { printf '%s\\n' "$@"; }; ${command}`]).stdout.toString();
  assert.equal(shown.split("\n")[2], `${collector.url}/auth/${serial}`);
  assert.ok(shown.includes(`\n-H\nUser-Agent: ${markup}\n`), shown);

  const { entries: [{ request, response }] } = JSON.parse(await visitor.download("#har")).log;
  assert.equal(request.url, `${collector.url}/auth/${serial}`);
  assert.ok(request.headers.some(({ name, value }) => name === "User-Agent" && value === markup));
  assert.match(response.content.text, /^access=<img/);
  const lines = (await visitor.download("#csv")).split("\r\n");
  assert.ok(lines[1].endsWith(`,"${markup.replaceAll('"', '""')}"`), lines[1]);
});

test("a restart on the same port, and a time out of sight, lose and repeat nothing", async () => {
  await collector.get("/hit/OLD");
  await visitor.accounts(["OLD"]);
  await visitor.loseConnection();
  assert.match(await page.innerText("#stale"), /^What stands below is as of \d/);
  await page.selectOption("#stall", "hit");
  await page.waitForFunction(() => document.getElementById("stall").value === "none");
  collector = await Collector.start(collector.port);
  await collector.get("/hit/NEW");
  await visitor.accounts(["NEW"]);
  assert.equal(await page.isVisible("#stale"), false);

  await page.click("#rows button");
  await visitor.setHidden(true);
  await visitor.connection("idle");
  await collector.get("/hit/UNSEEN");
  await visitor.setHidden(false);
  await visitor.accounts(["UNSEEN", "NEW"]);
  // It went on from where it was: a fresh start would have closed the details.
  assert.equal(await page.isVisible("#details"), true);
});

test("thousands of hits come in a few rows, and whoever reads stays where they are", async () => {
  await collector.flood("S", 1, 10100);
  await visitor.shows("shown", "the newest 10,000 exchanges");
  await page.waitForFunction(() =>
    Number(document.querySelector("#rows .account")?.textContent.slice(1)) > 10090);
  const inDocument = await page.locator("#rows tr").count();
  assert.ok(inDocument > 10 && inDocument < 100, String(inDocument));
  const focused = () => page.evaluate(() => document.activeElement.closest("tr").cells[2].textContent);
  await page.click("h1");
  await visitor.press("ArrowDown", "End");
  assert.match(await focused(), /^S1\d\d$/);
  await visitor.press("Home", "PageDown", "ArrowDown");
  const stood = await focused();
  const place = (serial) => page.locator(`#rows tr:has-text("${serial}")`).boundingBox();
  const { y } = await place(stood);
  // In many drawings, so that what each is off by adds up.
  for (let sent = 1; sent <= 20; ++sent) {
    await collector.flood("T", sent, sent);
    await visitor.shows("hits", (10100 + sent).toLocaleString("en-US"));
  }
  await collector.flood("T", 21, 500);
  await visitor.shows("hits", (10600).toLocaleString("en-US"));
  assert.deepEqual([await focused(), Math.abs((await place(stood)).y - y) < 2], [stood, true]);
});

test("no barriers in any state, scheme and width", { timeout: 240_000 }, async () => {
  const everywhere = async (state) => {
    for (const colorScheme of ["light", "dark"]) {
      for (const [width, height] of [[3840, 2160], [360, 740], [1280, 800]]) {
        await page.emulateMedia({ colorScheme });
        await page.setViewportSize({ width, height });
        const narrow = "html, button:not([data-serial]), th, #scroller, .answer > .bad";
        assert.deepEqual(await barriersOf(page, narrow), [], `${state}, ${colorScheme}, ${width}`);
      }
    }
  };
  await everywhere("empty");
  await page.click("#accounts summary");
  await page.fill("#hitStatus", "1");
  await visitor.press("Enter");
  await page.locator("#refusal:not(:empty)").waitFor();
  await collector.behave({ delayMs: 1, malformed: "missing-field", access: "denied", stall: "hit" });
  await collector.leave("/hit/A-LONG-NAME-OF-AN-ACCOUNT-THAT-HAS-NO-PLACE");
  await collector.behave({ stall: "none", hitStatus: 404 });
  for (const path of ["/hit/S", "/auth/S"]) await collector.get(path);
  await collector.flood("S", 1, 60);
  await page.click("#rows button >> nth=1");
  await page.focus("#plot");
  await visitor.press("ArrowLeft");
  await everywhere("exchanges, open details, changed and refused switches, accounts");
  await page.emulateMedia({ forcedColors: "active" });
  await everywhere("forced colours");
  await page.emulateMedia({ forcedColors: null });
  await page.fill("#filter", "nothing-has-this");
  await page.click("#pause");
  await visitor.loseConnection();
  await everywhere("disconnected, paused, no match");
  collector = await Collector.start(collector.port);
});
