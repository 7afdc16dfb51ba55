// The demo: microphone -> meter, verdict, speech segments and gain. With ?test it starts at
// once, without the gain control, and lists only the segments, for a headless browser; it
// also keeps the audio the analyzer was fed, which recordingWav() gives as base64 WAV bytes.
import { attach, prepare } from "../dist/attach.mjs";

const test = new URLSearchParams(location.search).has("test");
const $ = (id) => document.getElementById(id);
let speechStart = null;
const recording = [];

// 16-bit mono WAV of the audio kept in test mode, base64.
window.recordingWav = () => {
  const count = recording.reduce((n, block) => n + block.length, 0);
  const view = new DataView(new ArrayBuffer(44 + 2 * count));
  const rate = Number($("rate").textContent);
  const words = [[0, "RIFF"], [8, "WAVE"], [12, "fmt "], [36, "data"]];
  for (const [at, word] of words) for (let i = 0; i < 4; i++) view.setUint8(at + i, word.charCodeAt(i));
  [[4, 36 + 2 * count, 4], [16, 16, 4], [20, 1, 2], [22, 1, 2], [24, rate, 4], [28, 2 * rate, 4],
   [32, 2, 2], [34, 16, 2], [40, 2 * count, 4]].forEach(([at, v, size]) =>
    (size === 4 ? view.setUint32(at, v, true) : view.setUint16(at, v, true)));
  let at = 44;
  for (const block of recording) for (const s of block) view.setInt16((at += 2) - 2, s, true);
  const bytes = new Uint8Array(view.buffer);
  let text = "";
  for (let i = 0; i < bytes.length; i += 8192) text += String.fromCharCode.apply(null, bytes.subarray(i, i + 8192));
  return btoa(text);
};

async function start() {
  $("start").disabled = true;
  $("state").textContent = "starting";
  try {
    const context = new AudioContext();
    await context.resume();
    await prepare(context);
    const stream = await navigator.mediaDevices.getUserMedia({
      audio: { echoCancellation: false, noiseSuppression: false, autoGainControl: false },
    });
    const gainControl = !test && $("agc").checked;
    $("rate").textContent = context.sampleRate;
    const ktfront = await attach(context, stream, { gainControl, samples: test });
    ktfront.addEventListener("samples", ({ detail }) => recording.push(detail.samples));
    ktfront.addEventListener("speechstart", ({ detail }) => {
      speechStart = detail.timeMs / 1000;
      $("state").textContent = "speech";
      $("level").classList.add("speech");
    });
    ktfront.addEventListener("speechend", ({ detail }) => {
      if (speechStart !== null) $("segments").textContent += `${speechStart.toFixed(3)} ${(detail.timeMs / 1000).toFixed(3)}\n`;
      speechStart = null;
      $("state").textContent = "pause";
      $("level").classList.remove("speech");
    });
    ktfront.addEventListener("volume", ({ detail }) => {
      $("pct").textContent = detail.snrVolumePct.toFixed(0);
      // The library's per cent can fall below 0 and rise above 100.
      $("level").style.width = `${Math.max(0, Math.min(100, detail.snrVolumePct))}%`;
      $("verdict").textContent = { OK: "OK", TooNoisy: "too noisy", TooSoft: "too soft", TooLoud: "too loud" }[detail.info];
      $("verdict").className = detail.info === "OK" ? "" : "bad";
    });
    ktfront.addEventListener("gain", ({ detail }) => { $("gain").textContent = detail.gain.toFixed(3); });
    $("analysis-rate").textContent = ktfront.rate;
    $("state").textContent = "pause";
    $("gain").textContent = gainControl ? "0.500" : "off";
  } catch (error) {
    $("state").textContent = "error: " + error.message;
    $("start").disabled = false;
  }
}

$("start").addEventListener("click", start);
if (test) start();
