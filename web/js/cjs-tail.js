
// The module beside this file, read from disk.
const ready = instantiate(require("fs").promises.readFile(require("path").join(__dirname, "ktfront.wasm")));
api.ready = ready;
module.exports = api;
