"""ktfront: voice activity detection with a volume meter, and automatic gain control.

Analyzer and GainControl run the library's two services block by block; load, segments,
frames, regions and iter_segments read audio and find speech exactly as the ktfront tool
does; Regions finds speech regions in a live stream; write_labels writes label files.
ktfront.corpus segments many files on a Dask cluster.

Every function here is a plain Python function of this package, so Dask ships it by
reference; every result type pickles and compares by value.
"""
import errno
import os
from typing import Iterable, Iterator, List, Optional, Tuple, Union

from . import _ktfront
from ._ktfront import Analyzer, GainControl, Resampler
from ._results import Event, Frame, FrameDecision, GainDecision, Region, Segment, Volume
from ._stream import Regions

__version__ = "0.9.0"

__all__ = ["Analyzer", "Event", "Frame", "FrameDecision", "GainControl", "GainDecision", "Region",
           "Regions", "Resampler", "Result", "Segment", "Volume", "check_params", "frames", "iter_segments",
           "load", "regions", "segments", "segments_with_volume", "write_labels", "__version__"]

Result = Union[Event, Volume, Frame]


def _existing(path) -> str:
    """The path as a string; FileNotFoundError (and the other OSErrors) with errno for one
    that cannot be opened, IsADirectoryError for a directory."""
    name = os.fsdecode(path)
    if name != "-":
        os.stat(name)  # raises FileNotFoundError, PermissionError... with errno and filename
        if os.path.isdir(name):
            raise IsADirectoryError(errno.EISDIR, os.strerror(errno.EISDIR), name)
    return name


def load(path, raw_rate: int = 0):
    """Reads an audio file as the ktfront tool does: decoded by libsndfile, mixed down to mono
    and resampled by libsoxr to the highest supported rate not above the file's. raw_rate > 0
    reads headerless 16-bit little-endian mono at that rate. Returns (int16 samples, rate).

    A missing file is FileNotFoundError (errno set); one that cannot be decoded is OSError
    with the tool's message.
    """
    return _ktfront.load(_existing(path), raw_rate)


def segments(samples, rate: float, params: str = "", block_ms: int = 20) -> List[Tuple[float, float]]:
    """The speech segments [(start_s, end_s), ...] that ``ktfront vad`` prints for this audio.

    samples: int16, float32 or float64 (full scale -1..1), 1-D or 2-D frames x channels, at
    any rate of at least 8000 Hz: mixed down and resampled as the tool reads a file.
    """
    return _ktfront.segments(samples, rate, params, block_ms)


def segments_with_volume(samples, rate: float, params: str = "",
                         block_ms: int = 20) -> List[Tuple[float, float, Optional[float], Optional[float]]]:
    """The segments of segments() from the same one run, each with the volume readings dated
    inside it: [(start_s, end_s, peak_dbfs, mean_snr_volume_pct), ...], the last two None
    without readings."""
    return _ktfront.segments_with_volume(samples, rate, params, block_ms)


def frames(samples, rate: float, params: str = "", block_ms: int = 20) -> List[Frame]:
    """Every frame of the audio (as for segments) with its start time_ms, its speech flag
    is_speech and the levels it was decided by, in blocks of block_ms as the tool cuts them."""
    mono, analysis = _ktfront.prepare(samples, rate)
    analyzer = Analyzer(analysis, params)
    step = max(1, block_ms * analysis // 1000)
    out: List[Frame] = []
    for at in range(0, len(mono), step):
        out += [r for r in analyzer.process(mono[at:at + step]) if isinstance(r, Frame)]
    return out + [r for r in analyzer.flush() if isinstance(r, Frame)]


def regions(samples, rate: float, params: str = "", block_ms: int = 20, *, min_duration: float = 0.0,
            max_duration: Optional[float] = None, max_silence: float = 0.0,
            keep_samples: bool = False) -> List[Region]:
    """The speech regions of the audio (as for segments), post-processed as Regions does."""
    mono, analysis = _ktfront.prepare(samples, rate)
    finder = Regions(analysis, params, min_duration=min_duration, max_duration=max_duration,
                     max_silence=max_silence, keep_samples=keep_samples)
    step = max(1, block_ms * analysis // 1000)
    out: List[Region] = []
    for at in range(0, len(mono), step):
        out += finder.process(mono[at:at + step])
    return out + finder.flush()


def iter_segments(path, params: str = "", block_ms: int = 20, volume: bool = False,
                  raw_rate: int = 0) -> Iterator[Union[Segment, Volume]]:
    """Yields the Segments of a file as ``ktfront vad`` finds them (and, with volume=True, the
    Volume readings, in stream order), reading it chunk by chunk: memory stays small whatever
    the file's length. Errors as for load; the parameter string is checked as segments checks
    it, before reading."""
    yield from _read_records(path, params, block_ms, volume, raw_rate)


def _read_records(path, params, block_ms, volume, raw_rate=0, events=False, warn=True):
    """A file's records chunk by chunk (events: the analyzer's events too; warn: the parameter
    string's warnings, which a corpus gives once for all its files)."""
    stream = _ktfront._FileStream(_existing(path), raw_rate, params, block_ms, volume, events, warn)
    while (records := stream.read()) is not None:
        yield from records


def check_params(params: str, service: str = "analyzer", rate: int = 16000) -> List[str]:
    """Checks a parameter string as the ktfront tool does: ValueError ("invalid parameter
    string ...: Value out of range") for one the service refuses at this rate; returns the
    warnings for keys the service does not read (a misspelt key would do nothing)."""
    return _ktfront.check_params(params, service, rate)


def write_labels(found: Iterable[Union[Region, Segment, Tuple[float, float]]], path=None, format: str = "plain",
                 file_id: str = "", duration: Optional[float] = None) -> str:
    """Writes regions (Region, Segment or (start_s, end_s)) as the tool's label writers do:
    format "plain", "audacity", "rttm", "textgrid" or "json"; file_id names the recording
    in RTTM (by default the stem of path, as the tool names a recording); duration (default:
    the last end) is the TextGrid's length. Returns the text, and writes it to path when given."""
    if format == "rttm" and not file_id:
        if path is None:
            raise ValueError("write_labels: an RTTM line names its recording: give file_id or path")
        file_id = _ktfront.recording_id(os.fspath(path))
    pairs = [(r.start, r.end) if isinstance(r, (Region, Segment)) else (float(r[0]), float(r[1])) for r in found]
    if duration is None:
        duration = max((e for _, e in pairs), default=0.0)
    text = _ktfront.label_text(pairs, format, file_id, duration)
    if path is not None:
        with open(path, "w") as f:
            f.write(text)
    return text
