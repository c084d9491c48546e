"""Captures and their cubes: render, then read maps, planes and spectra."""
from __future__ import annotations

import operator
import os
from typing import Any, Callable, Optional, Union

import numpy as np
import numpy.typing as npt

from . import _native

PathLike = Union[str, "os.PathLike[str]"]
Progress = Union[Callable[[int], Any], Any, None]

RenderCancelled = _native.RenderCancelled


def fspath(path: Any, what: str = "path") -> str:
    """A text path from str or os.PathLike[str]; bytes paths are refused."""
    try:
        p = os.fspath(path)
    except TypeError:
        raise ValueError(f"{what} must be a str or os.PathLike, not {type(path).__name__}") from None
    if isinstance(p, bytes):
        raise ValueError(f"{what} must be text, not bytes: decode it with os.fsdecode()")
    return p


def _bin_index(value: Any) -> int:
    """An integer bin; floats (even whole ones) are refused, as they are
    usually frequencies given in the wrong place."""
    if isinstance(value, (bool, np.bool_)):
        raise ValueError("bin must be an integer, not a bool")
    try:
        return operator.index(value)
    except TypeError:
        raise ValueError(
            f"bin must be an integer, not {type(value).__name__} {value!r} "
            "(use freq= for a frequency in Hz)") from None


def _progress_function(progress: Progress) -> Optional[Callable[[int], Any]]:
    """A function of the whole percentage from a callable or a tqdm-like
    object (one with update(n)), which is advanced by the percentage points
    gained since the last call."""
    if progress is None:
        return None
    update = getattr(progress, "update", None)
    if callable(update) and not isinstance(progress, type):
        if getattr(progress, "total", 100) is None:
            progress.total = 100
        last = [0]

        def advance(percent: int) -> None:
            if percent > last[0]:
                update(percent - last[0])
                last[0] = percent
        return advance
    if callable(progress):
        return progress
    raise ValueError("progress must be a callable taking the percentage, or have update(n)")


class Capture:
    """A capture on disk: its header file and the frame data beside it.

    Open with Capture.open(path); `cube()` gives the cube to render and read.
    """

    def __init__(self, native: "_native.Cube", fps: Optional[float]) -> None:
        self._native = native
        self._fps = fps
        self._cube: Optional[Cube] = None

    @classmethod
    def open(cls, path: PathLike, fps: Optional[float] = None,
             work_dir: Optional[PathLike] = None) -> "Capture":
        """Opens the capture whose header file is `path`, or the capture of
        a recording (camera files, an image folder, a video): imported once
        into PATH.frfcam/ beside it (or below work_dir) and reused while the
        recording is unchanged, as the command line does.

        fps overrides the frame rate of the header (the frequency axis needs
        one). Raises FileNotFoundError for a missing file, ValueError for a
        file that is not a capture that can be rendered and RuntimeError for
        a recording that cannot be read.
        """
        if fps is not None and not (np.isfinite(fps) and fps > 0):
            raise ValueError(f"fps must be a positive number, got {fps!r}")
        where = fspath(path, "capture path")
        if _native.is_source(where):
            where = _native.capture_of_source(
                where, "" if work_dir is None else fspath(work_dir, "work_dir"))
        return cls(_native.Cube(where), fps)

    @property
    def path(self) -> str:
        return self._native.header_path

    @property
    def width(self) -> int:
        return self._native.width

    @property
    def height(self) -> int:
        return self._native.height

    @property
    def frames(self) -> int:
        return self._native.frames

    @property
    def fps(self) -> Optional[float]:
        """Frame rate in Hz: the one given to open(), else the header's
        (None when neither holds one)."""
        if self._fps is not None:
            return float(self._fps)
        value = self._native.header_fps
        return float(value) if np.isfinite(value) and value > 0 else None

    def cube(self) -> "Cube":
        """The capture's cube (rendered or not; see Cube.rendered); the same
        object on every call."""
        if self._cube is None:
            self._cube = Cube(self)
        return self._cube

    def __repr__(self) -> str:
        return (f"Capture({self.path!r}, {self.width}x{self.height}, {self.frames} frames, "
                f"fps={self.fps})")


class Cube:
    """The per-pixel spectra of a capture: render() writes them to the cube
    files beside the capture; plane(), spectrum() and map() read them back.

    Reads of a cube that is not rendered (or whose render was interrupted)
    raise RuntimeError; they never return zeros.
    """

    def __init__(self, capture: Capture) -> None:
        self.capture = capture
        self._native = capture._native
        self._signal: Optional[npt.NDArray[np.float32]] = None

    @property
    def shape(self) -> tuple:
        """(height, width) of every plane."""
        return (self._native.height, self._native.width)

    @property
    def bins(self) -> int:
        return self._native.bins

    @property
    def frequencies(self) -> npt.NDArray[np.float64]:
        """Frequency of each bin in Hz (bin k is k * fps / frames). Raises
        ValueError when the capture has no frame rate (Capture.open(fps=))."""
        fps = self._fps_or_raise()
        return np.arange(self.bins, dtype=np.float64) * (fps / self.capture.frames)

    @property
    def rendered(self) -> bool:
        """True when the cube files hold a complete render."""
        return self._native.rendered

    def render(self, progress: Progress = None) -> None:
        """Renders the cube files (replacing older ones).

        progress: called with each whole percentage (0..100), or a tqdm-like
        object advanced with update(). It runs on this thread. An exception it
        raises cancels the render and is raised here; so does Ctrl-C
        (KeyboardInterrupt). cancel() from another thread raises
        RenderCancelled. Either way the cube is left incomplete.
        """
        self._native.render(_progress_function(progress))

    def cancel(self) -> None:
        """Asks a render running on another thread to stop."""
        self._native.cancel()

    def bin_of(self, freq: float) -> int:
        """The bin nearest to `freq` Hz; ValueError outside 0..Nyquist."""
        f = float(freq)
        fps = self._fps_or_raise()
        nyquist = fps / 2
        if not np.isfinite(f) or f < 0 or f > nyquist * (1 + 1e-12):
            raise ValueError(f"{freq!r} Hz is outside 0..{nyquist:g} Hz (Nyquist at {fps:g} fps)")
        return min(int(round(f * self.capture.frames / fps)), self.bins - 1)

    def set_reference(self, signal: Optional[npt.ArrayLike]) -> None:
        """Sets (or with None clears) the reference signal, one value per
        frame, against which maps and frf() are taken. ValueError for an
        all-zero signal; maps and frf() raise it at a bin where the
        reference's spectrum is zero."""
        if signal is None:
            self._native.clear_reference()
            self._signal = None
            return
        self._signal = self._reference_array(signal)
        self._native.set_reference(self._signal)

    def plane(self, bin: int) -> npt.NDArray[np.complex64]:
        """The cube's values at one bin: complex64 (height, width)."""
        return self._native.read_plane(self._bin(bin))

    def spectrum(self, x: int, y: int) -> npt.NDArray[np.complex64]:
        """One pixel's values at every bin: complex64 (bins,)."""
        return self._native.read_spectrum(_int(x, "x"), _int(y, "y"))

    def frf(self, bin: Optional[int] = None, freq: Optional[float] = None,
            reference: Optional[npt.ArrayLike] = None) -> npt.NDArray[np.complex64]:
        """The complex FRF map of one bin: the plane divided by the reference
        spectrum at that bin (the plane itself without a reference).
        np.abs() of it is what map() quantises; np.angle() is its phase."""
        k = self._choose_bin(bin, freq)
        plane = self.plane(k)
        r = self._reference_value(k, reference)
        return plane if r is None else (plane / r).astype(np.complex64)

    def map(self, bin: Optional[int] = None, freq: Optional[float] = None,
            gain: Optional[float] = None,
            reference: Optional[npt.ArrayLike] = None) -> npt.NDArray[np.uint8]:
        """The 8-bit FRF map of one bin (or the bin nearest `freq` Hz):
        uint8 (height, width), round(gain * |value / reference|) saturated.

        gain None scales the map so that its 99.5th percentile is 255
        (auto_gain()). reference: a signal for this map only; otherwise the
        one from set_reference() (if any) applies.
        """
        k = self._choose_bin(bin, freq)
        self._reference_value(k, reference)  # refuses a reference that is zero at k
        if reference is not None:
            g = None if gain is None else gain
            if g is None:
                g = self.auto_gain(k, reference=reference)
            self._native.set_reference(self._reference_array(reference))
            try:
                return self._map(k, g)
            finally:
                if self._signal is None:
                    self._native.clear_reference()
                else:
                    self._native.set_reference(self._signal)
        return self._map(k, gain)

    def auto_gain(self, bin: Optional[int] = None, freq: Optional[float] = None,
                  reference: Optional[npt.ArrayLike] = None) -> float:
        """The gain that maps the 99.5th percentile of the bin's magnitudes
        to 255; use one bin's gain for a set of maps to share a scale."""
        magnitudes = np.abs(self.frf(bin, freq, reference))
        level = float(np.quantile(magnitudes, 0.995))
        if not np.isfinite(level) or level <= 0:
            level = float(magnitudes.max())
        return 255.0 / level if np.isfinite(level) and level > 0 else 1.0

    # ---- helpers ------------------------------------------------------------

    def _map(self, k: int, gain: Optional[float]) -> npt.NDArray[np.uint8]:
        if gain is None:
            g = self.auto_gain(k)
        else:
            g = float(gain)
            if not np.isfinite(g):
                raise ValueError(f"gain must be finite, got {gain!r}")
        return self._native.read_map(k, g)

    def _reference_array(self, signal: npt.ArrayLike) -> npt.NDArray[np.float32]:
        a = np.asarray(signal)
        if a.ndim != 1 or a.size == 0:
            raise ValueError("the reference must be a non-empty 1-D signal, one value per frame")
        if np.iscomplexobj(a):
            raise ValueError("the reference is a time signal (real values), not a spectrum")
        if a.size != self.capture.frames:
            raise ValueError(f"the reference has {a.size} samples, the capture "
                             f"{self.capture.frames} frames")
        a = np.ascontiguousarray(a, dtype=np.float32)
        if not np.any(a):
            raise ValueError("the reference is all zeros: there is no excitation to divide by")
        return a

    def _reference_value(self, k: int, reference: Optional[npt.ArrayLike]) -> Optional[complex]:
        """The reference spectrum at bin k (None without a reference);
        ValueError where it is zero, since dividing by it gives inf or NaN.
        Zero is below the spectrum's peak by the float32 transform's own
        rounding (1e-6), so a line the signal does not excite counts."""
        if reference is not None:
            spectrum = _native.spectrum_of(self._reference_array(reference))
        elif self._native.has_reference:
            spectrum = self._native.reference_spectrum()
        else:
            return None
        peak = float(np.abs(spectrum).max()) if len(spectrum) else 0.0
        value = complex(spectrum[k]) if k < len(spectrum) else 0j
        if not abs(value) > 1e-6 * peak:
            raise ValueError(f"the reference spectrum is zero at bin {k} (|R| {abs(value):.3g}, "
                             f"its peak {peak:.3g}): the FRF is undefined there")
        return value

    def _choose_bin(self, bin: Optional[int], freq: Optional[float]) -> int:
        if (bin is None) == (freq is None):
            raise ValueError("give exactly one of bin= and freq=")
        return self._bin(bin) if bin is not None else self.bin_of(freq)

    def _bin(self, bin: Any) -> int:
        k = _bin_index(bin)
        if not 0 <= k < self.bins:
            raise ValueError(f"bin {k} is outside the cube's bins 0..{self.bins - 1}")
        return k

    def _fps_or_raise(self) -> float:
        fps = self.capture.fps
        if fps is None:
            raise ValueError(f"{self.capture.path}: the header holds no frame rate; "
                             "give one with Capture.open(path, fps=...)")
        return fps

    def __repr__(self) -> str:
        return (f"Cube({self.capture.path!r}, {self.shape[1]}x{self.shape[0]}, {self.bins} bins, "
                f"rendered={self.rendered})")


def _int(value: Any, what: str) -> int:
    try:
        return operator.index(value)
    except TypeError:
        raise ValueError(f"{what} must be an integer, not {type(value).__name__}") from None


def spectrum_of(signal: npt.ArrayLike) -> npt.NDArray[np.complex64]:
    """The DFT of a real signal scaled by 1/N, bins 0..N/2, as the cube holds
    its pixels' spectra (so a reference signal lines up with the cube)."""
    return _native.spectrum_of(np.ascontiguousarray(signal, dtype=np.float32))


def delete_cube(folder: PathLike) -> int:
    """Removes every cube file (.fft, with the cubes' completion records)
    below `folder`; returns how many. FileNotFoundError when the folder does
    not exist."""
    return _native.delete_cube(fspath(folder, "folder"))
