"""Natural frequencies, damping and full-field mode shapes of a capture: what
`frfcam modes` computes, as numpy arrays."""
from __future__ import annotations

import os
from dataclasses import dataclass
from typing import Any, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

from . import _native
from ._cube import Capture, PathLike, Progress, fspath
from ._reference import read_reference
from ._stability import CLASSES, _modes_at, _orders

CHART_DTYPE = np.dtype([("order", np.int32), ("class", "U1"), ("frequency", np.float64)])


@dataclass
class ModesResult:
    """What modes() gives; frequencies in Hz, damping as ratios (0.01 = 1 %).

    frequency_hz, damping_ratio, mpc: one value per mode, increasing
      frequency (mpc: modal phase collinearity of the shape, 0..1).
    kind: 'displacement' when the structure was seen to move (the shapes
      are then measured as displacement too), 'brightness' when the
      brightness changes in place.
    shapes: complex64 (modes, H, W), each pixel's brightness residue; 0
      where the fit was not trusted (noise, static background).
    displacement: for kind 'displacement', complex64 (modes, 2, H, W): [k, 0]
      is mode k's x displacement (columns, positive right), [k, 1] its y
      (rows, positive down), in pixels per reference unit (mm with scale=)
      as the mode alone contributes at its natural frequency; NaN where the
      window around the pixel cannot see that component. None otherwise.
    mean_image: float32 (H, W), the mean frame.
    motion_share: the share of the brightness change above the noise that
      motion explains (0..1); 'auto' picks displacement from 0.5 up.
    chart: structured array, one row per pole of every classified order,
      fields order, class ('s', 'f', 'd', 'o'), frequency.
    line_hz, sum_magnitude: the band's lines and the summed |H| over the
      pole-fit pixels behind the chart.
    stride, grid_pixels, channels: the pole-fit grid, and how many of its
      pixels were above the noise.
    """

    frequency_hz: npt.NDArray[np.float64]
    damping_ratio: npt.NDArray[np.float64]
    mpc: npt.NDArray[np.float64]
    shapes: npt.NDArray[np.complex64]
    kind: str
    displacement: Optional[npt.NDArray[np.complex64]]
    mean_image: npt.NDArray[np.float32]
    motion_share: float
    chart: np.ndarray
    line_hz: npt.NDArray[np.float64]
    sum_magnitude: npt.NDArray[np.float64]
    stride: int
    grid_pixels: int
    channels: int

    @property
    def count(self) -> int:
        return int(self.frequency_hz.size)

    def __repr__(self) -> str:
        h, w = np.shape(self.mean_image)[-2:]
        return (f"ModesResult({_modes_at(self.frequency_hz)}; {self.kind} shapes {w}x{h}; "
                f"{self.channels} of {self.grid_pixels} grid pixels above the noise)")


def _reference(reference: Union[PathLike, npt.ArrayLike], frames: int,
               fps: float) -> npt.NDArray[np.float32]:
    if isinstance(reference, (str, os.PathLike)):
        a = read_reference(reference, fps=fps)
    else:
        a = np.asarray(reference)
    if a.ndim != 1 or a.size == 0:
        raise ValueError("the reference must be a non-empty 1-D signal, one value per frame")
    if np.iscomplexobj(a) or not np.issubdtype(a.dtype, np.number):
        raise ValueError("the reference is a time signal of real numbers")
    if a.size != frames:
        raise ValueError(f"the reference has {a.size} samples, the capture {frames} frames")
    if not np.all(np.isfinite(a)):
        raise ValueError("the reference holds NaN or infinite values")
    if not np.any(a):
        raise ValueError("the reference is all zeros: there is no excitation to divide by")
    return np.ascontiguousarray(a, dtype=np.float32)


def _band(band: Optional[Sequence[float]]) -> Tuple[float, float]:
    if band is None:
        return 0.0, 0.0
    try:
        low, high = (float(v) for v in band)
    except (TypeError, ValueError):
        raise ValueError(f"band must be a pair (low_hz, high_hz), got {band!r}") from None
    if not (0 <= low < high) or not np.isfinite(high):
        raise ValueError(f"band {band!r}: needs 0 <= low < high (Hz)")
    return low, high


def _positive_int(value: Optional[int], what: str) -> int:
    if value is None:
        return 0
    if isinstance(value, bool) or int(value) != value or value < 1:
        raise ValueError(f"{what} must be a positive integer, got {value!r}")
    return int(value)


def modes(capture: Union[Capture, PathLike], reference: Union[PathLike, npt.ArrayLike], *,
          fps: Optional[float] = None, band: Optional[Sequence[float]] = None,
          orders: Sequence[int] = (2, 40), stride: Optional[int] = None,
          min_stable: Optional[int] = None, shapes: str = "auto",
          scale: Optional[float] = None, progress: Progress = None) -> ModesResult:
    """Natural frequencies, damping ratios and full-field mode shapes of a
    capture (the same computation as `frfcam modes`).

    capture: a Capture or the path of its header. reference: the excitation,
    one value per frame, as an array or a text file (read_reference()).
    fps overrides the header's frame rate; band (low_hz, high_hz) limits the
    lines (default: every bin above 0); orders (low, high) is the model order
    range; stride is the grid step of the pole-fit pixels (default: at least
    10000 pixels); min_stable the orders a pole must recur in. shapes is
    'displacement', 'brightness' or 'auto' (decided from the data); scale
    (mm per pixel) gives the displacement in millimetres.

    The cube is rendered first when it is missing or incomplete, reporting to
    `progress` as Cube.render() does. Raises FileNotFoundError for a missing
    capture or reference file, ValueError for unusable input and RuntimeError
    when the computation fails (e.g. no pixel responds above the noise).
    """
    if not isinstance(capture, Capture):
        capture = Capture.open(fspath(capture, "capture path"), fps)
    rate = float(fps) if fps is not None else capture.fps
    if rate is None or not (np.isfinite(rate) and rate > 0):
        raise ValueError(f"{capture.path}: no frame rate (the header holds none); give fps=")
    low, high = _orders(orders)
    if low < 1 or high <= low or high > 200:
        raise ValueError(f"orders {orders!r}: needs whole numbers 1 <= low < high <= 200")
    band_lo, band_hi = _band(band)
    signal = _reference(reference, capture.frames, rate)
    step = _positive_int(stride, "stride")
    stable = _positive_int(min_stable, "min_stable")
    if shapes not in ("auto", "displacement", "brightness"):
        raise ValueError(f"shapes must be 'auto', 'displacement' or 'brightness', got {shapes!r}")
    if scale is not None and not (np.isfinite(scale) and scale > 0):
        raise ValueError(f"scale must be a positive number of mm per pixel, got {scale!r}")

    cube = capture.cube()
    if not cube.rendered:
        cube.render(progress)
    raw = _native.compute_modes(capture.path, signal, rate, band_lo, band_hi, low, high, step,
                                stable, shapes)
    displacement = raw["displacement"]
    if displacement is not None and scale is not None:
        displacement = displacement * np.float32(scale)
    chart = np.empty(raw["chart_order"].size, dtype=CHART_DTYPE)
    chart["order"] = raw["chart_order"]
    chart["class"] = np.array(CLASSES)[raw["chart_class"]] if chart.size else []
    chart["frequency"] = raw["chart_frequency"]
    return ModesResult(
        frequency_hz=raw["frequency_hz"], damping_ratio=raw["damping_ratio"], mpc=raw["mpc"],
        shapes=raw["shapes"], kind=str(raw["kind"]), displacement=displacement,
        mean_image=raw["mean_image"], motion_share=float(raw["motion_share"]), chart=chart, line_hz=raw["line_hz"],
        sum_magnitude=raw["sum_magnitude"], stride=int(raw["stride"]),
        grid_pixels=int(raw["grid_pixels"]), channels=int(raw["channels"]))
