// Types of "ktfront/attach" (attach.mjs), for pages.

export interface AttachOptions {
  params?: string;
  gainControl?: boolean;
  gainParams?: string;
  /** The gain to start at, 0 to 1; the GainNode is set to twice it (0.5: unity). */
  gain?: number;
  blockMs?: number;
  /** Emit "samples" events: the 16-bit mono audio the analyzer was fed, as Int16Arrays. */
  samples?: boolean;
  processorUrl?: string | URL;
  /** Where ktfront.wasm is served; by default beside attach.mjs. */
  wasmUrl?: string | URL;
}

export class Attachment extends EventTarget {
  readonly context: BaseAudioContext;
  readonly node: AudioWorkletNode;
  readonly source: MediaStreamAudioSourceNode;
  readonly gainNode: GainNode | null;
  /** The rate the analyzer runs at. */
  readonly rate: number;
  flush(): void;
  detach(): void;
}

export function prepare(context: BaseAudioContext, processorUrl?: string | URL, wasmUrl?: string | URL): Promise<void>;
export function attach(context: AudioContext, stream: MediaStream, options?: AttachOptions): Promise<Attachment>;
