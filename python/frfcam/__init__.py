"""frfcam: camera-based vibration analysis.

FRF maps from video::

    import frfcam
    capture = frfcam.Capture.open("plate.hdr")
    cube = capture.cube()
    cube.render(progress=print)            # or a tqdm(total=100)
    picture = cube.map(freq=300.0)         # uint8 (H, W), automatic gain
    frf = cube.frf(freq=300.0, reference=force)   # complex64: abs and angle

Modal analysis of measured FRFs::

    result = frfcam.compute_stability(freq_hz, frf_matrix, orders=(2, 60))
    frfcam.plot_stability(result)

Full-field modes of a capture (what `frfcam modes` computes)::

    result = frfcam.modes("plate.hdr", "plate_reference.txt", band=(50, 450))
    result.frequency_hz, result.damping_ratio, result.shapes   # shapes: complex64 (modes, H, W)

Recordings from cameras and tools (MRAW/CIH, CINE, TIFF, PNG folders, video)::

    capture = frfcam.import_video("run7.cih", "run7.hdr", frames=(0, 1999))
    capture = frfcam.Capture.open("run7.cih")   # imported once into run7.cih.frfcam/

Universal files (dataset 58, ASCII and binary)::

    functions = frfcam.read_uff58("measured.uff")
    freq_hz, frf_matrix, used = frfcam.uff_frf_matrix(functions)

Errors raise FileNotFoundError, ValueError or RuntimeError with a message.
The package is built for Debian's interpreter (/usr/bin/python3).
"""
from ._cube import Capture, Cube, RenderCancelled, delete_cube, spectrum_of
from ._import import import_video
from ._modes import ModesResult, modes
from ._reference import read_reference
from ._stability import (CLASSES, DEFAULTS, StabilityResult, compute_stability, plot_stability,
                         read_record)
from ._uff import UffFunction, read_uff58, uff_frf_matrix, write_uff58

__version__ = "0.1.0"

__all__ = ["Capture", "Cube", "RenderCancelled", "delete_cube", "spectrum_of", "import_video",
           "CLASSES", "DEFAULTS",
           "ModesResult", "modes", "read_reference", "StabilityResult", "compute_stability", "plot_stability", "read_record",
           "UffFunction", "read_uff58", "write_uff58", "uff_frf_matrix", "__version__"]
