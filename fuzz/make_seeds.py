#!/usr/bin/env python3
"""Writes the seed inputs of fuzz/corpus/<target>/ in the script formats that the
targets read (see fuzz_input.h and each *_fuzzer.cpp). Run once when a format changes;
the fuzzers grow the corpus from these."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def u16(v):
    return struct.pack("<H", v & 0xFFFF)


def i32(v):
    return struct.pack("<i", v)


def f64(v):
    return struct.pack("<d", v)


def text(s):
    b = s.encode()
    return bytes([len(b)]) + b


# Block descriptions of fuzz::SignalMaker: kind, length, amplitude, shape.
def silence(n):
    return bytes([1]) + u16(n) + u16(0) + b"\0"


def tone(n, amp, period):
    return bytes([3]) + u16(n) + u16(amp) + bytes([period])


def noise(n, amp):
    return bytes([4]) + u16(n) + u16(amp) + b"\0"


def clipping(n):
    return bytes([5]) + u16(n) + u16(0) + b"\x03"


def speech(n, amp):
    return bytes([6]) + u16(n) + u16(amp) + b"\0"


def raw(samples):
    return bytes([0]) + u16(len(samples)) + b"".join(struct.pack("<h", s) for s in samples)


def write(target, name, data):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


def parameters():
    for i, s in enumerate([
        "", ";;;", "a=1;b=2.5", ";;a=1;;b=2;", "a==1", "=a=1=", "a=1=2", "a", "a=",
        "a=1; ", "a=1; b=2", "a=1;a=2", "k= 42xyz", "k=0x10", "k=1.9", "k=xyz", "k=1e3",
        "k=.5", "k=on off", "k=   ", "k=-5", "k=99999999999", "k=1e400", "k=-1",
        "SpeechWindowSizeMs=200;EOSTimeoutMs=420;RelativeGain=true",
    ]):
        write("parameters", "seed%02d" % i, s.encode())


def analyzer():
    # rate selector, supplyFrameData, parameter string, then operations.
    def process(block, repeat):
        return b"\0" + block + bytes([repeat - 1])
    flush, reset, drain_all = b"\2", b"\3", b"\6\xff"
    stream = (process(noise(3200, 200), 30) + process(speech(3200, 9000), 30) +
              drain_all + process(silence(3200), 20) + drain_all + flush)
    write("analyzer", "speech16k", b"\2\1" + text("") + stream)
    write("analyzer", "speech8k_params", b"\0\1" +
          text("SpeechWindowSizeMs=300;EOSTimeoutMs=600;HistogramWindowSizeMs=1000") +
          process(noise(1600, 100), 40) + process(tone(1600, 12000, 40), 20) +
          process(noise(1600, 100), 40) + flush + drain_all)
    write("analyzer", "odd11k_update", b"\1\0" + text("") +
          process(speech(1103, 5000), 25) + b"\7\1" + u16(7) + reset +
          b"\4" + text("a") + b"\4" + text("EOSTimeoutMs=200;FullScaleSNR=30") +
          b"\5\1" + u16(105) + b"\5\0" + i32(-5) + process(speech(333, 20000), 60) +
          b"\6\x20" + flush)
    write("analyzer", "clipping", b"\2\1" + text("") + process(clipping(640), 50) +
          process(raw([0, 1, -1, 32767, -32768] * 64), 3) + flush)
    write("analyzer", "bad_rate", b"\3" + f64(22050.0) + b"\1" + text(""))


def agc():
    def compute(block, repeat, gains):
        return b"\0" + block + bytes([repeat - 1]) + gains
    write("agc", "speech16k", b"\2" + text("") +
          compute(speech(1600, 3000), 16, b"\5" * 16) + compute(silence(1600), 8, b"\5" * 8) +
          b"\4\1" + compute(speech(1600, 30000), 16, b"\5" * 16) + b"\4\0")
    write("agc", "gains", b"\0" + text("RelativeGain=false;DeltaGain=0.1") +
          compute(noise(800, 500), 4, b"\0\1\2" + u16(40000) + b"\3" + struct.pack("<f", 1.5)) +
          b"\2" + noise(800, 500) + b"\1" + u16(65535) + b"\3" + b"\6\5" + b"\5" + b"\7\3" +
          struct.pack("<f", -0.5))
    write("agc", "params", b"\1" + text("MinUpdateIntervalMs=200;WindowSizeMs=1000;LeastGain=0.01") +
          b"\4\1" + compute(clipping(1102), 10, b"\5" * 10))
    write("agc", "bad", b"\1" + text("MinUpdateIntervalMs=40") + b"\0")


def ktrvad():
    # op 0: Init(rate selector); op 7: one call repeated (repeat, start, block, shape, nulls).
    def calls(repeat, block, shape=0, nulls=0, start=3):
        return b"\7" + bytes([repeat - 1, start]) + block + bytes([shape, nulls])
    poll = b"\5"
    write("ktrvad", "host16k", b"\0\2" + calls(100, noise(320, 200)) + calls(60, speech(320, 9000)) +
          poll + calls(100, silence(320)) + poll + b"\6")
    write("ktrvad", "refusals", b"\1\0" + b"\0\3" + b"\0\1" + calls(3, speech(160, 100), nulls=2) +
          calls(2, speech(160, 100), shape=4) + calls(2, speech(161, 100), shape=1) +
          calls(2, silence(0), shape=2) + calls(2, speech(160, 9000), shape=8, start=0) +
          b"\6" + calls(1, silence(160)))
    write("ktrvad", "host8k", b"\0\0" + calls(200, speech(160, 12000)) + calls(120, silence(160)) +
          poll + b"\0\x09" + f64(16000.0) + calls(10, clipping(320)))


def ktragc():
    # op 0: Init(rate selector); op 1: block, shape, bound selector, repeat, volume selectors.
    def compute(block, repeat, bound=b"\0", shape=0, volumes=None):
        return b"\1" + block + bytes([shape]) + bound + bytes([repeat - 1]) + (volumes or b"\x09" * repeat)
    write("ktragc", "host16k", b"\0\2" + compute(speech(320, 3000), 60) + compute(silence(320), 30) +
          compute(speech(320, 30000), 60, bound=b"\1") + b"\5")
    write("ktragc", "refusals", b"\1" + compute(silence(320), 1) + b"\0\3" + b"\0\0" +
          compute(silence(320), 2, shape=8) + compute(silence(320), 2, bound=b"\4") +
          compute(silence(320), 2, shape=4) + compute(silence(321), 2, shape=1) +
          compute(silence(0), 2, shape=2) + compute(noise(320, 100), 4, volumes=b"\3\4\5\6") +
          compute(noise(320, 100), 4, bound=b"\5", volumes=b"\0\1\2\3"))
    write("ktragc", "extremes", b"\0\1" + compute(speech(220, 30000), 20, bound=b"\7", volumes=b"\1" * 20) +
          compute(speech(220, 30000), 20, bound=b"\6", volumes=b"\1" + b"\x09" * 19) +
          compute(silence(220), 30, bound=b"\7", volumes=b"\2" + b"\x09" * 29))


if __name__ == "__main__":
    parameters()
    analyzer()
    agc()
    ktrvad()
    ktragc()
