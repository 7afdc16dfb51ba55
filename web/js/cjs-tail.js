
module.exports = api;
