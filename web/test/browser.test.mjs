// The demo page in headless Chromium, its microphone a bundled recording: the segments it
// lists in test mode must be those `ktfront vad` finds in the very audio the page's analyzer
// was fed (which the page keeps in test mode), at the rate the page receives; and close to
// those of the file itself. The page is served on 127.0.0.1 only.
import assert from "node:assert/strict";
import { execFileSync, spawn } from "node:child_process";
import fs from "node:fs";
import http from "node:http";
import os from "node:os";
import path from "node:path";
import test from "node:test";

import { packageDir, root } from "./common.mjs";

const chromium = process.env.KTFRONT_CHROMIUM || "/usr/bin/chromium";
const tool = process.env.KTFRONT_TOOL || path.join(root, "build/x86_64/tools/ktfront");
const types = { ".html": "text/html", ".mjs": "text/javascript", ".js": "text/javascript", ".wasm": "application/wasm" };

// The folder, and under /no-wasm/ the same without ktfront.wasm: a server set up wrongly.
function serve(dir) {
  const server = http.createServer((request, response) => {
    const url = decodeURIComponent(new URL(request.url, "http://x").pathname);
    const file = path.join(dir, url.replace(/^\/no-wasm\//, "/"));
    if (!file.startsWith(dir) || !fs.existsSync(file) || fs.statSync(file).isDirectory() ||
        (url.startsWith("/no-wasm/") && file.endsWith(".wasm"))) {
      response.writeHead(404).end();
      return;
    }
    response.writeHead(200, { "content-type": types[path.extname(file)] || "application/octet-stream" });
    fs.createReadStream(file).pipe(response);
  });
  return new Promise((resolve) => server.listen(0, "127.0.0.1", () => resolve(server)));
}

// The DevTools protocol over --remote-debugging-pipe: JSON messages ended by NUL.
function devtools(child) {
  let id = 0;
  let buffer = "";
  const waiting = new Map();
  child.stdio[4].on("data", (chunk) => {
    buffer += chunk;
    for (let end; (end = buffer.indexOf("\0")) >= 0; buffer = buffer.slice(end + 1)) {
      const message = JSON.parse(buffer.slice(0, end));
      if (waiting.has(message.id)) waiting.get(message.id)(message);
    }
  });
  // A call unanswered in 10 s (a page navigating, a browser still starting) is an error.
  return (method, params = {}, sessionId = undefined) =>
    new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error(`${method}: no answer`)), 10000);
      waiting.set(++id, (m) => {
        clearTimeout(timer);
        if (m.error) reject(new Error(JSON.stringify(m.error)));
        else resolve(m.result);
      });
      child.stdio[3].write(JSON.stringify({ id, method, params, sessionId }) + "\0");
    });
}

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const parse = (text) => text.trim().split("\n").filter(Boolean).map((line) => line.split(" ").map(Number));
const vad = (file) => parse(execFileSync(tool, ["vad", "--block-ms", "20", file],
                                         { encoding: "utf8", stdio: ["ignore", "pipe", "ignore"] }));

test("the demo page finds the segments ktfront vad finds in the audio it was fed", { timeout: 120000 }, async () => {
  const work = fs.mkdtempSync(path.join(os.tmpdir(), "ktfront-web-"));
  // The recording at 44.1 kHz, the rate the fake device and the page run at, with silence
  // after it so that the last segment ends.
  const audio = path.join(work, "forecast_44100.wav");
  execFileSync("ffmpeg", ["-loglevel", "error", "-i", path.join(root, "samples/forecast_16000.wav"),
                          "-af", "apad=pad_dur=2", "-ar", "44100", audio]);
  const server = await serve(packageDir);
  const cleanups = [() => fs.rmSync(work, { recursive: true, force: true, maxRetries: 20, retryDelay: 250 })];
  cleanups.unshift(() => {
    server.closeAllConnections();
    server.close();
  });
  const url = `http://127.0.0.1:${server.address().port}/demo/index.html?test`;
  const flags = ["--headless", "--remote-debugging-pipe", "--use-fake-ui-for-media-stream",
                 "--use-fake-device-for-media-stream", `--use-file-for-fake-audio-capture=${audio}%noloop`,
                 "--autoplay-policy=no-user-gesture-required", `--user-data-dir=${work}/profile`, "--no-first-run",
                 "--disable-gpu", ...(process.getuid() === 0 ? ["--no-sandbox"] : []), url];
  // In a process group of its own, so that its helper processes, which would go on writing
  // to the profile, end with it.
  const child = spawn(chromium, flags, { stdio: ["ignore", "ignore", "ignore", "pipe", "pipe"], detached: true });
  const exited = new Promise((resolve) => child.on("exit", resolve));
  cleanups.unshift(async () => {
    process.kill(-child.pid, "SIGKILL");
    await exited;
    await sleep(200);
  });
  try {
    await check(child, audio, work);
  } finally {
    // A failing cleanup is reported without hiding the test's own outcome.
    for (const cleanup of cleanups) await Promise.resolve().then(cleanup).catch((error) => console.error(`cleanup: ${error.message}`));
  }
});

async function check(child, audio, work) {
  const send = devtools(child);
  let page;
  for (let i = 0; i < 20 && !page; i++) {
    await sleep(500);
    page = (await send("Target.getTargets")).targetInfos.find((target) => target.type === "page");
  }
  const { sessionId } = await send("Target.attachToTarget", { targetId: page.targetId, flatten: true });
  // One evaluation, so that the segments and the audio they came from are taken together.
  const read = async () => {
    const expression = `JSON.stringify({ segments: document.getElementById("segments")?.textContent ?? "",
      state: document.getElementById("state")?.textContent ?? "", rate: document.getElementById("rate")?.textContent ?? "",
      wav: typeof recordingWav === "function" ? recordingWav() : "" })`;
    return JSON.parse((await send("Runtime.evaluate", { expression }, sessionId)).result.value);
  };
  // Until the page has closed as many segments as the file holds, or has heard as much audio
  // as the file (a dropped buffer shortens it), or the time that takes and more.
  const inFile = vad(audio);
  const fileBytes = fs.statSync(audio).size;
  const done = (seen) => (parse(seen.segments).length >= inFile.length && seen.state === "pause") ||
                         Buffer.from(seen.wav, "base64").length >= fileBytes - 44100;
  let seen = await read();
  for (let i = 0; i < 40 && !done(seen); i++) {
    await sleep(500);
    seen = await read();
  }
  const heardSeconds = (Buffer.from(seen.wav, "base64").length - 44) / 2 / 44100;
  const at = `the page heard ${heardSeconds.toFixed(2)} s and found ${JSON.stringify(seen.segments)}`;
  assert.equal(seen.rate, "44100", at);
  assert.equal(seen.state, "pause", at);
  const heard = path.join(work, "heard.wav");
  fs.writeFileSync(heard, Buffer.from(seen.wav, "base64"));
  const found = parse(seen.segments);
  // The tool on exactly the audio the page's analyzer was fed: the same segments. One block
  // of slack, though none is expected.
  const expected = vad(heard);
  const detail = `page: ${JSON.stringify(found)}, ktfront vad on what it heard: ${JSON.stringify(expected)}`;
  assert.equal(found.length, expected.length, detail);
  found.flat().forEach((s, i) => assert.ok(Math.abs(s - expected.flat()[i]) <= 0.0205, detail));
  // The browser entry point (fetching ktfront.wasm) gives the same in the page's main thread.
  const expression = `(async () => {
    const k = await import(new URL("../dist/ktfront.browser.mjs", location.href));
    await k.ready;
    const bytes = Uint8Array.from(atob(${JSON.stringify(seen.wav)}), (c) => c.charCodeAt(0));
    return JSON.stringify(k.segments(new Int16Array(bytes.buffer, 44), 44100).map((s) => s.map((t) => t.toFixed(3))));
  })()`;
  const reply = await send("Runtime.evaluate", { expression, awaitPromise: true }, sessionId);
  assert.equal(reply.result.value, JSON.stringify(expected.map((s) => s.map((t) => t.toFixed(3)))), JSON.stringify(reply));
  // A server without the module: ready says which URL failed.
  const failed = await send("Runtime.evaluate", { expression: `import("/no-wasm/dist/ktfront.browser.mjs")
    .then((k) => k.ready).then(() => "loaded", (e) => e.message)`, awaitPromise: true }, sessionId);
  assert.match(failed.result.value, /^ktfront: http:\/\/127\.0\.0\.1:\d+\/no-wasm\/dist\/ktfront\.wasm: HTTP 404$/);
  // And the file's own segments, loosely: a page that heard nothing, or something else, fails.
  // Chromium's fake capture device drops or repeats a buffer now and then, moving what
  // follows by a block.
  assert.equal(found.length, inFile.length, `page: ${JSON.stringify(found)}, in the file: ${JSON.stringify(inFile)}`);
  found.flat().forEach((s, i) => assert.ok(Math.abs(s - inFile.flat()[i]) <= 0.2, `${s} against ${inFile.flat()[i]} in the file`));
}
