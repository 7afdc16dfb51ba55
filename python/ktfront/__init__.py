"""ktfront: voice activity detection with a volume meter, and automatic gain control.

Analyzer and GainControl run the library's two services over blocks of 16-bit mono
samples; load and segments read files and find speech exactly as the ktfront tool does.
ktfront.corpus segments many files on a Dask cluster.
"""
from ._ktfront import (Analyzer, Event, Frame, FrameDecision, GainControl, GainDecision,
                       Volume, load, segments, segments_with_volume)

__all__ = ["Analyzer", "Event", "Frame", "FrameDecision", "GainControl", "GainDecision",
           "Volume", "load", "segments", "segments_with_volume"]
