"""The module against the C++ classes (bench's ktfront_dump), the ktfront tool, and Dask."""
import copy, csv, dataclasses, glob, json, os, pickle, re, signal, shutil, subprocess, sys, threading, time, wave
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
                        (lambda: an.process(s.astype(np.int8)), TypeError), (lambda: an.process(np.zeros((2, 2, 2))), ValueError), (lambda: an.process(b"\0" * 3), ValueError),
                        (lambda: agc.compute_gain(s, 1.5), ValueError), (lambda: agc.compute_gain_u16(s, 65536), ValueError),
                        (lambda: ktfront.load(tmp_path), IsADirectoryError), (lambda: ktfront.GainControl(16000.5), ValueError)]:
        with pytest.raises(error): call()
    assert [row(r) for r in an.process(s)] == expected
    with pytest.raises(FileNotFoundError) as missing: ktfront.load(tmp_path / "missing.wav")
    assert (missing.value.errno, missing.value.filename) == (2, str(tmp_path / "missing.wav"))
    with pytest.raises(ValueError, match='invalid parameter string "EOSTimeoutMs=abc": Invalid format'): ktfront.check_params("EOSTimeoutMs=abc")
    assert ktfront.check_params("EOSTimeoutMs=300;eosTimeoutMs=2") == ['the speech analyzer reads no key "eosTimeoutMs" (keys are case-sensitive)']
    assert ktfront.check_params("DeltaGain=0.1", "gain_control") == [] and ktfront.check_params("EOSTimeoutMs=1", "gain_control")
    an2 = ktfront.Analyzer(rate, on_frame=lambda d: an2.process(s[:10]))
    with pytest.raises(RuntimeError, match="own callback"): an2.process(s)
    with pytest.raises(KeyError): ktfront.Analyzer(rate, on_frame=lambda d: {}["raised"]).process(s)
    # Every way in warns as the tool does of what the library would take without a word.
    for make in (lambda: ktfront.Analyzer(rate, "Eos=1"), lambda: ktfront.Analyzer(rate).update_parameters("Eos=1"),
                 lambda: ktfront.GainControl(rate, "Eos=1"), lambda: ktfront.frames(s, rate, "Eos=1"),
                 lambda: ktfront.regions(s, rate, "Eos=1"), lambda: next(ktfront.iter_segments(WAVS[0], "Eos=1"))):
        with pytest.warns(UserWarning, match='reads no key "Eos"'): make()
    with pytest.warns(UserWarning, match="^EOSTimeoutMs=3e2 is read as 3$"): ktfront.segments(s, rate, "EOSTimeoutMs=3e2")

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

def test_arrays_read_as_the_tool_reads_files(tmp_path):
    s, _ = ktfront.load(WAVS[2])
    stereo = np.stack([np.repeat(s, 3), np.repeat(s, 3) // 3], axis=1)  # 48 kHz, frames x channels
    with wave.open(str(tmp_path / "stereo.wav"), "wb") as w:
        w.setparams((2, 2, 48000, 0, "NONE", "NONE")); w.writeframes(stereo.tobytes())
    ref, rate = ktfront.load(tmp_path / "stereo.wav")  # the tool's reading
    as_float = stereo.astype(np.float32) / 32768
    for audio in (stereo, as_float, as_float.astype(np.float64), np.asfortranarray(stereo), stereo.astype(">i2")):
        assert ktfront.segments(audio, 48000) == ktfront.segments(ref, rate) == [(1.36, 4.4), (5.1, 7.48)]
    assert ktfront.segments(ref.astype(">i2"), rate) == [(1.36, 4.4), (5.1, 7.48)]  # big-endian is not read in place
    for block in (960, 441, 4096):  # the streaming resampler gives the same samples however cut
        rs = ktfront.Resampler(48000.0)
        out = np.concatenate([rs.process(as_float[at:at + block]) for at in range(0, len(stereo), block)] + [rs.flush()])
        assert rs.to_rate == 16000 and np.array_equal(out, ref)
    full = np.array([1.0, -1.0, 2.0, -2.0, 0.5, 1 / 65536, -1 / 65536, np.nan], np.float32)
    assert ktfront.Resampler(8000).process(full).tolist() == [32767, -32768, 32767, -32768, 16384, 1, -1, 0]
    assert ktfront.Resampler(8000).process(np.array([[100, 301], [-3, -4]], np.int16)).tolist() == [201, -4]
    for bad, error in [(s.astype(np.uint8), TypeError), (s.astype(np.int32), TypeError), (np.zeros((10, 100), np.int16), ValueError),
                       ([0.5], TypeError), (np.zeros(4, np.complex64), TypeError), (s > 0, TypeError), (s.astype(object), TypeError)]:
        with pytest.raises(error): ktfront.Resampler(48000).process(bad)
    with pytest.raises(ValueError, match="unsupported sampling rate 7000"): ktfront.segments(s, 7000)
    with pytest.raises(ValueError, match="to_rate"): ktfront.Resampler(48000, 22050)

@pytest.mark.skipif(not TOOL or not shutil.which("sox"), reason="needs the ktfront tool and sox")
def test_arrays_from_soundfile_give_the_tools_frames(tmp_path):
    sf = pytest.importorskip("soundfile")
    for name, fmt, dtypes in [("f.wav", ["-r", "48000", "-c", "2", "-b", "32", "-e", "floating-point"], ("float32", "float64")),
                              ("d.wav", ["-b", "64", "-e", "floating-point"], ("float64",)),
                              ("s.flac", ["-r", "44100", "-c", "2"], ("int16", "float32"))]:
        path = str(tmp_path / name)
        subprocess.run(["sox", WAVS[2], *fmt, path, "vol", "0.3"], check=True)
        records, reference = run_tool(path, "", 20), ktfront.load(path)[0]
        for dtype in dtypes:
            audio, rate = sf.read(path, dtype=dtype)
            rs = ktfront.Resampler(rate)
            assert np.array_equal(np.concatenate([rs.process(audio), rs.flush()]), reference)
            assert [(f.frame_index, f.is_speech, f.energy) for f in ktfront.frames(audio, rate)] == [
                (r["frameIndex"], r["isSpeechSegmentFrame"], r.get("energyDb")) for r in records if r["type"] == "frame"]
            assert ktfront.segments(audio, rate) == [(r["start"], r["end"]) for r in records if r["type"] == "segment"]

def test_results_are_values_that_pickle_and_services_that_refuse():
    s, rate = ktfront.load(WAVS[0])
    decisions, agc = [], ktfront.GainControl(rate)
    results = ktfront.Analyzer(rate, frame_data=True, on_frame=decisions.append).process(s) + ktfront.Analyzer(rate).flush()
    gains = [(agc.compute_gain(s[at:at + 160], 0.5), agc.last_decision)[1] for at in range(0, len(s), 160)]
    values = results + decisions + [g for g in gains if g][:3] + [ktfront.Segment(1.0, 2.0), ktfront.Region(1.0, 2.0, s[:5])]
    assert {type(v).__name__ for v in values} == {"Event", "Volume", "Frame", "FrameDecision", "GainDecision", "Segment", "Region"}
    again = ktfront.Analyzer(rate, frame_data=True).process(s)
    assert again == results and again is not results and pickle.loads(pickle.dumps(values)) == values
    assert decisions[3].time_ms == 60.0 and ktfront.frames(s, rate)[3].time_ms == 60.0
    frame = next(r for r in results if r.type == "frame")
    assert frame != ktfront.Frame(**{**frame.__dict__, "samples": frame.samples + 1})
    for v in values:  # every field shown
        assert all(f"{f.name}=" in repr(v) for f in dataclasses.fields(v))
    with pytest.raises(AttributeError): frame.is_speech = True
    for service in (ktfront.Analyzer(rate), agc, ktfront.Resampler(rate), ktfront.Regions(rate)):
        for copier in (pickle.dumps, copy.copy, copy.deepcopy):
            with pytest.raises(TypeError, match="cannot be pickled or copied"): copier(service)
    assert re.fullmatch(r"\d+\.\d+\.\d+", ktfront.__version__) and "Result" in dir(ktfront)

@pytest.mark.skipif(not TOOL, reason="needs the ktfront tool")
def test_files_streamed_and_labels_written_as_the_tool(tmp_path):
    for path in WAVS:
        s, rate = ktfront.load(path)
        records = run_tool(path, "EOSTimeoutMs=300", 30)
        streamed = list(ktfront.iter_segments(path, "EOSTimeoutMs=300", 30, volume=True))
        assert [(x.start, x.end) for x in streamed if x.type == "segment"] == ktfront.segments(s, rate, "EOSTimeoutMs=300", 30)
        assert [(x.time_ms, x.snr_volume_pct) for x in streamed if x.type == "volume"] == [
            (r["timeMs"], r["snrVolumePct"]) for r in records if r["type"] == "volume"]
        for fmt in ("audacity", "rttm", "textgrid"):
            tool = subprocess.run([TOOL, "vad", "--format", fmt, path], capture_output=True, text=True, check=True).stdout
            stem = os.path.splitext(os.path.basename(path))[0]
            assert ktfront.write_labels(ktfront.regions(s, rate), tmp_path / "l", fmt, stem, len(s) / rate) == tool
            assert open(tmp_path / "l").read() == tool
            if fmt == "rttm":  # the ID by default from the label file's name
                assert ktfront.write_labels(ktfront.regions(s, rate), tmp_path / f"{stem}.rttm", fmt) == tool
    # The corpus's one-pass volume statistics against the readings of the whole file, in 20 ms blocks.
    an = ktfront.Analyzer(rate)
    readings = [r for at in range(0, len(s), rate // 50) for r in an.process(s[at:at + rate // 50]) + (an.flush() if at + rate // 50 >= len(s) else []) if r.type == "volume"]
    inside = [[v for v in readings if row["start"] * 1000 < v.time_ms <= row["end"] * 1000] for row in corpus.segment_file(path, volume=True)]
    expected = [(max(v.volume_dbfs for v in vs), sum(v.snr_volume_pct for v in vs) / len(vs)) for vs in inside]
    assert [(r["peak_dbfs"], r["mean_snr_volume_pct"]) for r in corpus.segment_file(path, volume=True)] == expected
    assert [(p, m) for _, _, p, m in ktfront.segments_with_volume(s, rate)] == expected
    # A long file with segments close together, then with one long segment: the readings kept
    # while streaming against the whole file's.
    s, rate = ktfront.load(WAVS[2])
    with wave.open(str(tmp_path / "long.wav"), "wb") as w:
        w.setparams((1, 2, rate, 0, "NONE", "NONE")); w.writeframes(np.tile(s, 10).tobytes())
    for params, count in (("EOSTimeoutMs=60", 46), ("EOSTimeoutMs=3000", 1)):
        streamed = [tuple(r.values())[1:] for r in corpus.segment_file(str(tmp_path / "long.wav"), params, volume=True)]
        assert len(streamed) == count and streamed == ktfront.segments_with_volume(np.tile(s, 10), rate, params)
    with pytest.raises(FileNotFoundError): next(ktfront.iter_segments(tmp_path / "none.wav"))
    with pytest.raises(ValueError, match='^invalid parameter string "EOSTimeoutMs=-100": Value out of range$'):
        next(ktfront.iter_segments(WAVS[0], "EOSTimeoutMs=-100"))
    (tmp_path / "bad.wav").write_bytes(b"RIFF....WAVEjunk")
    with pytest.raises(OSError, match="bad.wav"): list(ktfront.iter_segments(tmp_path / "bad.wav"))

def test_regions_post_processed_streamed_and_with_samples():
    s, rate = ktfront.load(WAVS[2])  # segments (1.36, 4.4), (5.1, 7.48)
    def spans(**kw): return [(round(r.start, 9), round(r.end, 9)) for r in ktfront.regions(s, rate, **kw)]
    assert spans() == ktfront.segments(s, rate) == [(1.36, 4.4), (5.1, 7.48)]
    assert spans(max_silence=0.7) == [(1.36, 7.48)] and spans(max_silence=0.69) == spans()
    assert spans(min_duration=2.5) == [(1.36, 4.4)] and spans(min_duration=3.1) == []
    assert spans(max_duration=1.0) == [(1.36, 2.36), (2.36, 3.36), (3.36, 4.36), (4.36, 4.4), (5.1, 6.1), (6.1, 7.1), (7.1, 7.48)]
    assert spans(max_silence=1, min_duration=6.1, max_duration=3) == [(1.36, 4.36), (4.36, 7.36), (7.36, 7.48)]
    # A 48 kHz float microphone in 10 ms callbacks, the file twice with a flush between.
    mic, live, got = np.repeat(s, 3).astype(np.float32) / 32768, ktfront.Regions(48000, keep_samples=True, max_silence=0.7), []
    rs = ktfront.Resampler(48000); heard = np.concatenate([rs.process(mic), rs.flush()])
    for turn in range(2):
        got += [r for at in range(0, len(mic), 480) for r in live.process(mic[at:at + 480])] + live.flush()
    assert [(round(r.start, 9), round(r.end, 9)) for r in got] == [(1.36, 7.48), (round(len(s) / rate + 1.36, 9), round(len(s) / rate + 7.48, 9))]
    assert all(np.array_equal(r.samples, heard[21760:119680]) for r in got)
    with pytest.raises(ValueError): ktfront.Regions(rate, max_duration=0)

@pytest.fixture(scope="session")
def client():
    from dask.distributed import Client, LocalCluster
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0") as cluster, Client(cluster) as c:
        yield c

def test_dask_ships_package_functions_and_results(client, tmp_path):
    files = WAVS + [str(tmp_path / "missing.wav")]
    rows = corpus.run(files, tmp_path / "table.jsonl", client, volume=True, show_progress=False)
    assert rows == corpus.serial(files, volume=True) and len(rows) > len(files)
    assert sorted(map(json.dumps, rows)) == sorted(open(tmp_path / "table.jsonl").read().splitlines())
    assert rows[-1]["error"].startswith("FileNotFoundError") and all(r.get("peak_dbfs") is not None for r in rows[:-1])
    # The command on a scheduler and a worker started as on a machine of their own.
    where, quiet = tmp_path / "scheduler.json", dict(stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    daemons = [subprocess.Popen(["dask", "scheduler", "--scheduler-file", where, "--port", "0", "--dashboard-address", ":0"], **quiet)]
    try:
        while not where.exists() or not where.read_text(): assert daemons[0].poll() is None; time.sleep(0.1)
        daemons.append(subprocess.Popen(["dask", "worker", "--scheduler-file", where, "--nthreads", "1", "--dashboard-address", ":0"], **quiet))
        cli = run_corpus("-o", tmp_path / "cli.jsonl", "--volume", "--scheduler", json.loads(where.read_text())["address"], *files)
        assert cli.wait(120) == 1 and sorted(open(tmp_path / "cli.jsonl")) == sorted(open(tmp_path / "table.jsonl"))
    finally:
        for daemon in reversed(daemons): daemon.terminate(); daemon.wait(30)
    full = run_corpus("-o", "/dev/full", "--scheduler", client.scheduler.address, *files)  # a disk that fills up
    assert full.wait(60) == 2 and full.stderr.read().endswith(
        "ktfront.corpus: error: cannot write /dev/full: No space left on device; it holds every file finished before (--resume goes on from there)\n")
    os.symlink("/dev/stdout", tmp_path / "out.csv")  # not a regular file: nothing read back, the header once
    out = run_corpus("-o", tmp_path / "out.csv", "--scheduler", client.scheduler.address, WAVS[0], stdout=subprocess.PIPE)
    assert out.communicate(timeout=60)[0] == "file,start,end,peak_dbfs,mean_snr_volume_pct,error\n" + "".join(
        f"{WAVS[0]},{a},{b},,,\n" for a, b in [(1.06, 4.52), (5.18, 7.58)]) and out.returncode == 0
    s, rate = client.submit(ktfront.load, WAVS[1]).result()
    assert client.submit(ktfront.frames, s, rate).result() == ktfront.frames(s, rate)
    assert client.submit(ktfront.regions, s, rate, keep_samples=True).result() == ktfront.regions(s, rate, keep_samples=True)

def run_corpus(*args, **kw):
    return subprocess.Popen([sys.executable, "-m", "ktfront.corpus", *map(str, args)], stderr=subprocess.PIPE, text=True, **kw)

def test_corpus_command_as_a_long_job(tmp_path):
    table, files = tmp_path / "t.csv", WAVS + [str(tmp_path / "missing.wav")]
    run = run_corpus("-o", table, "--workers", "2", "--params", "EOSTimeoutMs=300.5;Eos=1", *files)
    warned = [line for line in run.stderr.read().splitlines() if ": warning: " in line]
    assert run.wait(120) == 1 and warned == ["ktfront.corpus: warning: EOSTimeoutMs=300.5 is read as 300",
                                            'ktfront.corpus: warning: the speech analyzer reads no key "Eos" (keys are case-sensitive)']
    if TOOL:  # word for word what the tool says
        tool = subprocess.run([TOOL, "vad", "--params", "EOSTimeoutMs=300.5;Eos=1", WAVS[0]], capture_output=True, text=True).stderr
        assert [line.replace("ktfront: ", "ktfront.corpus: ", 1) for line in tool.splitlines() if ": warning: " in line] == warned
    expected = corpus.serial(files, "EOSTimeoutMs=300")
    read = lambda: sorted([r["file"], r["start"], r["end"], r["error"][:17]] for r in csv.DictReader(open(table)))
    written = read()
    assert written == sorted([r["file"], str(r["start"] or ""), str(r["end"] or ""), r.get("error", "")[:17]] for r in expected)
    fast = {**os.environ, "DASK_DISTRIBUTED__COMM__TIMEOUTS__CONNECT": "1s"}
    for args in (["-o", tmp_path / "no" / "t.csv", WAVS[0]], ["-o", table, "--params", "EOSTimeoutMs=abc", WAVS[0]], ["-o", table],
                 ["-o", table, "--workers", "0", WAVS[0]], ["-o", table, "--workers", "2", "--scheduler", "tcp://127.0.0.1:1", WAVS[0]], ["-o", table, "--resume", "--scheduler", "tcp://127.0.0.1:1", WAVS[0]]):
        bad = run_corpus(*args, env=fast)
        assert bad.wait(60) == 2 and re.fullmatch("ktfront.corpus: error: [^\n]+\n", bad.stderr.read())
    assert read() == written  # nothing was touched
    many = tmp_path / "many"; many.mkdir()
    for i in range(3000): os.symlink(WAVS[0], many / f"{i:04}.wav")
    table = tmp_path / "long.csv"
    run = run_corpus("-o", table, "--workers", "2", *sorted(glob.glob(str(many / "*.wav"))), start_new_session=True)
    while not table.exists(): time.sleep(0.05)
    while len(open(table).readlines()) < 4 and run.poll() is None: time.sleep(0.05)
    os.killpg(run.pid, signal.SIGINT)  # Ctrl-C reaches the whole process group
    said = run.stderr.read().strip().splitlines()  # progress, then one line: no traceback, no cluster chatter
    assert run.wait(60) == 130 and said[-1].startswith("ktfront.corpus: interrupted;")
    assert all(re.fullmatch(r"ktfront.corpus: \d+/\d+ files, 0 failed", line) for line in said[:-1]), said
    done = {r["file"] for r in csv.DictReader(open(table))}
    assert all(len([r for r in csv.DictReader(open(table)) if r["file"] == f]) == 2 for f in done)
    last = open(table).read().splitlines()[-1]
    with open(table, "a") as f: f.write(last[:len(last) // 2])  # a row cut short: its file is done again
    todo = sorted(done) + sorted(set(glob.glob(str(many / "*.wav"))) - done)[:3]
    resumed = run_corpus("-o", table, "--resume", *todo, "--workers", "1")
    assert resumed.wait(120) == 0 and f"{len(done) - 1} already in" in resumed.stderr.read()
    rows = list(csv.DictReader(open(table)))
    assert len(rows) == 2 * (len(done) + 3) and len({r["file"] for r in rows}) == len(done) + 3

DOCS = os.path.join(os.path.dirname(__file__), "../../docs/python.md")

def test_docs_examples_run_and_type_check_against_the_stubs(tmp_path):
    root = os.path.dirname(os.path.abspath(DOCS)) + "/.."
    readme = re.findall(r"```python\n(.*?)```", open(os.path.join(root, "README.md")).read(), re.S)
    blocks = re.findall(r"```python\n(.*?)```", open(DOCS).read(), re.S)
    for i, block in enumerate(blocks + readme):
        out = subprocess.run([sys.executable, "-c", block], cwd=root, capture_output=True, text=True, timeout=120)
        assert out.returncode == 0, out.stderr
        for shown in re.findall(r"print\(.*#\s*(.+)$", block, re.M) if i < len(blocks) else []:  # what a comment says is printed
            assert shown.replace("\\t", "\t").strip() in out.stdout
        (tmp_path / f"example{i}.py").write_text(block)
    if not shutil.which("mypy"): pytest.skip("mypy is not installed")
    env = {**os.environ, "MYPYPATH": os.environ.get("PYTHONPATH", "")}
    cache = os.path.join(os.path.dirname(ktfront.__path__[0]), ".mypy_cache")  # numpy's stubs are read once per build
    # Dask ships no types: calls into it are allowed, nothing else is relaxed.
    (tmp_path / "mypy.ini").write_text(f"[mypy]\nstrict = True\ncache_dir = {cache}\n[mypy-dask.*,distributed.*,ktfront._ktfront]\n"
        "ignore_missing_imports = True\n" + "".join(f"[mypy-example{i}]\ndisallow_untyped_calls = False\n" for i, b in enumerate(blocks) if "dask" in b))
    out = subprocess.run(["mypy", "--config-file", "mypy.ini", *sorted(map(str, tmp_path.glob("*.py")))], capture_output=True, text=True, env=env, cwd=tmp_path)
    assert out.returncode == 0, out.stdout
    # The stubs against what runs; pybind11's classes have their own metaclass.
    (tmp_path / "allow.txt").write_text("ktfront.Analyzer\nktfront.GainControl\nktfront.Resampler\n")
    out = subprocess.run([sys.executable, "-m", "mypy.stubtest", "ktfront", "--mypy-config-file", "mypy.ini", "--allowlist", "allow.txt"],
                         capture_output=True, text=True, env=env, cwd=tmp_path)
    assert out.returncode == 0, out.stdout

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
