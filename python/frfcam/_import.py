"""Recordings into captures: what `frfcam import` does."""
from __future__ import annotations

from typing import Optional, Sequence

import numpy as np

from . import _native
from ._cube import Capture, PathLike, fspath


def import_video(source: PathLike, out_hdr: PathLike, frames: Optional[Sequence[int]] = None,
                 roi: Optional[Sequence[int]] = None, fps: Optional[float] = None,
                 bits: Optional[int] = None) -> Capture:
    """Imports a recording into a capture and returns it, opened.

    source: MRAW with its CIH/CIHX header, CINE, a multipage TIFF or a
    folder of numbered TIFFs or PNGs, or any video FFmpeg decodes.
    frames=(first, last) takes a range (0-based, inclusive); roi=(x, y, w, h)
    a region; fps sets the frame rate (image sequences carry none); bits
    (8 or 12) the capture's depth, by default 8 for 8-bit sources and 12
    otherwise, the source's significant bits shifted, never clipped.

    Raises FileNotFoundError for a missing source, ValueError for options the
    source cannot meet, RuntimeError for a file that cannot be read and
    KeyboardInterrupt on Ctrl-C; no capture is left behind on failure.
    """
    first, last = 0, -1
    if frames is not None:
        try:
            first, last = (int(v) for v in frames)
        except (TypeError, ValueError):
            raise ValueError(f"frames must be a pair (first, last), got {frames!r}") from None
        if first < 0 or last < first:
            raise ValueError(f"frames {frames!r}: needs 0 <= first <= last")
    region = None
    if roi is not None:
        try:
            region = [int(v) for v in roi]
        except (TypeError, ValueError):
            region = []
        if len(region) != 4 or min(region) < 0 or region[2] == 0 or region[3] == 0:
            raise ValueError(f"roi must be (x, y, width, height) with width, height > 0, got {roi!r}")
    if fps is not None and not (np.isfinite(fps) and fps > 0):
        raise ValueError(f"fps must be a positive number, got {fps!r}")
    if bits not in (None, 8, 12):
        raise ValueError(f"bits must be 8 or 12, got {bits!r}")
    header = fspath(out_hdr, "capture path")
    _native.import_video(fspath(source, "source path"), header, first, last, region,
                         0.0 if fps is None else float(fps), 0 if bits is None else bits)
    return Capture.open(header)
