// The site that `./dev docs` makes, in a real browser: readable on a phone and on a desk, in both schemes.
// Arguments: directory of node_modules, Chromium, directory of the site, perhaps one for screenshots.

import assert from "node:assert/strict";
import fs from "node:fs";
import http from "node:http";
import { once } from "node:events";
import path from "node:path";
import { after, before, test } from "node:test";
import { barriersOf, launchBrowser } from "./Surroundings.mjs";

const [site, pictures] = process.argv.slice(4);
const types = { ".html": "text/html", ".css": "text/css", ".js": "text/javascript", ".svg": "image/svg+xml" };
// Of each kind one: start, prose with tables and samples, pictures, reference, search.
const pages = ["index.html", "README.html", "fleet.html", "life-of-a-hit.html", "glossary.html",
  "reference-tagging.html", "reference-c.html", "search.html?q=proxy"];
if (!fs.existsSync(`${site}/index.html`)) {
  console.log("skipped: ./dev docs has not made the site");
  process.exit();
}
let server, browser, origin;

before(async () => {
  server = http.createServer((request, answer) => {
    const file = path.join(site, path.normalize(decodeURI(new URL(request.url, "http://x").pathname)));
    if (!fs.existsSync(file)) return answer.writeHead(404).end();
    answer.writeHead(200, { "Content-Type": types[path.extname(file)] ?? "application/octet-stream" });
    return fs.createReadStream(file).pipe(answer);
  }).listen(0, "127.0.0.1");
  await once(server, "listening");
  origin = `http://127.0.0.1:${server.address().port}`;
  browser = await launchBrowser();
});
after(async () => {
  await browser?.close();
  server?.close();
});

for (const colorScheme of ["light", "dark"]) {
  for (const width of [360, 1440]) {
    test(`${colorScheme}, ${width} px`, async () => {
      const context = await browser.newContext({ colorScheme, viewport: { width, height: 900 } });
      const page = await context.newPage();
      const faults = [];
      page.on("pageerror", (error) => faults.push(String(error)));
      page.on("response", (each) => each.status() >= 400 && faults.push(`${each.status()} ${each.url()}`));
      for (const name of pages) {
        await page.goto(`${origin}/${name}`);
        if (name.startsWith("search")) {
          await page.locator('#search-results a[href^="network.html"]').first().waitFor();
        }
        const ground = await page.evaluate(() => getComputedStyle(document.body).backgroundColor);
        const isDark = Number(ground.match(/\d+/)[0]) < 64;
        if (isDark !== (colorScheme === "dark")) faults.push(`${name}: not ${colorScheme}: ${ground}`);
        faults.push(...(await barriersOf(page)).map((fault) => `${name}: ${fault}`));
        if (pictures) {
          await page.screenshot({ path: `${pictures}/${colorScheme}-${width}-${name.replace(/\.html.*/, "")}.png` });
        }
      }
      await context.close();
      assert.deepEqual(faults, []);
    });
  }
}
