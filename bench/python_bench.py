#!/usr/bin/python3
"""CPU time of ktfront.Analyzer.process and GainControl.compute_gain per block, in ns per
sample and µs per call, over a bundled recording repeated to 60 s; with the path of
ktfront_bench, the C interface and the classes are measured in the same run for comparison.

    PYTHONPATH=build/x86_64/python bench/python_bench.py [build/x86_64/bench/ktfront_bench]
"""
import os
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


def main():
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
