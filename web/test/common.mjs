// Shared by the package's tests: where the installed package and the recordings are, and a
// reader for the bundled WAV files (16-bit PCM).
import fs from "node:fs";
import path from "node:path";
import { fileURLToPath } from "node:url";

export const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), "../..");
export const packageDir = process.env.KTFRONT_PACKAGE || path.join(root, "build/web/package");
export const ktfront = await import(path.join(packageDir, "dist/ktfront.mjs"));
await ktfront.ready;

export function readWav(file) {
  const bytes = fs.readFileSync(path.isAbsolute(file) ? file : path.join(root, "samples", file));
  let rate = 0;
  let channels = 0;
  for (let at = 12; at + 8 <= bytes.length;) {
    const id = bytes.toString("ascii", at, at + 4);
    const size = bytes.readUInt32LE(at + 4);
    if (id === "fmt ") {
      channels = bytes.readUInt16LE(at + 10);
      rate = bytes.readUInt32LE(at + 12);
    } else if (id === "data") {
      const data = bytes.subarray(at + 8, at + 8 + size);
      const samples = new Int16Array(data.length / 2);
      for (let i = 0; i < samples.length; i++) samples[i] = data.readInt16LE(2 * i);
      return { rate, channels, samples };
    }
    at += 8 + size + (size & 1);
  }
  throw new Error(`${file}: no data chunk`);
}
