"""ktfront: voice activity detection with a volume meter, and automatic gain control."""
import os
from dataclasses import dataclass
from typing import Any, Callable, ClassVar, NoReturn, Iterable, Iterator, List, Literal, Optional, Tuple, Union

import numpy as np
import numpy.typing as npt

__version__: str

_Audio = Union[npt.NDArray[np.int16], npt.NDArray[np.float32], npt.NDArray[np.float64], bytes, bytearray, memoryview]
_Samples = npt.NDArray[np.int16]
_Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]

@dataclass(frozen=True)
class Event:
    type: ClassVar[Literal["event"]]
    tag: Literal["SpeechStart", "SpeechEnd", "AboveVOR", "BelowVOR"]
    time_ms: float

@dataclass(frozen=True)
class Volume:
    type: ClassVar[Literal["volume"]]
    time_ms: float
    volume_dbfs: float
    volume: float
    snr_volume_pct: float
    info: Literal["OK", "TooNoisy", "TooSoft", "TooLoud"]
    is_speech_state: bool

@dataclass(frozen=True, eq=False)
class Frame:
    type: ClassVar[Literal["frame"]]
    frame_index: int
    time_ms: float
    is_speech: bool
    samples: Optional[_Samples]
    energy: Optional[float]
    speech_start_threshold: Optional[float]
    speech_end_threshold: Optional[float]
    noise_level: Optional[float]
    speech_level: Optional[float]
    def __eq__(self, other: object) -> bool: ...
    __hash__: ClassVar[None]  # type: ignore[assignment]

@dataclass(frozen=True)
class FrameDecision:
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
    time_ms: int
    current_gain: float
    lower_level: float
    lower_level2: float
    upper_level2: float
    upper_level: float
    clipping_fraction: float
    num_levels: int
    outcome: Literal["toolow", "toohigh", "speech", "pause", "nil"]
    outcome_time_ms: int
    stepped: bool
    new_gain: float

@dataclass(frozen=True)
class Segment:
    type: ClassVar[Literal["segment"]]
    start: float
    end: float
    open: bool = False

@dataclass(frozen=True, eq=False)
class Region:
    start: float
    end: float
    samples: Optional[_Samples] = None
    @property
    def duration(self) -> float: ...
    def __eq__(self, other: object) -> bool: ...
    __hash__: ClassVar[None]  # type: ignore[assignment]

Result = Union[Event, Volume, Frame]

class Analyzer:
    def __reduce_ex__(self, protocol: Any) -> NoReturn: ...
    def __copy__(self) -> NoReturn: ...
    def __deepcopy__(self, memo: Any) -> NoReturn: ...
    eos_timeout_ms: int
    @property
    def samples_per_frame(self) -> int: ...
    @property
    def frame_ms(self) -> float: ...
    def __init__(self, rate: float, params: str = "", frame_data: bool = False,
                 on_frame: Optional[Callable[[FrameDecision], object]] = None) -> None: ...
    def process(self, block: _Audio) -> List[Result]: ...
    def flush(self) -> List[Result]: ...
    def reset(self) -> None: ...
    def update_parameters(self, params: str) -> None: ...
    @staticmethod
    def parameter_keys() -> List[str]: ...

class GainControl:
    def __reduce_ex__(self, protocol: Any) -> NoReturn: ...
    def __copy__(self) -> NoReturn: ...
    def __deepcopy__(self, memo: Any) -> NoReturn: ...
    @property
    def median_gain(self) -> float: ...
    @property
    def last_decision(self) -> Optional[GainDecision]: ...
    def __init__(self, rate: float, params: str = "") -> None: ...
    def compute_gain(self, block: _Audio, gain: float) -> float: ...
    def compute_gain_u16(self, block: _Audio, gain: int) -> int: ...
    def reset(self) -> None: ...
    @staticmethod
    def parameter_keys() -> List[str]: ...

class Resampler:
    def __reduce_ex__(self, protocol: Any) -> NoReturn: ...
    def __copy__(self) -> NoReturn: ...
    def __deepcopy__(self, memo: Any) -> NoReturn: ...
    @property
    def rate(self) -> int: ...
    @property
    def to_rate(self) -> int: ...
    def __init__(self, rate: float, to_rate: int = 0) -> None: ...
    def process(self, block: _Audio) -> _Samples: ...
    def flush(self) -> _Samples: ...

class Regions:
    def __reduce_ex__(self, protocol: Any) -> NoReturn: ...
    rate: int
    def __init__(self, rate: float, params: str = "", *, min_duration: float = 0.0,
                 max_duration: Optional[float] = None, max_silence: float = 0.0,
                 keep_samples: bool = False) -> None: ...
    def process(self, block: _Audio) -> List[Region]: ...
    def flush(self) -> List[Region]: ...

def load(path: _Path, raw_rate: int = 0) -> Tuple[_Samples, int]: ...
def segments(samples: _Audio, rate: float, params: str = "", block_ms: int = 20) -> List[Tuple[float, float]]: ...
def segments_with_volume(samples: _Audio, rate: float, params: str = "", block_ms: int = 20
                         ) -> List[Tuple[float, float, Optional[float], Optional[float]]]: ...
def frames(samples: _Audio, rate: float, params: str = "", block_ms: int = 20) -> List[Frame]: ...
def regions(samples: _Audio, rate: float, params: str = "", block_ms: int = 20, *, min_duration: float = 0.0,
            max_duration: Optional[float] = None, max_silence: float = 0.0,
            keep_samples: bool = False) -> List[Region]: ...
def iter_segments(path: _Path, params: str = "", block_ms: int = 20, volume: bool = False,
                  raw_rate: int = 0) -> Iterator[Union[Segment, Volume]]: ...
def check_params(params: str, service: Literal["analyzer", "gain_control"] = "analyzer",
                 rate: int = 16000) -> List[str]: ...
def write_labels(found: Iterable[Union[Region, Segment, Tuple[float, float]]], path: Optional[_Path] = None,
                 format: Literal["plain", "audacity", "rttm", "textgrid", "json"] = "plain", file_id: str = "",
                 duration: Optional[float] = None) -> str: ...
