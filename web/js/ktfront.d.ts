// Types of the ktfront package (ktfront.mjs, ktfront.browser.mjs, ktfront.cjs).

/** Resolves once ktfront.wasm is read and compiled; the classes and functions need it. */
export const ready: Promise<typeof api>;

/** 16-bit samples, or floats in -1..1 (times 32768, saturating, half away from zero). */
export type Samples = Int16Array | Float32Array;

export interface EventResult {
  type: "event";
  tag: "SpeechStart" | "SpeechEnd" | "BelowVOR" | "AboveVOR";
  timeMs: number;
}
export interface VolumeResult {
  type: "volume";
  timeMs: number;
  volumedBFS: number;
  volume: number;
  snrVolumePct: number;
  info: "OK" | "TooNoisy" | "TooSoft" | "TooLoud";
  isSpeechState: boolean;
}
export interface FrameResult {
  type: "frame";
  frameIndex: number;
  timeMs: number;
  isSpeechSegmentFrame: boolean;
  samples: Int16Array;
}
export type AnalyzerResult = EventResult | VolumeResult | FrameResult;

export interface StreamOptions {
  /** Hand the samples on in blocks of this many ms at the analysis rate; 0 or absent: each call is a block. */
  blockMs?: number;
}

/** A parameter string the library refused. */
export class ParameterError extends Error {
  name: "ParameterError";
  reason: "Invalid format" | "Key not found" | "Value out of range";
}

export class Analyzer {
  /** Throws TypeError, RangeError (rate below 8000 Hz) or ParameterError. */
  constructor(rate: number, params?: string, options?: StreamOptions & { frames?: boolean });
  /** Every key the parameter string may set, with its default as a string would write it. */
  static parameterDefaults(): Record<string, string>;
  /** The rate the analyzer runs at: 16000, 11025 or 8000 Hz. */
  readonly rate: number;
  process(samples: Samples): AnalyzerResult[];
  flush(): AnalyzerResult[];
  reset(): void;
  update(params: string): void;
  free(): void;
}

export interface GainDecision {
  timeMs: number;
  currentGain: number;
  lowerLevel: number;
  lowerLevel2: number;
  upperLevel2: number;
  upperLevel: number;
  clippingFraction: number;
  numLevels: number;
  outcome: "toolow" | "toohigh" | "speech" | "pause" | "nil";
  outcomeTimeMs: number;
  stepped: boolean;
  newGain: number;
}

export class GainControl {
  constructor(rate: number, params?: string, options?: StreamOptions & { log?: boolean });
  static parameterDefaults(): Record<string, string>;
  readonly rate: number;
  readonly medianGain: number;
  process(samples: Samples, gain: number): { gain: number; decisions: GainDecision[] };
  process16(samples: Samples, gain: number): { gain: number; decisions: GainDecision[] };
  takeLog(): string;
  reset(): void;
  free(): void;
}

/** Speech segments [start, end] in seconds, as `ktfront vad` gives them. */
export function segments(samples: Samples, rate: number, params?: string, options?: StreamOptions): [number, number][];

export const cInterface: {
  vadInit(rate: number): number;
  vadDeinit(): number;
  vadGetResult(start: number, samples: Int16Array | null):
    { code: number; result: number | null; volumePct: number | null; info: number | null };
  agcInit(rate: number): number;
  agcDeinit(): number;
  agcComputeGain(samples: Int16Array, volume: number, maxVolume: number): { code: number; volume: number };
};

declare const api: {
  ready: typeof ready; Analyzer: typeof Analyzer; GainControl: typeof GainControl;
  ParameterError: typeof ParameterError; segments: typeof segments; cInterface: typeof cInterface;
};
export default api;
