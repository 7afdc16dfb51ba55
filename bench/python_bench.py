#!/usr/bin/python3
"""CPU time of ktfront.Analyzer.process and GainControl.compute_gain per block, in ns per
sample and µs per call, over a bundled recording repeated to 60 s; with the path of
ktfront_bench, the C interface and the classes are measured in the same run for comparison.

With --corpus: files per second of ktfront.corpus in this process and on a LocalCluster of
1 and 2 worker processes (median wall time of five runs), over the bundled recordings (240
short files) and over 48 one-minute 48 kHz stereo FLAC files; and the peak RSS of a process
that streams one hour of 48 kHz stereo FLAC through ktfront.iter_segments (made with sox),
against load.

    PYTHONPATH=build/x86_64/python bench/python_bench.py [build/x86_64/bench/ktfront_bench]
    PYTHONPATH=build/x86_64/python bench/python_bench.py --corpus
"""
import os
import statistics
import subprocess
import sys
import time

import numpy as np

import ktfront

SAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "samples")
REPEATS = 5


def best_of(fn):
    """The least CPU time of REPEATS runs: the run least disturbed by the rest of the machine."""
    times = []
    for _ in range(REPEATS):
        start = time.process_time()
        fn()
        times.append(time.process_time() - start)
    return min(times)


def measure(name, rate, samples, block_ms, make, step):
    block = rate * block_ms // 1000
    blocks = [samples[at:at + block] for at in range(0, len(samples) - block + 1, block)]

    def run():
        service = make()
        for b in blocks:
            step(service, b)

    seconds = best_of(run)
    print(f"| {rate} | {name}, {block_ms} ms | {seconds * 1e9 / (len(blocks) * block):.2f} | "
          f"{seconds * 1e6 / len(blocks):.2f} | {len(samples) / rate / seconds:.0f} |")


def median_wall(fn):
    """The median wall time of REPEATS runs: the machine is shared, so neither the best nor
    the worst run is typical."""
    times = []
    for _ in range(REPEATS):
        start = time.perf_counter()
        fn()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def corpus_speed(workers, paths):
    """Files per second once the cluster is up (median of REPEATS runs, wall time)."""
    from dask.distributed import Client, LocalCluster
    from ktfront import corpus
    with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=":0") as cluster, \
            Client(cluster) as client:
        corpus.run(paths[:8], client=client, show_progress=False)  # workers warmed up
        return len(paths) / median_wall(lambda: corpus.run(paths, client=client, show_progress=False))


# The peak of this process's own memory map (ru_maxrss would count the parent's, which
# a child's RSS starts from before exec).
PEAK = """import sys, ktfront
if sys.argv[2] == "load":
    n = len(ktfront.load(sys.argv[1])[0])
elif sys.argv[2] != "import":
    n = sum(1 for _ in ktfront.iter_segments(sys.argv[1], volume=sys.argv[2] == "volume"))
else:
    n = 0
hwm = [line.split()[1] for line in open("/proc/self/status") if line.startswith("VmHWM:")][0]
print(n, int(hwm) // 1024)"""


def corpus_main():
    import tempfile
    wavs = [os.path.join(SAMPLES, f) for f in ("message_8000.wav", "directions_11025.wav", "forecast_16000.wav")]
    with tempfile.TemporaryDirectory() as tmp:
        paths = []
        for i in range(240):
            paths.append(os.path.join(tmp, f"{i}.wav"))
            os.symlink(wavs[i % 3], paths[-1])
        hour = os.path.join(tmp, "hour.flac")
        subprocess.run(["sox", wavs[2], "-r", "48000", "-c", "2", hour, "repeat", "419"], check=True)
        print(f"1 hour of 48 kHz stereo FLAC: {os.path.getsize(hour) / 2**20:.0f} MiB")
        for how in ("import", "segments", "volume", "load"):
            out = subprocess.run([sys.executable, "-c", PEAK, hour, how], check=True, capture_output=True, text=True)
            count, peak = out.stdout.split()
            print(f"| {how} | {count} | {peak} MiB |")
        minute = os.path.join(tmp, "minute.flac")
        subprocess.run(["sox", wavs[2], "-r", "48000", "-c", "2", minute, "repeat", "6"], check=True)
        minutes = [os.path.join(tmp, f"{i}.flac") for i in range(48)]
        for path in minutes:
            os.symlink(minute, path)
        corpora = [("240 bundled recordings (WAV, 8 to 16 kHz mono, 8.5 s each)", paths),
                   ("48 files of 1 minute (48 kHz stereo FLAC)", minutes)]
        from ktfront import corpus
        print(f"load average before: {os.getloadavg()[0]:.1f}")
        print("| corpus | runner | files/s |\n|---|---|---:|")
        for name, files in corpora:
            print(f"| {name} | corpus.serial, this process | {len(files) / median_wall(lambda: corpus.serial(files)):.0f} |")
            for workers in (1, 2):
                print(f"| {name} | LocalCluster, {workers} worker process{'es' if workers > 1 else ''} | "
                      f"{corpus_speed(workers, files):.1f} |")
        print(f"load average after: {os.getloadavg()[0]:.1f}")


def main():
    if sys.argv[1:] == ["--corpus"]:
        corpus_main()
        return
    print("| rate | Python call | ns/sample | µs/call | × real time |")
    print("|---:|---|---:|---:|---:|")
    for file in ("message_8000.wav", "directions_11025.wav", "forecast_16000.wav"):
        s, rate = ktfront.load(os.path.join(SAMPLES, file))
        minute = np.tile(s, 60 * rate // len(s) + 1)[:60 * rate]
        for block_ms in (20, 1000):
            measure("Analyzer.process", rate, minute, block_ms, lambda: ktfront.Analyzer(rate),
                    lambda a, b: a.process(b))
        measure("Analyzer.process, frame data", rate, minute, 20,
                lambda: ktfront.Analyzer(rate, frame_data=True), lambda a, b: a.process(b))
        gain = [0.5]
        measure("GainControl.compute_gain", rate, minute, 20, lambda: ktfront.GainControl(rate),
                lambda g, b: gain.__setitem__(0, g.compute_gain(b, gain[0])))
    if len(sys.argv) > 1:
        subprocess.run([sys.argv[1], "--benchmark_filter=KTRVAD_GetResult, 20 ms|AudioAnalyzer, no frame data"],
                       check=True)


if __name__ == "__main__":
    main()
