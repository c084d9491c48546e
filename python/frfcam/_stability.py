"""Modal stability analysis of measured FRFs, and its stabilisation chart."""
from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Optional, Sequence, Tuple

import numpy as np
import numpy.typing as npt

from . import _native
from ._cube import PathLike, fspath

#: Pole classes of the chart, in the order of their codes in `chart["class"]`:
#: s stable in frequency and damping, f in frequency only, d in damping only,
#: o neither (against the order below).
CLASSES = ("s", "f", "d", "o")

CHART_DTYPE = np.dtype([("order", np.int32), ("class", "U1"), ("frequency", np.float64),
                        ("damping", np.float64)])


def _modes_at(frequency_hz: np.ndarray, shown: int = 4) -> str:
    """'3 modes at 37.1, 62.4, 120 Hz', the list cut short after `shown`."""
    f = np.asarray(frequency_hz).ravel()
    if f.size == 0:
        return "no modes"
    listed = ", ".join(f"{v:.4g}" for v in f[:shown]) + (", ..." if f.size > shown else "")
    return f"{f.size} mode{'s' if f.size != 1 else ''} at {listed} Hz"


@dataclass
class StabilityResult:
    """What compute_stability() (or read_record()) gives; frequencies in Hz,
    damping as ratios (0.01 = 1 %).

    chart: structured array, one row per pole of every classified order,
      fields order, class ('s', 'f', 'd', 'o'), frequency, damping (damping is
      known for class 's' poles only; NaN for the others).
    orders: the classified orders (the lowest order of the range only seeds
      the comparison and has no row).
    selected_frequency, selected_damping: the selected modes.
    residues: complex (channels, modes), the mode shapes: column j holds mode
      j's residue in every channel (one row when read from a record).
    upper_residual, lower_residual: complex (channels,).
    synthesised: complex (lines, channels), the fitted modal model.
    frequencies_hz, frf_matrix: the input (None when read from a record).
    candidates: the poles of the exact rule and what the significance filter
      made of them (fields frequency, damping, significance, kept); empty
      without the filter, None when read from a record.
    """

    chart: np.ndarray
    orders: npt.NDArray[np.int32]
    num_orders: int
    selected_frequency: npt.NDArray[np.float64]
    selected_damping: npt.NDArray[np.float64]
    residues: npt.NDArray[np.complex128]
    upper_residual: npt.NDArray[np.complex128]
    lower_residual: npt.NDArray[np.complex128]
    synthesised: npt.NDArray[np.complex128]
    eigen_frequency: npt.NDArray[np.float64]
    eigen_damping: npt.NDArray[np.float64]
    frequencies_hz: Optional[npt.NDArray[np.float64]] = None
    frf_matrix: Optional[npt.NDArray[np.complex128]] = None
    candidates: Optional[np.ndarray] = None

    @property
    def modes(self) -> int:
        return int(self.selected_frequency.size)

    def __repr__(self) -> str:
        orders = f"orders {self.orders.min()}..{self.orders.max()}" if self.orders.size else "no orders"
        shape = np.shape(self.synthesised)
        size = (f"{shape[0]} lines x {shape[1]} channel{'s' if shape[1] != 1 else ''}"
                if len(shape) == 2 else "no fit")
        return f"StabilityResult({_modes_at(self.selected_frequency)}; {orders}; {size})"

    def chart_of(self, cls: str) -> np.ndarray:
        """The chart rows of one class."""
        if cls not in CLASSES:
            raise ValueError(f"class must be one of {CLASSES}, not {cls!r}")
        return self.chart[self.chart["class"] == cls]


def _result(raw: dict, freq: Optional[np.ndarray], frf: Optional[np.ndarray]) -> StabilityResult:
    chart = np.empty(raw["chart_order"].size, dtype=CHART_DTYPE)
    chart["order"] = raw["chart_order"]
    chart["class"] = np.array(CLASSES)[raw["chart_class"]] if chart.size else []
    chart["frequency"] = raw["chart_frequency"]
    chart["damping"] = raw["chart_damping"]
    return StabilityResult(
        chart=chart, orders=raw["orders"], num_orders=int(raw["num_orders"]),
        selected_frequency=raw["selected_frequency"], selected_damping=raw["selected_damping"],
        residues=raw["residues"], upper_residual=raw["upper_residual"],
        lower_residual=raw["lower_residual"], synthesised=raw["synthesised"],
        eigen_frequency=raw["eigen_frequency"], eigen_damping=raw["eigen_damping"],
        frequencies_hz=freq, frf_matrix=frf)


def _orders(orders: Any) -> Tuple[int, int]:
    try:
        low, high = orders
        if int(low) != low or int(high) != high:
            raise TypeError
        return int(low), int(high)
    except (TypeError, ValueError):
        raise ValueError(f"orders must be a pair of integers (low, high), got {orders!r}") from None


#: The defaults of the automatic selection (the same as `frfcam stability`):
#: orders, the estimator's and the exact rule's tolerances, and the
#: significance filter's maximum damping and minimum significance.
DEFAULTS = dict(_native.default_settings())


def compute_stability(frequencies_hz: npt.ArrayLike, frf_matrix: npt.ArrayLike,
                      orders: Sequence[int] = (DEFAULTS["min_order"], DEFAULTS["max_order"]),
                      *, reference_channel: int = 0,
                      selection_tolerance: float = DEFAULTS["selection_tolerance"],
                      min_stable: int = DEFAULTS["min_stable"],
                      frequency_tolerance: float = DEFAULTS["frequency_tolerance"],
                      damping_tolerance: float = DEFAULTS["damping_tolerance"],
                      significance: bool = True,
                      max_damping: float = DEFAULTS["max_damping"],
                      min_significance: float = DEFAULTS["min_significance"],
                      flag1: bool = False, flag2: bool = False,
                      record: Optional[PathLike] = None) -> StabilityResult:
    """Stabilisation chart, selected modes and residues of measured FRFs.

    frequencies_hz: (lines,) in Hz. frf_matrix: complex (lines, channels), or
    (lines,) for one channel. All channels estimate the poles for every order
    of `orders` (low, high). The modes are the poles that recur in at least
    `min_stable` orders within `selection_tolerance` (the exact rule of the
    library's ComputeStability), then, with `significance`, only those that
    are physical (0 < damping <= max_damping, inside the band) and that the
    data need: a pole is dropped while leaving it out raises the residual of
    the fit to all channels by less than `min_significance` times the
    residual per line. Residues are fitted to every channel (the mode
    shapes). The record, when a path is given, carries the fit of
    `reference_channel` (0-based), as `frfcam stability` writes it.

    Raises ValueError for inputs the analysis cannot take (with the reason)
    and RuntimeError when the record cannot be written (checked before the
    work starts).
    """
    freq = np.ascontiguousarray(frequencies_hz, dtype=np.float64)
    frf = np.asarray(frf_matrix)
    if frf.ndim == 1:
        frf = frf[:, None]
    if frf.ndim != 2:
        raise ValueError(f"frf_matrix must be (lines, channels), got shape {frf.shape}")
    if freq.ndim != 1 or freq.shape[0] != frf.shape[0]:
        raise ValueError(f"frequencies_hz has shape {freq.shape}, frf_matrix {frf.shape}: "
                         "one frequency per line is needed")
    frf = np.asfortranarray(frf, dtype=np.complex128)
    low, high = _orders(orders)
    if not 0 <= int(reference_channel) < frf.shape[1]:
        raise ValueError(f"reference_channel {reference_channel} is outside 0..{frf.shape[1] - 1}")
    settings = dict(min_order=low, max_order=high, selection_tolerance=float(selection_tolerance),
                    min_stable=int(min_stable), frequency_tolerance=float(frequency_tolerance),
                    damping_tolerance=float(damping_tolerance), max_damping=float(max_damping),
                    min_significance=float(min_significance))
    path = None if record is None else fspath(record, "record path")
    raw = _native.compute_stability(freq, frf, int(reference_channel), settings,
                                    bool(significance), bool(flag1), bool(flag2), path)
    result = _result(raw, freq, frf)
    result.candidates = np.rec.fromarrays(
        [raw["candidate_frequency"], raw["candidate_damping"], raw["candidate_significance"],
         raw["candidate_kept"].astype(bool)],
        names="frequency,damping,significance,kept")
    return result


def read_record(path: PathLike) -> StabilityResult:
    """A record file written by `frfcam stability` (or compute_stability's
    record=) as a StabilityResult: the chart, the selection, and the fit of
    the one channel the record holds."""
    return _result(_native.read_record(fspath(path, "record path")), None, None)


# One style for the classes wherever a chart is drawn (this plot, the
# command line's SVG and PNG, the viewer): marker, colour, filled, label.
_SYMBOLS = {"s": ("o", "#1f5fbf", True, "stable"), "f": ("o", "#2a9d3a", False, "frequency"),
            "d": ("+", "#e07b00", True, "damping"), "o": (".", "#999999", True, "new")}
_SELECTED_COLOUR = "#dd2222"
_MAGNITUDE_COLOUR = "#b0b0b0"


def plot_stability(result: StabilityResult, ax: Any = None, *, magnitude: bool = True) -> Any:
    """Draws the stabilisation chart on matplotlib axes (new ones when ax is
    None) and returns the axes: model order over frequency, one symbol per
    class in the command line's style (s: filled blue circle, f: open green
    circle, d: orange plus, o: small grey dot), the summed FRF magnitude (and
    the fitted one, dashed) in grey on a second, logarithmic axis behind
    them, and the selected modes as dashed red vertical lines."""
    import matplotlib.pyplot as plt  # imported here: only plotting needs it

    if ax is None:
        _, ax = plt.subplots(figsize=(9, 5))
    if magnitude and result.frequencies_hz is not None and result.frf_matrix is not None:
        behind = ax.twinx()
        behind.set_zorder(ax.get_zorder() - 1)
        ax.patch.set_visible(False)
        behind.semilogy(result.frequencies_hz, np.abs(result.frf_matrix).sum(axis=1),
                        color=_MAGNITUDE_COLOUR, lw=1, label="sum |FRF|")
        if np.isfinite(result.synthesised).all():
            behind.semilogy(result.frequencies_hz, np.abs(result.synthesised).sum(axis=1),
                            color="0.3", lw=1, ls="--", label="sum |fit|")
        behind.set_ylabel("FRF magnitude")
    for cls in CLASSES:
        rows = result.chart_of(cls)
        marker, color, filled, label = _SYMBOLS[cls]
        colours = {"color": color} if filled else {"facecolors": "none", "edgecolors": color}
        ax.scatter(rows["frequency"], rows["order"], marker=marker, s=18 if cls != "o" else 6,
                   label=f"{cls}: {label}", linewidths=1, **colours)
    for f in result.selected_frequency:
        ax.axvline(f, color=_SELECTED_COLOUR, lw=1, ls="--")
    if result.modes:
        ax.plot([], [], color=_SELECTED_COLOUR, lw=1, ls="--", label="selected")
    ax.set_xlabel("frequency [Hz]")
    ax.set_ylabel("model order")
    ax.legend(loc="upper left", fontsize="small", framealpha=0.8)
    return ax
