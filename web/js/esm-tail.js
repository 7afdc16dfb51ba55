
// The module beside this file, fetched; bundlers that know `new URL(..., import.meta.url)`
// copy it along. The line reading it from disk (Node, Deno, Bun) is left out of the browser
// build, whose bundlers would otherwise look for node:fs.
async function wasmBytes() {
  const url = new URL("./ktfront.wasm", import.meta.url);
  if (url.protocol === "file:") return (await import("node:fs/promises")).readFile(url);
  const response = await fetch(url);
  if (!response.ok) throw new Error(`ktfront: ${url}: HTTP ${response.status}`);
  return response.arrayBuffer();
}

/** Resolves to the API once the WebAssembly module is compiled; every class and function needs it. */
const ready = instantiate(wasmBytes());
api.ready = ready;

export { ready, Analyzer, GainControl, ParameterError, segments, cInterface };
export default api;
