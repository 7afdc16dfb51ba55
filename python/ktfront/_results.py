"""The result types: plain frozen values that compare by value and pickle by reference to
this package, so that Dask workers can hand them back."""
from dataclasses import dataclass, fields
from typing import ClassVar, Optional

import numpy as np


def _same(a, b):
    """Field equality, with arrays compared element by element."""
    if isinstance(a, np.ndarray) or isinstance(b, np.ndarray):
        return isinstance(a, np.ndarray) and isinstance(b, np.ndarray) and np.array_equal(a, b)
    return a == b


class _ByValue:
    """Equality over every field, arrays included (dataclass equality would compare arrays as tuples)."""
    __slots__ = ()

    def __eq__(self, other):
        if type(other) is not type(self):
            return NotImplemented
        return all(_same(getattr(self, f.name), getattr(other, f.name)) for f in fields(self))

    __hash__ = None  # type: ignore[assignment]


@dataclass(frozen=True)
class Event:
    """A speech analyzer event: a segment starts or ends, or the volume crosses the VOR."""
    type: ClassVar[str] = "event"
    tag: str
    time_ms: float


@dataclass(frozen=True)
class Volume:
    """A volume reading over one block's whole frames."""
    type: ClassVar[str] = "volume"
    time_ms: float
    volume_dbfs: float
    volume: float
    snr_volume_pct: float
    info: str
    is_speech_state: bool


@dataclass(frozen=True, eq=False)
class Frame(_ByValue):
    """One frame as decided, with the levels it was decided by (None where not learnt, and
    all of them for the short last frame of a flush)."""
    type: ClassVar[str] = "frame"
    frame_index: int
    time_ms: float
    is_speech: bool
    samples: Optional[np.ndarray]
    energy: Optional[float]
    speech_start_threshold: Optional[float]
    speech_end_threshold: Optional[float]
    noise_level: Optional[float]
    speech_level: Optional[float]


@dataclass(frozen=True)
class FrameDecision:
    """What the on_frame callback is given as each frame is decided."""
    frame_index: int
    time_ms: float
    energy: float
    speech_start_threshold: float
    speech_end_threshold: float
    noise_level: Optional[float]
    speech_level: Optional[float]
    is_speech: bool


@dataclass(frozen=True)
class GainDecision:
    """One gain update of the gain control; levels in dB."""
    time_ms: int
    current_gain: float
    lower_level: float
    lower_level2: float
    upper_level2: float
    upper_level: float
    clipping_fraction: float
    num_levels: int
    outcome: str
    outcome_time_ms: int
    stepped: bool
    new_gain: float


@dataclass(frozen=True)
class Segment:
    """A speech segment of a file, in seconds, as ``ktfront vad`` prints it; open when the
    input ended inside it."""
    type: ClassVar[str] = "segment"
    start: float
    end: float
    open: bool = False


@dataclass(frozen=True, eq=False)
class Region(_ByValue):
    """A speech region in seconds since the first sample, after the post-processing asked
    for; samples (int16 at the analysis rate) when asked for."""
    start: float
    end: float
    samples: Optional[np.ndarray] = None

    @property
    def duration(self) -> float:
        return self.end - self.start


for _cls in (Event, Volume, Frame, FrameDecision, GainDecision, Segment, Region):
    _cls.__module__ = "ktfront"
