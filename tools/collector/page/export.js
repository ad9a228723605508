// Exchanges in the forms of other programs: HAR, CSV, a curl command.

import { marksOf } from "./exchange.js";

// The request line's parts and the headers of a request, as the collector tells it.
function parse(request) {
  const [line, ...headers] = request.split("\n");
  const [method, target, version] = line.split(" ");
  return {
    method, target, version,
    headers: headers.map((each) => {
      const at = each.indexOf(": ");
      return at < 0 ? { name: each.replace(/:$/, ""), value: "" } : { name: each.slice(0, at), value: each.slice(at + 2) };
    }),
  };
}

export function curlFor(exchange, origin) {
  const quote = (text) => `'${text.replaceAll("'", "'\\''")}'`;
  const { target, headers } = parse(exchange.request);
  const parts = ["curl", "--globoff", "--path-as-is", quote(origin + target)];
  for (const { name, value } of headers) {
    if (name.toLowerCase() === "host" && value === new URL(origin).host) continue;
    parts.push("-H", quote(value === "" ? `${name};` : `${name}: ${value}`));
  }
  // What it would add by itself.
  for (const name of ["Accept", "User-Agent"]) {
    if (!headers.some((each) => each.name.toLowerCase() === name.toLowerCase())) parts.push("-H", quote(`${name}:`));
  }
  return parts.join(" ");
}

function entryOf(exchange, origin) {
  const { method, target, version, headers } = parse(exchange.request);
  const url = new URL(origin + target);
  const [head, ...body] = exchange.answer.split("\n\n");
  const date = head.match(/^Date: (?!\(none\)$)(.*)$/)?.[1];
  const text = body.join("\n\n");
  return {
    startedDateTime: exchange.time,
    time: exchange.tookMs,
    request: {
      method, url: url.href, httpVersion: version, headers, cookies: [], headersSize: -1, bodySize: 0,
      queryString: [...url.searchParams].map(([name, value]) => ({ name, value })),
    },
    response: {
      status: exchange.status ?? 0, statusText: "", httpVersion: "HTTP/1.1", cookies: [],
      headers: date ? [{ name: "Date", value: date }] : [],
      content: { size: text.length, mimeType: "text/plain", text },
      redirectURL: "", headersSize: -1, bodySize: -1,
    },
    cache: {},
    timings: { send: 0, wait: exchange.tookMs, receive: 0 },
    comment: [exchange.status === null ? "unanswered" : "", ...marksOf(exchange)].filter(Boolean).join(", "),
    _applied: exchange.applied,
  };
}

export function harOf(exchanges, origin) {
  const creator = { name: "orbiq-collector", version: "1" };
  const entries = exchanges.map((each) => entryOf(each, origin));
  return JSON.stringify({ log: { version: "1.2", creator, entries } }, null, 1);
}

export function csvOf(exchanges) {
  const quote = (value) => (/[",\r\n]/.test(value) ? `"${value.replaceAll('"', '""')}"` : value);
  const lines = exchanges.map((each) => [
    each.number, each.time, each.kind, each.serial, each.status ?? "", each.tookMs, marksOf(each).join("; "),
    each.userAgent,
  ]);
  return [["number", "time", "kind", "account", "status", "tookMs", "marks", "userAgent"], ...lines]
    .map((line) => line.map((value) => quote(String(value))).join(",") + "\r\n").join("");
}

// Lets the browser save a text as a file.
export function save(name, type, text) {
  const link = document.createElement("a");
  link.href = URL.createObjectURL(new Blob([text], { type }));
  link.download = name;
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 0);
}
