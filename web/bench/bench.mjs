// Cost of the package per second of audio, under Node and in headless Chromium: the
// analyzer and the gain control over 20 ms blocks at 16 kHz, and segments() on 44.1 kHz
// audio (resampling included). The signal is samples/forecast_16000.wav repeated to 60 s;
// each figure is the median wall time of 7 runs, in microseconds per second of audio.
//   node web/bench/bench.mjs [node|chromium]...     (after bash scripts/web)
import { execFileSync, spawn } from "node:child_process";
import fs from "node:fs";
import http from "node:http";
import os from "node:os";
import path from "node:path";
import { fileURLToPath } from "node:url";

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), "../..");
const packageDir = process.env.KTFRONT_PACKAGE || path.join(root, "build/web/package");

// Runs where the package is loaded (k); samples are 16-bit mono at rate, WAV bytes given.
function measure(k, wav16, wav44) {
  const read = (bytes) => {
    const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
    for (let at = 12; ;) {
      const id = String.fromCharCode(...bytes.subarray(at, at + 4));
      const size = view.getUint32(at + 4, true);
      if (id === "data") return new Int16Array(bytes.slice(at + 8, at + 8 + size).buffer);
      at += 8 + size + (size & 1);
    }
  };
  const repeat = (samples, total) => {
    const out = new Int16Array(total);
    for (let at = 0; at < total; at += samples.length) out.set(samples.subarray(0, total - at), at);
    return out;
  };
  const s16 = repeat(read(wav16), 60 * 16000);
  const s44 = repeat(read(wav44), 60 * 44100);
  const median = (f) => {
    const times = [];
    for (let i = 0; i < 7; i++) {
      const t = performance.now();
      f();
      times.push(performance.now() - t);
    }
    return (times.sort((a, b) => a - b)[3] * 1000) / 60;  // µs per second of audio
  };
  return {
    analyzer: median(() => {
      const a = new k.Analyzer(16000);
      for (let at = 0; at < s16.length; at += 320) a.process(s16.subarray(at, at + 320));
      a.flush();
      a.free();
    }),
    gainControl: median(() => {
      const g = new k.GainControl(16000);
      let gain = 0.5;
      for (let at = 0; at < s16.length; at += 320) gain = g.process(s16.subarray(at, at + 320), gain).gain;
      g.free();
    }),
    segments44100: median(() => k.segments(s44, 44100)),
  };
}

const work = fs.mkdtempSync(path.join(os.tmpdir(), "ktfront-bench-"));
const wav16 = path.join(root, "samples/forecast_16000.wav");
const wav44 = path.join(work, "forecast_44100.wav");
execFileSync("ffmpeg", ["-loglevel", "error", "-i", wav16, "-ar", "44100", wav44]);

async function inNode() {
  const k = await import(path.join(packageDir, "dist/ktfront.mjs"));
  await k.ready;
  return measure(k, new Uint8Array(fs.readFileSync(wav16)), new Uint8Array(fs.readFileSync(wav44)));
}

async function inChromium() {
  const files = { "/16.wav": wav16, "/44.wav": wav44 };
  const server = http.createServer((request, response) => {
    const file = files[request.url] || path.join(packageDir, request.url);
    if (!file.startsWith(packageDir) && !Object.values(files).includes(file)) return response.writeHead(404).end();
    response.writeHead(200, { "content-type": file.endsWith("js") ? "text/javascript" : "text/html" });
    fs.createReadStream(file).on("error", () => response.end()).pipe(response);
  });
  await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
  const base = `http://127.0.0.1:${server.address().port}`;
  const child = spawn("/usr/bin/chromium", ["--headless", "--remote-debugging-pipe", `--user-data-dir=${work}/profile`,
    ...(process.getuid() === 0 ? ["--no-sandbox"] : []), `${base}/demo/index.html`],
  { stdio: ["ignore", "ignore", "ignore", "pipe", "pipe"], detached: true });  // its helpers in its group
  let buffer = "";
  const replies = new Map();
  child.stdio[4].on("data", (chunk) => {
    buffer += chunk;
    for (let end; (end = buffer.indexOf("\0")) >= 0; buffer = buffer.slice(end + 1)) {
      const m = JSON.parse(buffer.slice(0, end));
      if (replies.has(m.id)) replies.get(m.id)(m);
    }
  });
  let id = 0;
  const send = (method, params, sessionId) => new Promise((resolve) => {
    replies.set(++id, (m) => resolve(m.result || m));
    child.stdio[3].write(JSON.stringify({ id, method, params, sessionId }) + "\0");
  });
  await new Promise((resolve) => setTimeout(resolve, 1500));
  const page = (await send("Target.getTargets", {})).targetInfos.find((t) => t.type === "page");
  const { sessionId } = await send("Target.attachToTarget", { targetId: page.targetId, flatten: true });
  const expression = `(async () => {
    const k = await import("${base}/dist/ktfront.mjs"); await k.ready;
    const get = async (u) => new Uint8Array(await (await fetch(u)).arrayBuffer());
    return JSON.stringify((${measure})(k, await get("${base}/16.wav"), await get("${base}/44.wav")));
  })()`;
  const reply = await send("Runtime.evaluate", { expression, awaitPromise: true }, sessionId);
  const exited = new Promise((resolve) => child.on("exit", resolve));
  process.kill(-child.pid, "SIGKILL");
  await exited;
  server.closeAllConnections();
  server.close();
  if (!reply.result || reply.exceptionDetails) throw new Error(JSON.stringify(reply).slice(0, 500));
  return JSON.parse(reply.result.value);
}

for (const where of process.argv.length > 2 ? process.argv.slice(2) : ["node", "chromium"]) {
  const r = where === "node" ? await inNode() : await inChromium();
  console.log(`${where}: µs per second of audio: analyzer 16 kHz ${r.analyzer.toFixed(0)}, ` +
              `gain control 16 kHz ${r.gainControl.toFixed(0)}, segments() 44.1 kHz ${r.segments44100.toFixed(0)}`);
}
fs.rmSync(work, { recursive: true, force: true, maxRetries: 20, retryDelay: 250 });
