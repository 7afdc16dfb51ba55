// The package as users meet it: installed offline from the tarball, loaded with import and
// require, segments as `ktfront vad` prints them, samples read at their true level, any rate,
// and the documented errors.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import test, { after } from "node:test";

import { ktfront, readWav, root } from "./common.mjs";

const { Analyzer, GainControl, ParameterError, segments } = ktfront;
const tool = process.env.KTFRONT_TOOL || path.join(root, "build/x86_64/tools/ktfront");
const work = fs.mkdtempSync(path.join(os.tmpdir(), "ktfront-api-"));
after(() => fs.rmSync(work, { recursive: true, force: true }));

// `ktfront vad FILE` as numbers.
function vad(file) {
  const text = execFileSync(tool, ["vad", file], { encoding: "utf8", stdio: ["ignore", "pipe", "ignore"] });
  return text.trim().split("\n").map((line) => line.split(" ").map(Number));
}

const isSpeechEvent = (r) => r.type === "event" && (r.tag === "SpeechStart" || r.tag === "SpeechEnd");
const printed = (found) => found.map(([s, e]) => [Number(s.toFixed(3)), Number(e.toFixed(3))]);

test("installed offline into an empty project, import and require give the tool's segments", () => {
  const tarball = fs.readdirSync(path.join(root, "build/web")).find((f) => /^ktfront-.*\.tgz$/.test(f));
  const project = path.join(work, "project");
  fs.mkdirSync(project);
  fs.writeFileSync(path.join(project, "package.json"), '{"name": "host", "private": true}');
  execFileSync("npm", ["install", "--offline", "--no-audit", "--no-fund", "--silent", path.join(root, "build/web", tarball)],
               { cwd: project, stdio: "ignore" });
  const wav = path.join(root, "samples/forecast_16000.wav");
  const body = `const { rate, samples } = (${readWav})(${JSON.stringify(wav)});
    console.log(JSON.stringify(k.segments(samples, rate)));`;
  const esm = `import fs from "node:fs"; import path from "node:path"; import k from "ktfront"; await k.ready; ${body}`;
  const cjs = `const fs = require("node:fs"); const path = require("node:path"); const k = require("ktfront"); k.ready.then(() => { ${body} });`;
  const expected = JSON.stringify(vad(wav));
  for (const [flag, code] of [["--input-type=module", esm], ["--input-type=commonjs", cjs]]) {
    const out = execFileSync("node", [flag, "-e", code], { cwd: project, encoding: "utf8" });
    assert.equal(JSON.stringify(printed(JSON.parse(out))), expected);
  }
  assert.deepEqual(Object.keys(JSON.parse(fs.readFileSync(path.join(project, "node_modules/ktfront/package.json")))
    .dependencies || {}), []);
  // The Node example of docs/web.md prints what the tool prints.
  const example = fs.readFileSync(path.join(root, "docs/web.md"), "utf8").match(/```js\n([^`]*)```/)[1];
  fs.writeFileSync(path.join(project, "example.mjs"), example.replace('"samples/', `"${root}/samples/`));
  const printedByExample = execFileSync("node", ["example.mjs"], { cwd: project, encoding: "utf8" });
  assert.equal(printedByExample, execFileSync(tool, ["vad", wav], { encoding: "utf8", stdio: ["ignore", "pipe", "ignore"] }));
});

test("other rates are resampled as the tool resamples, in any chunking", () => {
  for (const rate of [44100, 22050]) {
    const file = path.join(work, `directions_${rate}.wav`);
    execFileSync("ffmpeg", ["-loglevel", "error", "-i", path.join(root, "samples/directions_11025.wav"), "-ar", rate, file]);
    const { samples } = readWav(file);
    const whole = segments(samples, rate);
    assert.deepEqual(printed(whole), vad(file));
    // The same stream in uneven chunks: the resampler's output may not depend on them.
    const analyzer = new Analyzer(rate, "", { blockMs: 20 });
    const events = [];
    for (let at = 0, n = 1; at < samples.length; at += n, n = (n * 7 + 3) % 5000) {
      events.push(...analyzer.process(samples.subarray(at, at + n)).filter(isSpeechEvent));
    }
    events.push(...analyzer.flush().filter(isSpeechEvent));
    assert.deepEqual(events.map((e) => e.timeMs / 1000), whole.flat());
  }
});

test("floats are read at their true level: times 32768, saturating, half away from zero", () => {
  const floats = Float32Array.from([0.5, -0.5, 1.5, 2.5, -2.5, 32767.4, 32767.6, 1e6, -32768.6, -1e6], (v) => v / 32768);
  const analyzer = new Analyzer(8000, "", { frames: true });
  const frames = analyzer.process(floats).concat(analyzer.flush()).filter((r) => r.type === "frame");
  assert.deepEqual(Array.from(frames[0].samples), [1, -1, 2, 3, -3, 32767, 32767, 32767, -32768, -32768]);
  // Floats off the 16-bit grid are rounded onto it before resampling, as the tool does: the
  // analyzer sees what the 16-bit recording gives.
  const { rate, samples } = readWav("directions_11025.wav");
  const frameData = (input) => {
    const a = new Analyzer(rate * 2, "", { frames: true });
    return a.process(input).concat(a.flush()).filter((r) => r.type === "frame").map((r) => Array.from(r.samples));
  };
  const doubled = Int16Array.from({ length: 2 * samples.length }, (_, i) => samples[i >> 1]);
  assert.deepEqual(frameData(Float32Array.from(doubled, (s) => (s + 0.3) / 32768)), frameData(doubled));
});

test("bad input gives the documented error and leaves the objects usable", () => {
  const samples = new Int16Array(160);
  for (const wrong of [[0, 1], new Uint8Array(4), new Float64Array(4), "abc", null]) {
    assert.throws(() => segments(wrong, 16000), { name: "TypeError", message: /Int16Array, or a Float32Array/ });
  }
  for (const rate of [7999, 0, -16000, 16000.5, NaN, "16000"]) {
    assert.throws(() => segments(samples, rate), { name: "RangeError", message: /at least 8000/ });
    assert.throws(() => new GainControl(rate), RangeError);
  }
  for (const [params, reason] of [["EOSTimeoutMs", "Invalid format"], ["EOSTimeoutMs=", "Invalid format"],
                                  ["EOSTimeoutMs=abc", "Invalid format"], ["EOSTimeoutMs=-100", "Value out of range"]]) {
    assert.throws(() => segments(samples, 16000, params), (e) => e instanceof ParameterError && e.reason === reason);
  }
  assert.throws(() => new GainControl(16000, "WindowSizeMs=x"), ParameterError);
  const analyzer = new Analyzer(16000);
  assert.throws(() => analyzer.update("EOSTimeoutMs=abc"), ParameterError);
  assert.throws(() => analyzer.process(new Uint16Array(160)), TypeError);
  const agc = new GainControl(16000);
  for (const gain of [-0.1, 1.5, NaN]) assert.throws(() => agc.process(samples, gain), RangeError);
  assert.throws(() => agc.process16(samples, 65536), RangeError);
  // Still working: a second of silence gives volume readings, and a gain comes back.
  assert.ok(analyzer.process(new Int16Array(16000)).some((r) => r.type === "volume"));
  assert.equal(typeof agc.process(samples, 0.5).gain, "number");
  analyzer.free();
  assert.throws(() => analyzer.process(samples), /freed/);
});

test("the defaults, given back as a parameter string, change nothing", () => {
  const asString = (defaults) => Object.entries(defaults).map(([k, v]) => `${k}=${v}`).join(";");
  const analyzerDefaults = Analyzer.parameterDefaults();
  assert.equal(analyzerDefaults.EOSTimeoutMs, "420");
  assert.ok(Object.keys(analyzerDefaults).length >= 18);
  const { rate, samples } = readWav("forecast_16000.wav");
  const trace = (params) => {
    const a = new Analyzer(rate, params);
    return JSON.stringify(a.process(samples).concat(a.flush()));
  };
  assert.equal(trace(asString(analyzerDefaults)), trace(""));
  const gainDefaults = GainControl.parameterDefaults();
  assert.ok(Object.keys(gainDefaults).length >= 20);
  const gains = (params) => {
    const g = new GainControl(rate, params, { blockMs: 20 });
    return JSON.stringify([0.1, 0.5, 0.9].map((gain) => g.process(samples, gain)));
  };
  assert.equal(gains(asString(gainDefaults)), gains(""));
});
