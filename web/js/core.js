// ktfront for JavaScript: the speech analyzer and the gain control compiled to WebAssembly.
// One source for the ES module, the CommonJS module and the AudioWorklet processor; it uses
// nothing but the language and WebAssembly, so it runs in Node, pages, workers and worklets.
// Each of them finds the module's bytes (ktfront.wasm, beside it) its own way.

// The library's names of its enumerators, read once loaded.
const EVENT_TAGS = [];
const VOLUME_INFOS = [];
const OUTCOMES = [];

let wasm = null;

// The C library's system calls: no environment, no clock, output to the console.
const imports = {
  env: { emscripten_notify_memory_growth() {} },
  wasi_snapshot_preview1: {
    proc_exit(code) { throw new Error("ktfront: the WebAssembly module exited with " + code); },
    clock_time_get(id, precision, out) { new BigUint64Array(wasm.memory.buffer, out, 1)[0] = 0n; return 0; },
    environ_sizes_get(count, size) { new Uint32Array(wasm.memory.buffer).fill(0, count / 4, count / 4 + 1); new Uint32Array(wasm.memory.buffer).fill(0, size / 4, size / 4 + 1); return 0; },
    environ_get() { return 0; },
    fd_close() { return 0; },
    fd_seek() { return 70; },
    fd_write(fd, iovs, count, written) {
      const words = new Uint32Array(wasm.memory.buffer);
      let total = 0;
      let text = "";
      for (let i = 0; i < count; i++) {
        const base = words[iovs / 4 + 2 * i], length = words[iovs / 4 + 2 * i + 1];
        text += String.fromCharCode.apply(null, new Uint8Array(wasm.memory.buffer, base, length));
        total += length;
      }
      if (text.trim()) console.error("ktfront: " + text.trimEnd());
      words[written / 4] = total;
      return 0;
    },
  },
};

let loading = null;

// Compiles the module from its bytes (or a WebAssembly.Module), once; resolves to the API.
function instantiate(source) {
  if (!loading) {
    loading = Promise.resolve(source).then((bytes) => WebAssembly.instantiate(bytes, imports)).then((result) => {
      wasm = (result.instance || result).exports;
      wasm._initialize();
      scratch = wasm.malloc(16 * 8);
      for (let v = 0; v < 4; v++) EVENT_TAGS.push(readString(wasm.kw_name(0, v)));
      for (let v = 0; v < 4; v++) VOLUME_INFOS.push(readString(wasm.kw_name(1, v)));
      for (let v = 0; v < 5; v++) OUTCOMES.push(readString(wasm.kw_name(2, v)));
      return api;
    });
  }
  return loading;
}

let scratch = 0;  // 16 doubles for results

/** A parameter string the library refused; `reason` is its own word for why. */
class ParameterError extends Error {
  constructor(reason, params) {
    super(`ktfront: ${reason} in parameters "${params}"`);
    this.name = "ParameterError";
    this.reason = reason;
  }
}

function loaded() {
  if (!wasm) throw new Error("ktfront: not loaded yet; await ready first");
  return wasm;
}

function lastError() {
  return readString(wasm.kw_error());
}

function readString(pointer) {
  const bytes = new Uint8Array(wasm.memory.buffer);
  let end = pointer;
  while (bytes[end]) end++;
  let text = "";
  for (let i = pointer; i < end; i += 4096) {
    text += String.fromCharCode.apply(null, bytes.subarray(i, Math.min(end, i + 4096)));
  }
  return decodeURIComponent(escape(text));
}

// Calls body with a NUL-terminated copy of text in the module's memory.
function withString(text, body) {
  if (typeof text !== "string") throw new TypeError("ktfront: parameters must be a string");
  const utf8 = unescape(encodeURIComponent(text));
  const pointer = wasm.malloc(utf8.length + 1);
  const bytes = new Uint8Array(wasm.memory.buffer, pointer, utf8.length + 1);
  for (let i = 0; i < utf8.length; i++) bytes[i] = utf8.charCodeAt(i);
  bytes[utf8.length] = 0;
  try {
    return body(pointer);
  } finally {
    wasm.free(pointer);
  }
}

function checkRate(rate) {
  if (!Number.isInteger(rate) || rate < 8000) {
    throw new RangeError(`ktfront: the rate must be a whole number of Hz, at least 8000 (got ${rate})`);
  }
}

function kindOf(samples) {
  if (samples instanceof Int16Array) return 0;
  if (samples instanceof Float32Array) return 1;
  throw new TypeError("ktfront: samples must be an Int16Array, or a Float32Array in -1..1");
}

// Calls body(pointer, count, kind) with the samples copied into the module's memory, into
// one buffer kept from call to call (the module is single-threaded and calls do not nest).
let sampleBuffer = 0;
let sampleBufferBytes = 0;
function withSamples(samples, body) {
  const kind = kindOf(samples);
  const bytes = Math.max(1, samples.length) * samples.BYTES_PER_ELEMENT;
  if (bytes > sampleBufferBytes) {
    wasm.free(sampleBuffer);
    sampleBuffer = wasm.malloc(bytes);
    sampleBufferBytes = sampleBuffer ? bytes : 0;
    if (!sampleBuffer) throw new RangeError("ktfront: out of memory for " + samples.length + " samples");
  }
  const View = kind === 0 ? Int16Array : Float32Array;
  new View(wasm.memory.buffer, sampleBuffer, samples.length).set(samples);
  return body(sampleBuffer, samples.length, kind);
}

function refused(params) {
  const reason = lastError();
  if (reason === "Invalid format" || reason === "Key not found" || reason === "Value out of range") {
    return new ParameterError(reason, params);
  }
  return new RangeError("ktfront: " + reason);
}

function blockMsOf(options) {
  const blockMs = options.blockMs === undefined ? 0 : options.blockMs;
  if (typeof blockMs !== "number" || !(blockMs >= 0)) throw new RangeError("ktfront: blockMs must be a number of at least 0");
  return blockMs;
}

const registry = typeof FinalizationRegistry === "function"
  ? new FinalizationRegistry(([free, handle]) => free(handle)) : null;

// Every key of a service with its default value, as a parameter string would write it.
function parameterDefaults(service) {
  const text = readString(loaded().kw_parameter_defaults(service));
  return Object.fromEntries(text.split(";").filter(Boolean).map((pair) => pair.split("=")));
}

/**
 * The speech analyzer over a stream of blocks: speech start and end, and a volume reading
 * with its verdict for every block. Any rate from 8000 Hz runs at the highest of 16000,
 * 11025 and 8000 Hz not above it, resampled as `ktfront` resamples.
 */
class Analyzer {
  constructor(rate, params = "", options = {}) {
    loaded();
    checkRate(rate);
    const blockMs = blockMsOf(options);
    this._handle = withString(params, (p) => wasm.kw_analyzer_new(p, rate, options.frames ? 1 : 0, blockMs));
    if (!this._handle) throw refused(params);
    this._params = params;
    if (registry) registry.register(this, [wasm.kw_analyzer_delete, this._handle], this);
  }

  /** Every key the parameter string may set, with its default: {"EOSTimeoutMs": "420", ...}. */
  static parameterDefaults() { return parameterDefaults(0); }

  /** The rate the analyzer runs at, in Hz. */
  get rate() { return wasm.kw_analyzer_rate(this._live()); }

  /** Hands the samples on and returns the results they produced. */
  process(samples) {
    const handle = this._live();
    if (withSamples(samples, (p, n, kind) => wasm.kw_analyzer_process(handle, p, n, kind)) !== 0) {
      throw new RangeError("ktfront: " + lastError());
    }
    return this._results();
  }

  /** Ends the utterance: decides what is held back and closes an open speech segment. */
  flush() {
    if (wasm.kw_analyzer_flush(this._live(), 1) !== 0) throw new RangeError("ktfront: " + lastError());
    return this._results();
  }

  /** Back to the initial measuring state; the configuration stays. */
  reset() { wasm.kw_analyzer_reset(this._live()); }

  /** Changes parameters in place; a refused string throws ParameterError. */
  update(params) {
    const handle = this._live();
    if (withString(params, (p) => wasm.kw_analyzer_update(handle, p)) !== 0) throw refused(params);
  }

  /** Releases the module's memory now rather than when the object is collected. */
  free() {
    if (!this._handle) return;
    if (registry) registry.unregister(this);
    wasm.kw_analyzer_delete(this._handle);
    this._handle = 0;
  }

  _live() {
    if (!this._handle) throw new Error("ktfront: the analyzer was freed");
    return this._handle;
  }

  _results() {
    const results = [];
    for (;;) {
      const type = wasm.kw_analyzer_next(this._handle, scratch);
      const v = new Float64Array(wasm.memory.buffer, scratch, 16);
      if (type < 0) break;
      if (type === 0) {
        results.push({ type: "event", tag: EVENT_TAGS[v[0]], timeMs: v[1] });
      } else if (type === 2) {
        results.push({ type: "volume", timeMs: v[1], volumedBFS: v[2], volume: v[3], snrVolumePct: v[4],
                       info: VOLUME_INFOS[v[0]], isSpeechState: v[5] !== 0 });
      } else {
        const data = wasm.kw_analyzer_frame_data(this._handle);
        const samples = new Int16Array(v[2]);
        if (v[2] > 0) samples.set(new Int16Array(wasm.memory.buffer, data, v[2]));
        results.push({ type: "frame", frameIndex: v[0], timeMs: v[0] * wasm.kw_analyzer_frame_ms(this._handle),
                       isSpeechSegmentFrame: v[1] !== 0, samples });
      }
    }
    return results;
  }
}

/**
 * The automatic gain control: from each block and the recording gain it was recorded at
 * (0 to 1), the gain to set next. Rates as for Analyzer.
 */
class GainControl {
  constructor(rate, params = "", options = {}) {
    loaded();
    checkRate(rate);
    const blockMs = blockMsOf(options);
    this._handle = withString(params, (p) => wasm.kw_agc_new(p, rate, options.log ? 1 : 0, blockMs));
    if (!this._handle) throw refused(params);
    if (registry) registry.register(this, [wasm.kw_agc_delete, this._handle], this);
  }

  static parameterDefaults() { return parameterDefaults(1); }

  get rate() { return wasm.kw_agc_rate(this._live()); }

  /** The neutral gain, the one returned for a gain of 0. */
  get medianGain() { return wasm.kw_agc_median_gain(this._live()); }

  /** The samples recorded at `gain` (0 to 1): { gain: the one to set next, decisions }. */
  process(samples, gain) {
    const handle = this._live();
    if (typeof gain !== "number") throw new TypeError("ktfront: the gain must be a number");
    const next = withSamples(samples, (p, n, kind) => wasm.kw_agc_gain(handle, p, n, kind, gain));
    if (next < 0) throw new RangeError("ktfront: " + lastError() + ` (gain ${gain}, 0 to 1)`);
    return { gain: next, decisions: this._decisions() };
  }

  /** The same on the 16-bit gain scale, 0 to 65535. */
  process16(samples, gain) {
    const handle = this._live();
    if (!Number.isInteger(gain)) throw new TypeError("ktfront: the gain must be a whole number");
    const next = withSamples(samples, (p, n, kind) => wasm.kw_agc_gain16(handle, p, n, kind, gain));
    if (next < 0) throw new RangeError("ktfront: " + lastError() + ` (gain ${gain}, 0 to 65535)`);
    return { gain: next, decisions: this._decisions() };
  }

  /** The diagnostic log written since the last call (with options.log). */
  takeLog() { return readString(wasm.kw_agc_log(this._live())); }

  reset() { wasm.kw_agc_reset(this._live()); }

  free() {
    if (!this._handle) return;
    if (registry) registry.unregister(this);
    wasm.kw_agc_delete(this._handle);
    this._handle = 0;
  }

  _live() {
    if (!this._handle) throw new Error("ktfront: the gain control was freed");
    return this._handle;
  }

  _decisions() {
    const decisions = [];
    while (wasm.kw_agc_next_decision(this._handle, scratch)) {
      const v = new Float64Array(wasm.memory.buffer, scratch, 12);
      decisions.push({ timeMs: v[0], currentGain: v[1], lowerLevel: v[2], lowerLevel2: v[3], upperLevel2: v[4],
                       upperLevel: v[5], clippingFraction: v[6], numLevels: v[7], outcome: OUTCOMES[v[8]],
                       outcomeTimeMs: v[9], stepped: v[10] !== 0, newGain: v[11] });
    }
    return decisions;
  }
}

/**
 * The speech segments [start, end] in seconds, as `ktfront vad` finds them in a recording:
 * the samples in blocks of options.blockMs (20) at the analysis rate, then the end.
 */
function segments(samples, rate, params = "", options = {}) {
  kindOf(samples);
  const analyzer = new Analyzer(rate, params, { blockMs: options.blockMs === undefined ? 20 : options.blockMs });
  try {
    const found = [];
    let start = null;
    const take = (results) => {
      for (const r of results) {
        if (r.type !== "event") continue;
        if (r.tag === "SpeechStart") start = r.timeMs / 1000;
        if (r.tag === "SpeechEnd" && start !== null) {
          found.push([start, r.timeMs / 1000]);
          start = null;
        }
      }
    };
    take(analyzer.process(samples));
    take(analyzer.flush());
    if (start !== null) found.push([start, wasm.kw_analyzer_samples(analyzer._handle) / analyzer.rate]);
    return found;
  } finally {
    analyzer.free();
  }
}

/**
 * The C interfaces as a C host calls them (one analyzer and one gain control per module),
 * for code ported from C. Each returns the C function's result code with its outputs; an
 * output the call left unwritten is null.
 */
const cInterface = {
  vadInit: (rate) => loaded().kw_vad_init(rate),
  vadDeinit: () => loaded().kw_vad_deinit(),
  vadGetResult(start, samples) {
    loaded();
    if (samples !== null && !(samples instanceof Int16Array)) throw new TypeError("ktfront: samples must be an Int16Array");
    const run = (p, n) => {
      const code = wasm.kw_vad_get_result(start, p, 2 * n, scratch);
      const v = new Float64Array(wasm.memory.buffer, scratch, 3);
      const written = (x) => (Number.isNaN(x) ? null : x);
      return { code, result: written(v[0]), volumePct: written(v[1]), info: written(v[2]) };
    };
    return samples === null ? run(0, 0) : withSamples(samples, run);
  },
  agcInit: (rate) => loaded().kw_agc_init(rate),
  agcDeinit: () => loaded().kw_agc_deinit(),
  agcComputeGain(samples, volume, maxVolume) {
    loaded();
    if (!(samples instanceof Int16Array)) throw new TypeError("ktfront: samples must be an Int16Array");
    return withSamples(samples, (p, n) => {
      const code = wasm.kw_agc_compute_gain(p, 2 * n, volume, maxVolume, scratch);
      return { code, volume: new Int32Array(wasm.memory.buffer, scratch, 1)[0] };
    });
  },
};

// Each entry point sets ready once it has started loading.
const api = { ready: null, Analyzer, GainControl, ParameterError, segments, cInterface };
