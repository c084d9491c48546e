"""Python binding of the frfcam library (camera-based vibration analysis).

Loads the shared library with ctypes; numpy is needed for maps as arrays and
for the stability analysis. The library is looked up in $FRFCAM_LIBRARY, then
beside this package's source tree (build/libfrfcam.so), then on the system
library path.

    import frfcam
    with frfcam.Cube("plate.hdr") as cube:
        cube.render(progress=print)
        picture = cube.map(bin=150, gain=2.0)      # numpy uint8 array, H x W
"""

import ctypes
import ctypes.util
import os

__all__ = ["FrfcamError", "Cube", "delete_cube", "compute_stability", "library"]


class FrfcamError(RuntimeError):
    """A call of the library failed; `code` is its result code."""

    def __init__(self, message, code):
        super().__init__(f"{message} (code {code})")
        self.code = code


def _load():
    candidates = []
    if os.environ.get("FRFCAM_LIBRARY"):
        candidates.append(os.environ["FRFCAM_LIBRARY"])
    here = os.path.dirname(os.path.abspath(__file__))
    candidates.append(os.path.join(here, "..", "..", "build", "libfrfcam.so"))
    found = ctypes.util.find_library("frfcam")
    if found:
        candidates.append(found)
    for path in candidates:
        if path and (os.path.exists(path) or not os.path.isabs(path)):
            try:
                return ctypes.CDLL(path)
            except OSError:
                continue
    raise OSError("libfrfcam.so not found; set FRFCAM_LIBRARY")


library = _load()
_Handle = ctypes.c_void_p
PROGRESS = ctypes.CFUNCTYPE(None, ctypes.c_int)


def _declare(name, restype, *argtypes):
    f = getattr(library, name)
    f.restype = restype
    f.argtypes = list(argtypes)
    return f


_create = _declare("CreateFrfMapCalcs", _Handle, ctypes.c_char_p)
_delete = _declare("DeleteFrfMapCalcs", None, _Handle)
_get_name = _declare("GetFrfMapCalcsName", ctypes.c_void_p, _Handle)
_set_name = _declare("SetFrfMapCalcsName", None, _Handle, ctypes.c_char_p)
_open = _declare("OpenCube", ctypes.c_int, _Handle, ctypes.c_char_p)
_dims = _declare("GetCubeDims", ctypes.c_uint, _Handle, ctypes.POINTER(ctypes.c_uint),
                 ctypes.POINTER(ctypes.c_uint), ctypes.POINTER(ctypes.c_uint))
_cancel = _declare("CancelRenderCube", None, _Handle)
_render = _declare("RenderCube", ctypes.c_int, _Handle, PROGRESS)
_set_reference = _declare("SetReference", None, _Handle, ctypes.POINTER(ctypes.c_float),
                          ctypes.c_int)
_read_map = _declare("ReadFRFMap", ctypes.c_int, _Handle, ctypes.c_int, ctypes.c_float,
                     ctypes.POINTER(ctypes.c_ubyte))
_delete_cube = _declare("DeleteCube", None, _Handle, ctypes.c_char_p)
_compute = _declare("ComputeStability", ctypes.c_int, ctypes.c_char_p,
                    ctypes.POINTER(ctypes.c_double), ctypes.POINTER(ctypes.c_double),
                    ctypes.c_int, ctypes.POINTER(ctypes.c_double), ctypes.c_int,
                    ctypes.c_int, ctypes.c_int, ctypes.c_double, ctypes.c_int,
                    ctypes.c_double, ctypes.c_double, ctypes.c_ubyte, ctypes.c_ubyte)
_libc = ctypes.CDLL(ctypes.util.find_library("c"))
_libc.free.argtypes = [ctypes.c_void_p]

_OPEN_ERRORS = {1: "the transform cannot be prepared", -1: "out of memory",
                2: "not a capture that can be rendered"}
_RENDER_ERRORS = {2: "out of memory or not opened", 3: "writing the cube files failed"}


class Cube:
    """An FrfMapCalcs object opened on one capture (its header file)."""

    def __init__(self, header, name="python"):
        self._h = _create(name.encode())
        if not self._h:
            raise MemoryError("CreateFrfMapCalcs")
        self.header = os.fspath(header)
        code = _open(self._h, self.header.encode())
        if code != 0:
            self.close()
            raise FrfcamError(f"{self.header}: {_OPEN_ERRORS.get(code, 'cannot open')}", code)

    def close(self):
        if self._h:
            _delete(self._h)
            self._h = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        self.close()

    @property
    def name(self):
        raw = _get_name(self._h)
        if not raw:
            raise MemoryError("GetFrfMapCalcsName")
        try:
            return _utf16_at(raw)
        finally:
            _libc.free(raw)

    @name.setter
    def name(self, value):
        _set_name(self._h, value.encode())

    @property
    def dims(self):
        """(width, height, bins) of the cube."""
        w, h, b = ctypes.c_uint(), ctypes.c_uint(), ctypes.c_uint()
        _dims(self._h, ctypes.byref(w), ctypes.byref(h), ctypes.byref(b))
        return w.value, h.value, b.value

    def render(self, progress=None):
        """Renders the cube files. Returns False when cancelled."""
        callback = PROGRESS(progress if progress is not None else (lambda percent: None))
        code = _render(self._h, callback)
        if code == 1:
            return False
        if code != 0:
            raise FrfcamError(_RENDER_ERRORS.get(code, "render failed"), code)
        return True

    def cancel(self):
        """Asks a render running on another thread to stop."""
        _cancel(self._h)

    def set_reference(self, signal):
        values = (ctypes.c_float * len(signal))(*[float(v) for v in signal])
        _set_reference(self._h, values, len(signal))

    def map(self, bin, gain=1.0):
        """The 8-bit FRF map of `bin`, as a numpy array of shape (height, width)."""
        import numpy as np
        w, h, _ = self.dims
        out = np.zeros((h, w), dtype=np.uint8)
        code = _read_map(self._h, int(bin), float(gain),
                         out.ctypes.data_as(ctypes.POINTER(ctypes.c_ubyte)))
        if code != 0:
            raise FrfcamError(f"bin {bin} cannot be read from the cube", code)
        return out


def _utf16_at(address):
    data = bytearray()
    p = ctypes.cast(address, ctypes.POINTER(ctypes.c_uint16))
    i = 0
    while p[i] != 0:
        data += int(p[i]).to_bytes(2, "little")
        i += 1
    return data.decode("utf-16-le")


def delete_cube(folder):
    """Removes every .fft file below `folder`."""
    _delete_cube(None, os.fspath(folder).encode())


def compute_stability(output, frf, frf_matrix, omega, min_order, max_order,
                      selection_tolerance=0.01, min_stable_count=5,
                      frequency_tolerance=0.01, damping_tolerance=0.05,
                      flag1=False, flag2=False):
    """Runs the stability analysis and writes the record to `output`.

    frf: complex (lines,); frf_matrix: complex (lines, channels);
    omega: angular frequencies in rad/s (lines,). Returns 0 or raises.
    """
    import numpy as np
    frf = np.ascontiguousarray(frf, dtype=np.complex128)
    matrix = np.asfortranarray(frf_matrix, dtype=np.complex128)
    if matrix.ndim == 1:
        matrix = matrix.reshape(-1, 1, order="F")
    omega = np.ascontiguousarray(omega, dtype=np.float64)
    lines, channels = matrix.shape
    if frf.shape != (lines,) or omega.shape != (lines,):
        raise ValueError("frf, frf_matrix and omega need the same number of lines")
    as_doubles = lambda a: a.ctypes.data_as(ctypes.POINTER(ctypes.c_double))
    code = _compute(os.fspath(output).encode(), as_doubles(frf), as_doubles(matrix), channels,
                    as_doubles(omega), lines, min_order, max_order, selection_tolerance,
                    min_stable_count, frequency_tolerance, damping_tolerance,
                    int(bool(flag1)), int(bool(flag2)))
    if code != 0:
        raise FrfcamError("ComputeStability rejected its input", code)
    return code
