// The native suite's golden runs (tests/golden_test.cpp, tests/trace.h) made again through
// the package: every trace must hash as tests/golden.txt says, both services, classes and C
// interfaces. The records are printed with C's printf conversions, rebuilt here.
import assert from "node:assert/strict";
import fs from "node:fs";
import path from "node:path";
import test from "node:test";

import { ktfront, readWav, root } from "./common.mjs";

const { Analyzer, GainControl, cInterface } = ktfront;

// %.Pg: P significant digits, trailing zeros dropped, exponent form outside 1e-4..1eP.
function g(value, precision = 6) {
  if (Number.isNaN(value)) return "-nan";
  if (value === 0) return Object.is(value, -0) ? "-0" : "0";
  const [mantissa, exp] = value.toExponential(precision - 1).split("e");
  const x = Number(exp);
  const strip = (s) => (s.includes(".") ? s.replace(/0+$/, "").replace(/\.$/, "") : s);
  if (x < -4 || x >= precision) return `${strip(mantissa)}e${x < 0 ? "-" : "+"}${String(Math.abs(x)).padStart(2, "0")}`;
  return strip(value.toFixed(precision - 1 - x));
}

// %a of a float promoted to double.
function a(value) {
  if (value === 0) return "0x0p+0";
  const view = new DataView(new ArrayBuffer(8));
  view.setFloat64(0, value);
  const bits = view.getBigUint64(0);
  const exp = Number((bits >> 52n) & 0x7ffn) - 1023;
  const digits = (bits & 0xfffffffffffffn).toString(16).padStart(13, "0").replace(/0+$/, "");
  return `${value < 0 ? "-" : ""}0x1${digits ? "." + digits : ""}p${exp < 0 ? "-" : "+"}${Math.abs(exp)}`;
}

const f6 = (v) => v.toFixed(6);

function fnv(text) {
  let h = 1469598103934665603n;  // as trace.h writes it
  for (let i = 0; i < text.length; i++) h = BigInt.asUintN(64, (h ^ BigInt(text.charCodeAt(i))) * 0x100000001b3n);
  return h.toString(16).padStart(16, "0");
}

// The C++ enumerations' values.
const TAGS = { SpeechStart: 0, SpeechEnd: 1, BelowVOR: 2, AboveVOR: 3 };
const INFOS = { OK: 0, TooNoisy: 1, TooSoft: 2, TooLoud: 3 };

function record(r) {
  if (r.type === "event") return `e0 ${TAGS[r.tag]} ${f6(r.timeMs)}\n`;
  if (r.type === "volume") {
    return `m2 ${INFOS[r.info]} ${g(r.volumedBFS, 7)} ${g(r.volume)} ${g(r.snrVolumePct, 7)} ${f6(r.timeMs)} ${+r.isSpeechState}\n`;
  }
  assert.equal(r.type, "frame");
  return `f1 ${r.frameIndex} ${+r.isSpeechSegmentFrame} ${fnv(Array.from(r.samples, (s) => s + ",").join(""))}\n`;
}

function analyzerTrace(params, name, block, flushEvery = 0, supply = true) {
  const { rate, samples } = readWav(name);
  const analyzer = new Analyzer(rate, params, { frames: supply });
  let out = "";
  for (let pos = 0, n = 1; pos < samples.length; pos += block, ++n) {
    let results = analyzer.process(samples.subarray(pos, pos + block));
    if (flushEvery && n % flushEvery === 0) results = results.concat(analyzer.flush());
    out += results.map(record).join("");
  }
  out += analyzer.flush().map(record).join("");
  analyzer.free();
  return out;
}

function agcTrace(params, name, block) {
  const { rate, samples } = readWav(name);
  const agc = new GainControl(rate, params, { log: true });
  const agc16 = new GainControl(rate, params);
  let gain = Math.fround(0.02);
  let gain16 = 3000;
  let out = "";
  const play = (raw, g) => raw.map((s) => Math.trunc(Math.max(-32768, Math.min(32767, Math.fround(s * g) * 2))));
  for (let pos = 0; pos < samples.length; pos += block) {
    const raw = samples.subarray(pos, pos + block);
    gain16 = agc16.process16(play(raw, Math.fround(gain16 / 65535)), gain16).gain;
    gain = agc.process(play(raw, gain), gain).gain;
    out += `g ${a(gain)} ${gain16}\n`;
  }
  return out + agc.takeLog();
}

function cTrace(name, block) {
  const { rate, samples } = readWav(name);
  let out = `init ${cInterface.vadInit(rate)} ${cInterface.agcInit(rate)}\n`;
  let volume = 24;
  for (let pos = 0; pos + block <= samples.length; pos += block) {
    // One host's variables for the block's calls: an unwritten output keeps its value.
    const v = { code: 0, result: 0, volumePct: 0, info: 0 };
    const call = (start, data) => {
      const r = cInterface.vadGetResult(start, data);
      for (const k of Object.keys(v)) if (r[k] !== null) v[k] = r[k];
      return `${v.code} ${v.result} ${g(v.volumePct, 7)} ${v.info}\n`;
    };
    out += "v " + call(1, samples.subarray(pos, pos + block));
    while (v.code === 0 && v.result > 0) out += " " + call(0, null);
    const gain = cInterface.agcComputeGain(samples.subarray(pos, pos + block), volume, 255);
    volume = gain.volume;
    out += `g ${gain.code} ${volume}\n`;
  }
  cInterface.vadDeinit();
  cInterface.agcDeinit();
  return out;
}

const analyzerKeys =
  "SpeechWindowSizeMs=300;SpeechWindowFraction=0.5;EOSTimeoutMs=600;HistogramWindowSizeMs=1500;" +
  "HistogramMinWindowSizeMs=500;MaxDecayRateDbPerDs=30;FullScaleSNR=30;TooNoisyLeveldBFS=-60;" +
  "TooLoudAlignmentLeveldBFS=-20;TooSoftWindowSizeMs=500;TooSoftSNR=25;MinRecordingLeveldBFS=-20;" +
  "CutoffFraction=0.1;InterpolationParam=0.4;ThresholdOffsetSpeech=4;ThresholdOffsetPause=12;" +
  "ThresholdLowerLimit=25;ThresholdUpperLimit=60";
const agcKeys =
  "MinUpdateIntervalMs=120;MinLowerLevelSizeMs=100;MinUpperLevelSizeMs=60;WindowSizeMs=1500;" +
  "SpeechWindowSizeMs=600;SpeechFraction=0.4;PauseWindowSizeMs=400;CutoffFraction=0.15;" +
  "InterpolationWeight=0.4;ThresholdOffsetSpeech=12;ThresholdOffsetPause=4;" +
  "ThresholdUpperBound=65;MinLowerBound=15;LowerBound=60;UpperBound=75;UpperLevelRefDelta=4;" +
  "FastStepSizeUp=3;FastStepSizeDown=3;LeastGain=0.01;DeltaGain=0.1";

const runs = [];
for (const s of ["message_8000.wav", "directions_11025.wav", "forecast_16000.wav"]) {
  const frame = s[0] === "m" ? 160 : s[0] === "d" ? 220 : 320;
  runs.push([`capi/${s}`, () => cTrace(s, frame)]);
  runs.push([`capi1001/${s}`, () => cTrace(s, 1001)]);
  runs.push([`vad/${s}`, () => analyzerTrace("", s, frame)]);
  runs.push([`vad-flush/${s}`, () => analyzerTrace("", s, 1001, 40, false)]);
  runs.push([`vad-keys/${s}`, () => analyzerTrace(analyzerKeys, s, 3 * frame + 7)]);
  runs.push([`agc/${s}`, () => agcTrace("", s, frame)]);
  runs.push([`agc-keys/${s}`, () => agcTrace(agcKeys, s, 1001)]);
  runs.push([`agc-additive/${s}`, () => agcTrace("RelativeGain=false;DeltaGain=0.05", s, 2 * frame)]);
}

test("every golden run of the native suite gives the checked-in trace", () => {
  const expected = fs.readFileSync(path.join(root, "tests/golden.txt"), "utf8").trimEnd().split("\n");
  assert.equal(runs.length, expected.length);
  runs.forEach(([name, run], i) => {
    const text = run();
    const head = text.slice(0, 60).replaceAll("\n", "|");
    assert.equal(`${name} ${fnv(text)} ${text.split("\n").length - 1} ${head}`, expected[i]);
  });
});
