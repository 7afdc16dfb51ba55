"""The module against the C++ classes (bench's ktfront_dump), the ktfront tool, and Dask."""
import json, os, subprocess, sys, threading, wave
import numpy as np, pytest
import ktfront, ktfront.corpus as corpus

SAMPLES = os.environ.get("KTFRONT_SAMPLES_DIR", os.path.join(os.path.dirname(__file__), "../../samples"))
WAVS = [os.path.join(SAMPLES, f) for f in ("message_8000.wav", "directions_11025.wav", "forecast_16000.wav")]
TOOL, DUMP = os.environ.get("KTFRONT_CLI"), os.environ.get("KTFRONT_DUMP")
TAGS, INFOS = ["SpeechStart", "SpeechEnd", "BelowVOR", "AboveVOR"], ["OK", "TooNoisy", "TooSoft", "TooLoud"]

def fnv(samples):  # the dump's hash of a frame's samples
    h = 1469598103934665603
    for s in samples.astype(np.uint16).tolist(): h = ((h ^ s) * 1099511628211) & (2**64 - 1)
    return h

def row(r):  # a result as the dump prints it
    if r.type == "event": return ("e", TAGS.index(r.tag), r.time_ms)
    if r.type == "volume": return ("m", INFOS.index(r.info), r.volume_dbfs, r.volume, r.snr_volume_pct, r.time_ms, int(r.is_speech_state))
    samples = r.samples if r.samples is not None else np.zeros(0, np.int16)
    return ("f", r.frame_index, int(r.is_speech), len(samples), fnv(samples))

CONVERT = {"e": (int, float.fromhex), "m": (int,) + (float.fromhex,) * 4 + (int,), "a": (float.fromhex, int),
           "f": (int, int, int, lambda x: int(x, 16))}
def parse_dump(line): k, *f = line.split(); return (k,) + tuple(c(x) for c, x in zip(CONVERT[k], f))

@pytest.mark.skipif(not DUMP, reason="needs bench's ktfront_dump (-DKTFRONT_BUILD_BENCH=ON)")
def test_bit_identical_to_classes():
    sections, current = {}, None
    for line in subprocess.run([DUMP], check=True, capture_output=True, text=True).stdout.splitlines():
        if line.startswith("#"): current = sections.setdefault(line, []) if line.endswith("classes") else None
        elif current is not None: current.append(parse_dump(line))
    for path in WAVS:
        s, rate = ktfront.load(path)
        for block in (rate // 50, rate // 100, 1001):
            an, bare = ktfront.Analyzer(rate, frame_data=True), ktfront.Analyzer(rate)
            agc, agc16, gain, gain16, out = ktfront.GainControl(rate), ktfront.GainControl(rate), 0.5, 32768, []
            for i, at in enumerate(range(0, len(s), block)):
                data = s[at:at + block]
                r1, r2 = an.process(data), bare.process(data)
                if i % 97 == 96: r1, r2 = r1 + an.flush(), r2 + bare.flush()
                gain, gain16 = agc.compute_gain(data, gain), agc16.compute_gain_u16(data, gain16)
                out += [row(r) for r in r1 + r2] + [("a", gain, gain16)]
            assert out == sections[f"# {os.path.basename(path)} {rate} Hz, blocks of {block}, classes"]

def run_tool(path, params, block_ms):
    args = [TOOL, "vad", "--json", "--block-ms", str(block_ms)] + (["--params", params] if params else [])
    return [json.loads(l) for l in subprocess.run(args + [path], check=True, capture_output=True, text=True).stdout.splitlines()]

@pytest.mark.skipif(not TOOL, reason="needs the ktfront tool")
def test_load_segments_frames_as_the_tool(tmp_path):
    s, _ = ktfront.load(WAVS[2])  # stereo at 48 kHz: the tool mixes down and resamples to 16 kHz
    with wave.open(str(tmp_path / "stereo.wav"), "wb") as w:
        w.setparams((2, 2, 48000, 0, "NONE", "NONE")); w.writeframes(np.stack([np.repeat(s, 3), np.repeat(s, 3) // 3], axis=1).tobytes())
    for path, params, block_ms in [(WAVS[0], "", 20), (WAVS[1], "EOSTimeoutMs=200", 30), (str(tmp_path / "stereo.wav"), "", 7)]:
        records = run_tool(path, params, block_ms)
        samples, rate = ktfront.load(path)
        assert (rate, len(samples)) == (records[0]["rateHz"], records[-1]["samples"])
        segs = ktfront.segments(samples, rate, params, block_ms)
        assert segs and segs == [(r["start"], r["end"]) for r in records if r["type"] == "segment"]
        an, step = ktfront.Analyzer(rate, params), block_ms * rate // 1000
        mine = [r for at in range(0, len(samples), step) for r in an.process(samples[at:at + step])] + an.flush()
        assert [(r.frame_index, r.is_speech, r.energy, r.speech_start_threshold, r.speech_level) for r in mine
                if r.type == "frame"] == [(r["frameIndex"], r["isSpeechSegmentFrame"], r.get("energyDb"),
                r.get("startThresholdDb"), r.get("speechLevelDb")) for r in records if r["type"] == "frame"]
        assert [(r.time_ms, r.volume_dbfs, r.snr_volume_pct, r.info) for r in mine if r.type == "volume"] == [
            (r["timeMs"], r["volumedBFS"], r["snrVolumePct"], r["info"]) for r in records if r["type"] == "volume"]

def test_errors_are_clear_and_lose_nothing(tmp_path):
    s, rate = ktfront.load(WAVS[0])
    expected = [row(r) for r in ktfront.Analyzer(rate).process(s)]
    for make, message in [(lambda: ktfront.Analyzer(44100), "Sampling rate"), (lambda: ktfront.GainControl(7000), "Sampling rate"),
                          (lambda: ktfront.Analyzer(rate, "EOSTimeoutMs"), "Invalid format"),
                          (lambda: ktfront.Analyzer(rate, "EOSTimeoutMs=-100"), "Value out of range")]:
        with pytest.raises(ValueError, match=message): make()
    an, agc = ktfront.Analyzer(rate), ktfront.GainControl(rate)
    for call, error in [(lambda: an.update_parameters("SpeechWindowSizeMs=-40"), ValueError), (lambda: an.process(s.astype(np.int32)), TypeError),
                        (lambda: an.process([1, 2]), TypeError), (lambda: an.process(np.zeros((2, 160), np.int16)), ValueError),
                        (lambda: an.process(s[::2]), ValueError), (lambda: an.process(b"\0" * 3), ValueError),
                        (lambda: agc.compute_gain(s, 1.5), ValueError), (lambda: agc.compute_gain_u16(s, 65536), ValueError),
                        (lambda: ktfront.load(tmp_path / "missing.wav"), OSError), (lambda: ktfront.load(tmp_path), OSError)]:
        with pytest.raises(error): call()
    assert [row(r) for r in an.process(s)] == expected
    an2 = ktfront.Analyzer(rate, on_frame=lambda d: an2.process(s[:10]))
    with pytest.raises(RuntimeError, match="own callback"): an2.process(s)
    with pytest.raises(KeyError): ktfront.Analyzer(rate, on_frame=lambda d: {}["raised"]).process(s)

def test_blocks_read_in_place():
    s, rate = ktfront.load(WAVS[0])
    expected = [row(r) for r in ktfront.Analyzer(rate).process(s)]
    buf, refused = bytearray(s.tobytes()), []
    def resize(decision):  # while the analyzer reads buf in place, buf cannot be resized
        try: buf.extend(b"\0\0")
        except BufferError: refused.append(decision.frame_index)
    assert [row(r) for r in ktfront.Analyzer(rate, on_frame=resize).process(buf)] == expected
    assert refused and len(buf) == 2 * len(s)
    assert [row(r) for r in ktfront.Analyzer(rate).process(s.tobytes())] == expected
    assert [row(r) for r in ktfront.Analyzer(rate).process(s[800:9000])] == [row(r) for r in ktfront.Analyzer(rate).process(s[800:9000].copy())]

def test_gil_released_for_parallel_analyzers():
    s, rate = ktfront.load(WAVS[2])
    expected = [row(r) for r in ktfront.Analyzer(rate).process(s)]
    results, done, interval, an = {}, [], sys.getswitchinterval(), ktfront.Analyzer(rate)
    def work():  # nothing but process calls until done: row() may let the GIL go (NumPy)
        out = [an.process(s) for _ in range(20)]; done.append(True); results["a"] = [row(r) for r in out[0]]
    sys.setswitchinterval(100)  # no forced switch: the main thread runs only when process lets go of the GIL
    try:
        t = threading.Thread(target=work); t.start()
        done_early, results["b"] = bool(done), [row(r) for r in ktfront.Analyzer(rate).process(s)]
    finally:
        sys.setswitchinterval(interval)
    t.join()
    assert not done_early and results["a"] == results["b"] == expected

def test_dask_table_matches_serial(tmp_path):
    from dask.distributed import Client, LocalCluster
    files = WAVS + [str(tmp_path / "missing.wav")]
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=False, dashboard_address=None) as cluster, Client(cluster) as client:
        rows = corpus.run(files, tmp_path / "table.jsonl", client, volume=True, show_progress=False)
    assert rows == corpus.serial(files, volume=True) and len(rows) > len(files)
    assert [json.loads(l) for l in open(tmp_path / "table.jsonl")] == rows
    assert "No such file" in rows[-1]["error"] and all(r.get("peak_dbfs") is not None for r in rows[:-1])

def test_load_reads_float_wav_at_its_true_level_and_refuses_headerless(tmp_path):
    s, rate = ktfront.load(WAVS[0])
    quiet = np.round(s * 0.01).astype(np.int16)  # -40 dB, far below the float file's own peak
    data = (quiet / 32768.0).astype("<f4").tobytes()
    fmt = (3).to_bytes(2, "little") + (1).to_bytes(2, "little") + rate.to_bytes(4, "little") + (4 * rate).to_bytes(4, "little") + \
        (4).to_bytes(2, "little") + (32).to_bytes(2, "little")
    (tmp_path / "f.wav").write_bytes(b"RIFF" + (36 + len(data)).to_bytes(4, "little") + b"WAVEfmt " + (16).to_bytes(4, "little") + fmt +
                                     b"data" + len(data).to_bytes(4, "little") + data)
    back, back_rate = ktfront.load(tmp_path / "f.wav")
    assert back_rate == rate and np.array_equal(back, quiet)
    (tmp_path / "x.raw").write_bytes(quiet.tobytes())
    with pytest.raises(OSError, match="raw audio needs --rate"): ktfront.load(tmp_path / "x.raw")
    assert np.array_equal(ktfront.load(tmp_path / "x.raw", raw_rate=rate)[0], quiet)
