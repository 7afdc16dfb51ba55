
// The AudioWorklet processor "ktfront": the analyzer, and optionally the gain control, in
// the rendering thread. Worklets cannot fetch, so the module's bytes come with the options
// (processorOptions.wasm). Audio that arrives while the module compiles is kept and analysed
// once it is ready. Results go to the node's port as plain objects.
// Times 32768, saturating, half away from zero; NaN reads as 0 (ktcli::ToSample).
function toSample(f) {
  if (Number.isNaN(f)) return 0;
  const v = Math.min(32767, Math.max(-32768, f * 32768));
  return Math.trunc(v + (v < 0 ? -0.5 : 0.5));
}

class KtfrontProcessor extends AudioWorkletProcessor {
  constructor(options) {
    super();
    this._options = (options && options.processorOptions) || {};
    this._gain = typeof this._options.gain === "number" ? this._options.gain : 0.5;
    this._waiting = [];
    this._stopped = false;
    this.port.onmessage = (event) => this._command(event.data);
    if (!this._options.wasm) {
      this._fail(new Error("ktfront: the processor needs the bytes of ktfront.wasm as processorOptions.wasm"));
    } else {
      instantiate(this._options.wasm).then(() => this._start(), (error) => this._fail(error));
    }
  }

  _fail(error) {
    this._stopped = true;
    this.port.postMessage({ type: "error", message: String(error && error.message ? error.message : error) });
  }

  _start() {
    try {
      const blockMs = this._options.blockMs || 20;
      this._analyzer = new Analyzer(sampleRate, this._options.params || "", { blockMs });
      if (this._options.gainControl) {
        this._agc = new GainControl(sampleRate, this._options.gainParams || "", { blockMs });
      }
    } catch (error) {
      this._fail(error);
      return;
    }
    this.port.postMessage({ type: "ready", sampleRate, rate: this._analyzer.rate });
    for (const mono of this._waiting) this._analyze(mono);
    this._waiting = null;
  }

  _command(message) {
    if (message.type === "gain" && typeof message.gain === "number") this._gain = message.gain;
    if (message.type === "flush" && this._analyzer) this._post(this._analyzer.flush());
    if (message.type === "stop") {
      this._stopped = true;
      if (this._analyzer) this._analyzer.free();
      if (this._agc) this._agc.free();
    }
  }

  _post(results) {
    for (const result of results) this.port.postMessage(result);
  }

  _analyze(mono) {
    // Before the results, so that a listener holding both never has an event without its audio.
    if (this._options.samples) {
      const samples = Int16Array.from(mono, toSample);
      this.port.postMessage({ type: "samples", samples }, [samples.buffer]);
    }
    this._post(this._analyzer.process(mono));
    if (this._agc) {
      const { gain, decisions } = this._agc.process(mono, this._gain);
      if (decisions.length > 0) this.port.postMessage({ type: "gain", gain, previousGain: this._gain, decisions });
      this._gain = gain;
    }
  }

  process(inputs) {
    if (this._stopped) return false;
    const channels = inputs[0];
    if (!channels || channels.length === 0) return true;
    // Mixed to mono as the tool mixes files: each channel onto 16 bits, their mean.
    const mono = new Float32Array(channels[0].length);
    const scale = 1 / (channels.length * 32768);
    for (let i = 0; i < mono.length; i++) {
      let sum = 0;
      for (const channel of channels) sum += toSample(channel[i]);
      mono[i] = sum * scale;
    }
    if (this._waiting) {
      this._waiting.push(mono);
    } else {
      this._analyze(mono);
    }
    return true;
  }
}

registerProcessor("ktfront", KtfrontProcessor);
