"""Universal files, dataset 58 (ASCII) and 58b (binary): the functions that
measurement systems export (FRFs, spectra, time histories)."""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import Iterable, List, Optional, Sequence, Tuple

import numpy as np
import numpy.typing as npt

from . import _native
from ._cube import PathLike, fspath

#: Ordinate data types of record 7.
REAL_SINGLE, REAL_DOUBLE, COMPLEX_SINGLE, COMPLEX_DOUBLE = 2, 4, 5, 6
#: Function type of an FRF (record 6).
FRF = 4

_DIRECTIONS = {0: "scalar", 1: "+X", 2: "+Y", 3: "+Z", 4: "+RX", 5: "+RY", 6: "+RZ",
               -1: "-X", -2: "-Y", -3: "-Z", -4: "-RX", -5: "-RY", -6: "-RZ"}


_TYPES = {1: "time history", 2: "auto spectrum", 3: "cross spectrum", FRF: "FRF",
          5: "transmissibility", 6: "coherence", 9: "PSD"}


def _axis(label: str = "NONE", units: str = "NONE", specific_type: int = 0) -> dict:
    return dict(specific_type=specific_type, length_exponent=0, force_exponent=0,
                temperature_exponent=0, label=label, units=units)


@dataclass
class UffFunction:
    """One dataset 58: x (abscissa of every point, Hz for FRFs) and y (real or
    complex ordinates), with the nodes and directions of record 6 and the
    axis descriptions of records 8-11 (dicts with specific_type, the unit
    exponents, label and units)."""

    x: npt.NDArray[np.float64]
    y: npt.NDArray
    function_type: int = FRF
    function_id: int = 1
    response_node: int = 1
    response_direction: int = 0
    reference_node: int = 0
    reference_direction: int = 0
    ordinate_type: Optional[int] = None  # None: complex or real double, as y is
    even_abscissa: Optional[bool] = None  # None: even when x is evenly spaced
    id_lines: List[str] = field(default_factory=lambda: ["NONE"] * 5)
    version: int = 0
    load_case: int = 0
    response_entity: str = "NONE"
    reference_entity: str = "NONE"
    z_value: float = 0.0
    abscissa: dict = field(default_factory=lambda: _axis("Frequency", "Hz", 18))
    numerator: dict = field(default_factory=_axis)
    denominator: dict = field(default_factory=_axis)
    z_axis: dict = field(default_factory=_axis)

    @property
    def response(self) -> str:
        """'101 +Z' style name of the response node and direction."""
        return f"{self.response_node} {_DIRECTIONS.get(self.response_direction, self.response_direction)}"

    @property
    def reference(self) -> str:
        return f"{self.reference_node} {_DIRECTIONS.get(self.reference_direction, self.reference_direction)}"

    def __repr__(self) -> str:
        x = np.asarray(self.x).ravel()
        span = f"{x[0]:g}..{x[-1]:g} {self.abscissa.get('units', '')}".rstrip() if x.size else "empty"
        kind = "complex" if np.iscomplexobj(self.y) else "real"
        name = _TYPES.get(self.function_type, f"type {self.function_type}")
        return (f"UffFunction({name} {self.function_id}: {self.response} / {self.reference}, "
                f"{x.size} {kind} points, {span})")

    def _as_native(self) -> dict:
        x = np.ascontiguousarray(self.x, dtype=np.float64)
        y = np.asarray(self.y)
        if x.ndim != 1 or y.shape != x.shape:
            raise ValueError(f"UFF function {self.function_id}: x {x.shape} and y {y.shape} "
                             "must be 1-D of one length")
        kind = self.ordinate_type
        if kind is None:
            kind = COMPLEX_DOUBLE if np.iscomplexobj(y) else REAL_DOUBLE
        if kind not in (REAL_SINGLE, REAL_DOUBLE, COMPLEX_SINGLE, COMPLEX_DOUBLE):
            raise ValueError(f"ordinate_type {kind} (2, 4 real; 5, 6 complex)")
        if kind in (REAL_SINGLE, REAL_DOUBLE) and np.iscomplexobj(y) and np.any(y.imag != 0):
            raise ValueError("a real ordinate type for complex values")
        even = self.even_abscissa
        if even is None:
            even = x.size < 2 or bool(np.allclose(np.diff(x), x[1] - x[0], rtol=0,
                                                  atol=1e-9 * abs(x[-1] - x[0])))
        d = dict(self.__dict__)
        d.update(x=x, y=np.asarray(y, dtype=np.complex128), ordinate_type=int(kind),
                 even_abscissa=bool(even), id_lines=[str(s) for s in self.id_lines])
        return d


def read_uff58(path: PathLike) -> List[UffFunction]:
    """Every dataset 58 / 58b of a universal file, in file order (datasets
    of other numbers are skipped). Text fields come as str: UTF-8 where the
    file's bytes are valid UTF-8, Latin-1 otherwise. FileNotFoundError for
    a missing file; ValueError naming the line for a malformed or truncated
    file."""
    out = []
    for d in _native.read_uff58(fspath(path, "UFF path")):
        d = dict(d)
        out.append(UffFunction(**d))
    return out


def write_uff58(path: PathLike, functions: Iterable[UffFunction], binary: bool = False) -> None:
    """Writes the functions as datasets 58 (or 58b, little-endian IEEE, with
    binary=True); the file appears whole or not at all. Text is written one
    Latin-1 byte per character (characters beyond Latin-1 become '?'), so
    the fixed columns hold. ValueError for functions the format cannot hold,
    RuntimeError when the file cannot be written."""
    native = [f._as_native() for f in functions]
    if not native:
        raise ValueError("no function to write")
    _native.write_uff58(fspath(path, "UFF path"), native, bool(binary))


def uff_frf_matrix(functions: Sequence[UffFunction],
                   responses: Optional[Sequence[Tuple[int, int]]] = None,
                   function_types: Iterable[int] = (FRF,)
                   ) -> Tuple[npt.NDArray[np.float64], npt.NDArray[np.complex128],
                              List[UffFunction]]:
    """The FRFs of a file as (frequencies_hz, frf_matrix (lines, channels),
    the functions used), ready for compute_stability. Takes the FRFs
    (function type 4), or the functions of `function_types` (e.g. (5,) for
    transmissibilities), of the (node, direction) pairs in `responses` when
    given; they must share one abscissa. ValueError when there is none,
    saying what the functions are."""
    functions = list(functions)
    types = [int(t) for t in function_types]
    chosen = [f for f in functions if f.function_type in types]
    if not chosen:
        raise ValueError("the list " + _native.uff_no_function_of_types(
            [int(f.function_type) for f in functions], types))
    if responses is not None:
        wanted = {(int(n), int(d)) for n, d in responses}
        chosen = [f for f in chosen if (f.response_node, f.response_direction) in wanted]
    if not chosen:
        raise ValueError("no FRF of the requested responses")
    x = np.asarray(chosen[0].x, dtype=np.float64)
    for f in chosen[1:]:
        if f.x.shape != x.shape or not np.allclose(f.x, x, rtol=0, atol=1e-6 * abs(x[-1] - x[0])):
            raise ValueError(f"FRF {f.response} / {f.reference} has another abscissa than "
                             f"{chosen[0].response}; choose FRFs with responses=")
    if "rad" in str(chosen[0].abscissa.get("units", "")).lower():
        x = x / (2 * np.pi)
    return x, np.column_stack([np.asarray(f.y, dtype=np.complex128) for f in chosen]), chosen
