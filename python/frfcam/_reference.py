"""Reference signal files: the excitation, one value per frame, as the
command line reads them."""
from __future__ import annotations

import warnings
from typing import Optional

import numpy as np
import numpy.typing as npt

from . import _native
from ._cube import PathLike, fspath


def read_reference(path: PathLike, fps: Optional[float] = None) -> npt.NDArray[np.float32]:
    """The values of a reference file, float32 (frames,): one value a line,
    or time, value pairs (the values are taken). '#' starts a comment, up to
    two header rows are skipped, and values may be separated by ',', ';'
    (with decimal commas: 1,5), tabs or blanks.

    With `fps` (the capture's frame rate), a file whose times give a rate
    more than 0.1 % away from it warns (RuntimeWarning), as `frfcam map`
    does. Raises FileNotFoundError, or ValueError naming the line of the
    first problem.
    """
    values, rate = _native.read_reference(fspath(path, "reference path"))
    if fps is not None and rate > 0 and abs(rate - fps) > 1e-3 * fps:
        warnings.warn(f"the times of {path} give {rate:.6g} samples/s, the capture {fps:.6g} "
                      "frames/s; the reference is taken one value per frame", RuntimeWarning,
                      stacklevel=2)
    return values
