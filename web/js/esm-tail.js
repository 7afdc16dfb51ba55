
export { ready, Analyzer, GainControl, ParameterError, segments, cInterface };
export default api;
