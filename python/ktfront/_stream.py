"""Speech regions from a stream of blocks, with the post-processing the analyzer has no key for."""
from typing import List, Optional, Tuple

import numpy as np

from ._ktfront import MAX_LOOK_BACK_FRAMES, Analyzer, Resampler
from ._results import Event, Region

# How far before the block that reports it a segment's start can lie: the frames a
# decision looks back over, the decided frame and its look-ahead (20 ms each).
LOOK_BACK_S = (MAX_LOOK_BACK_FRAMES + 2) * 0.02


class Regions:
    """Speech regions from blocks as they arrive (a microphone callback), at any rate.

    Times are seconds since the first sample and keep counting across flush(). Regions are
    post-processed in this order: those separated by at most max_silence seconds are joined;
    those shorter than min_duration are dropped; those longer than max_duration are cut into
    pieces of max_duration (the last one shorter). With keep_samples, each Region carries its
    int16 samples at the analysis rate (self.rate). Not picklable: create one per stream.
    """

    def __init__(self, rate: float, params: str = "", *, min_duration: float = 0.0,
                 max_duration: Optional[float] = None, max_silence: float = 0.0,
                 keep_samples: bool = False) -> None:
        if not min_duration >= 0 or not max_silence >= 0:
            raise ValueError("min_duration and max_silence must be at least 0")
        if max_duration is not None and not max_duration > 0:
            raise ValueError("max_duration must be above 0 (or None)")
        self._resampler = Resampler(rate)
        self.rate: int = self._resampler.to_rate
        self._analyzer = Analyzer(self.rate, params)
        self._min, self._max, self._silence = min_duration, max_duration, max_silence
        self._keep = keep_samples
        self._base = 0   # samples before the last flush
        self._fed = 0    # samples since
        self._open: Optional[float] = None              # start of a segment not ended yet
        self._held: Optional[Tuple[float, float]] = None  # waiting for a later one to join it
        self._kept = np.zeros(0, np.int16)
        self._kept_at = 0  # sample index of _kept[0]

    def __reduce_ex__(self, protocol):
        raise TypeError("ktfront.Regions holds a running analysis and cannot be pickled or copied: "
                        "create one where it is used")

    def process(self, block) -> List[Region]:
        """The regions the block completes: a block as for Analyzer.process, at the rate given."""
        mono = self._resampler.process(block)
        return self._take(mono, self._analyzer.process(mono), end=False)

    def flush(self) -> List[Region]:
        """Ends the utterance: the regions still open or held. Times go on counting."""
        mono = self._resampler.flush()
        results = self._analyzer.process(mono) if len(mono) else []
        return self._take(mono, results + self._analyzer.flush(), end=True)

    def _take(self, mono, results, end: bool) -> List[Region]:
        if self._keep:
            self._kept = np.concatenate([self._kept, mono])
        block_start = (self._base + self._fed) / self.rate
        self._fed += len(mono)
        base_s = self._base / self.rate
        out: List[Region] = []
        for r in results:
            if not isinstance(r, Event):
                continue
            t = base_s + r.time_ms / 1000
            if r.tag == "SpeechStart":
                self._open = t
                if self._held is not None and t - self._held[1] > self._silence:
                    out += self._release()
            elif r.tag == "SpeechEnd" and self._open is not None:
                out += self._found(self._open, t)
                self._open = None
        if end:
            if self._open is not None:  # the analyzer closes a segment at a flush: this is a safety net
                out += self._found(self._open, (self._base + self._fed) / self.rate)
                self._open = None
            out += self._release()
            self._base += self._fed
            self._fed = 0
        elif self._held is not None and self._open is None and \
                block_start - LOOK_BACK_S - self._held[1] > self._silence:
            out += self._release()  # no later start can come close enough to join it
        if self._keep:
            self._trim(block_start)
        return out

    def _found(self, start: float, end: float) -> List[Region]:
        if self._silence == 0:
            self._held = (start, end)
            return self._release()
        if self._held is not None and start - self._held[1] <= self._silence:
            self._held = (self._held[0], end)
            return []
        out = self._release()
        self._held = (start, end)
        return out

    def _release(self) -> List[Region]:
        if self._held is None:
            return []
        start, end = self._held
        self._held = None
        if end - start < self._min:
            return []
        pieces = [(start, end)]
        if self._max is not None and end - start > self._max:
            count = int(np.ceil((end - start) / self._max))
            pieces = [(start + i * self._max, min(end, start + (i + 1) * self._max)) for i in range(count)]
        return [Region(s, e, self._slice(s, e) if self._keep else None) for s, e in pieces]

    def _slice(self, start: float, end: float) -> np.ndarray:
        a = max(0, round(start * self.rate) - self._kept_at)
        b = max(a, round(end * self.rate) - self._kept_at)
        return self._kept[a:b].copy()

    def _trim(self, block_start: float) -> None:
        """Drops samples no region can reach back to any more."""
        keep_from = block_start - LOOK_BACK_S - 0.1
        for t in (self._open, self._held[0] if self._held else None):
            if t is not None:
                keep_from = min(keep_from, t)
        drop = int(keep_from * self.rate) - self._kept_at
        if drop > len(self._kept) // 2 and drop > 0:  # trimmed in large steps: each trim copies
            self._kept = self._kept[drop:].copy()
            self._kept_at += drop
