// The demo: microphone -> meter, verdict, speech segments and gain. With ?test it starts at
// once, without the gain control, and lists only the segments, for a headless browser.
import { attach, prepare } from "../dist/attach.mjs";

const test = new URLSearchParams(location.search).has("test");
const $ = (id) => document.getElementById(id);
let speechStart = null;

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
    const ktfront = await attach(context, stream, { gainControl });
    $("rate").textContent = context.sampleRate;
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
      $("level").style.width = `${Math.min(100, detail.snrVolumePct)}%`;
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
