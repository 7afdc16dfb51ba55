// Attaches the analyzer (and optionally the gain control, driving a GainNode) to a
// MediaStream, through the AudioWorklet processor in processor.mjs.

const EVENT_NAMES = { SpeechStart: "speechstart", SpeechEnd: "speechend", BelowVOR: "belowvor", AboveVOR: "abovevor" };

/** What attach() returns: an EventTarget of CustomEvents whose detail is the plain result. */
export class Attachment extends EventTarget {
  constructor(context, node, source, gainNode) {
    super();
    this.context = context;
    this.node = node;
    this.source = source;
    this.gainNode = gainNode;
    this.rate = 0;
  }

  /** Ends the utterance: speech going on ends now. */
  flush() { this.node.port.postMessage({ type: "flush" }); }

  /** Disconnects everything and releases the processor's memory. */
  detach() {
    this.node.port.postMessage({ type: "stop" });
    this.source.disconnect();
    if (this.gainNode) this.gainNode.disconnect();
    this.node.disconnect();
  }
}

const loaded = new WeakMap();
const modules = new Map();

// The bytes of ktfront.wasm, fetched once per URL: the worklet cannot fetch them itself.
function wasmBytes(url) {
  const key = String(url);
  if (!modules.has(key)) {
    modules.set(key, fetch(url).then((response) => {
      if (!response.ok) throw new Error(`ktfront: ${url}: HTTP ${response.status}`);
      return response.arrayBuffer();
    }));
  }
  return modules.get(key);
}

/**
 * Loads the processor into the context's AudioWorklet (once per context) and fetches the
 * WebAssembly module. attach() does it too; doing it before getUserMedia loses less of the
 * first audio.
 */
export function prepare(context, processorUrl = new URL("./processor.mjs", import.meta.url),
                        wasmUrl = new URL("./ktfront.wasm", import.meta.url)) {
  if (!loaded.has(context)) loaded.set(context, Promise.all([context.audioWorklet.addModule(processorUrl), wasmBytes(wasmUrl)]));
  return loaded.get(context).then(() => undefined);
}

/**
 * Resolves once the processor runs. Events: "speechstart", "speechend" (detail: the
 * analyzer's event), "volume" (a volume reading with its verdict, every block), "gain"
 * (with options.gainControl: the new gain, 0 to 1, already set on the GainNode as twice
 * its value, so that 0.5 is unity), "samples" (with options.samples: the 16-bit mono audio
 * the analyzer was fed, each render quantum as an Int16Array, before its results), "error".
 */
export async function attach(context, stream, options = {}) {
  await prepare(context, options.processorUrl, options.wasmUrl);
  const wasm = await wasmBytes(options.wasmUrl || new URL("./ktfront.wasm", import.meta.url));
  const gain = options.gain === undefined ? 0.5 : options.gain;
  const node = new AudioWorkletNode(context, "ktfront", {
    numberOfInputs: 1,
    numberOfOutputs: 1,
    outputChannelCount: [1],
    processorOptions: {
      params: options.params || "",
      gainParams: options.gainParams || "",
      gainControl: Boolean(options.gainControl),
      blockMs: options.blockMs || 20,
      samples: Boolean(options.samples),
      wasm,
      gain,
    },
  });
  const source = context.createMediaStreamSource(stream);
  let gainNode = null;
  if (options.gainControl) {
    gainNode = context.createGain();
    gainNode.gain.value = 2 * gain;
    source.connect(gainNode).connect(node);
  } else {
    source.connect(node);
  }
  node.connect(context.destination);  // silent; keeps the graph pulling the processor
  const attachment = new Attachment(context, node, source, gainNode);
  return new Promise((resolve, reject) => {
    node.port.onmessage = ({ data }) => {
      if (data.type === "ready") {
        attachment.rate = data.rate;  // the rate the analyzer runs at
        resolve(attachment);
      }
      if (data.type === "error") reject(new Error(data.message));
      if (data.type === "gain" && gainNode) gainNode.gain.setValueAtTime(2 * data.gain, context.currentTime);
      const name = data.type === "event" ? EVENT_NAMES[data.tag] : data.type;
      attachment.dispatchEvent(new CustomEvent(name, { detail: data }));
    };
  });
}
