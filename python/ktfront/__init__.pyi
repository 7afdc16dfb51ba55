"""ktfront: voice activity detection with a volume meter, and automatic gain control."""
import os
from typing import Callable, List, Literal, Optional, Tuple, Union

import numpy as np
import numpy.typing as npt

Block = Union[npt.NDArray[np.int16], bytes, bytearray, memoryview]

class Event:
    """A speech analyzer event: a segment starts or ends."""
    type: Literal["event"]
    tag: Literal["SpeechStart", "SpeechEnd", "AboveVOR", "BelowVOR"]
    time_ms: float

class Volume:
    """A volume reading over one block's whole frames."""
    type: Literal["volume"]
    time_ms: float
    volume_dbfs: float
    volume: float
    snr_volume_pct: float
    info: Literal["OK", "TooNoisy", "TooSoft", "TooLoud"]
    is_speech_state: bool

class Frame:
    """One frame as decided; levels are None for the short last frame of a flush."""
    type: Literal["frame"]
    frame_index: int
    time_ms: float
    is_speech: bool
    samples: Optional[npt.NDArray[np.int16]]
    energy: Optional[float]
    speech_start_threshold: Optional[float]
    speech_end_threshold: Optional[float]
    noise_level: Optional[float]
    speech_level: Optional[float]

class FrameDecision:
    """What the on_frame callback is given for each decided frame."""
    frame_index: int
    energy: float
    speech_start_threshold: float
    speech_end_threshold: float
    noise_level: Optional[float]
    speech_level: Optional[float]
    is_speech: bool

Result = Union[Event, Volume, Frame]

class Analyzer:
    """Voice activity detector with a volume meter; the GIL is released while it works."""
    eos_timeout_ms: int
    samples_per_frame: int
    frame_ms: float
    def __init__(self, rate: float, params: str = "", frame_data: bool = False,
                 on_frame: Optional[Callable[[FrameDecision], object]] = None) -> None: ...
    def process(self, block: Block) -> List[Result]: ...
    def flush(self) -> List[Result]: ...
    def reset(self) -> None: ...
    def update_parameters(self, params: str) -> None: ...
    @staticmethod
    def parameter_keys() -> List[str]: ...

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
    outcome: Literal["toolow", "toohigh", "speech", "pause", "nil"]
    outcome_time_ms: int
    stepped: bool
    new_gain: float

class GainControl:
    """Automatic gain control: the gain to set next from each recorded block."""
    median_gain: float
    last_decision: Optional[GainDecision]
    def __init__(self, rate: int, params: str = "") -> None: ...
    def compute_gain(self, block: Block, gain: float) -> float: ...
    def compute_gain_u16(self, block: Block, gain: int) -> int: ...
    def reset(self) -> None: ...
    @staticmethod
    def parameter_keys() -> List[str]: ...

def load(path: Union[str, os.PathLike], raw_rate: int = 0) -> Tuple[npt.NDArray[np.int16], int]: ...
def segments(samples: Block, rate: int, params: str = "",
             block_ms: int = 20) -> List[Tuple[float, float]]: ...
def segments_with_volume(samples: Block, rate: int, params: str = "", block_ms: int = 20
                         ) -> List[Tuple[float, float, Optional[float], Optional[float]]]: ...
