"""The Python binding end to end: a synthetic capture rendered and mapped,
maps checked against the cube files read with numpy, names, cancellation of
nothing, and the stability call's result codes."""
import os
import subprocess
import sys
import tempfile
import unittest

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "python"))
import frfcam  # noqa: E402

CLI = os.environ["FRFCAM_CLI"]


class BindingTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.header = os.path.join(cls.dir.name, "plate.hdr")
        subprocess.run([CLI, "synth", cls.header, "--width", "40", "--height", "30",
                        "--frames", "64", "--fps", "1000"], check=True,
                       stdout=subprocess.DEVNULL)

    @classmethod
    def tearDownClass(cls):
        cls.dir.cleanup()

    def test_render_and_maps_match_the_cube_files(self):
        seen = []
        with frfcam.Cube(self.header, name="pl\u00e4te") as cube:
            self.assertEqual(cube.name, "pl\u00e4te")
            self.assertEqual(cube.dims, (40, 30, 33))
            self.assertTrue(cube.render(progress=seen.append))
            self.assertEqual(seen[-1], 100)
            picture = cube.map(bin=5, gain=3.0)
        cube_file = os.path.join(self.dir.name, "plate", "plate_0001.fft")
        planes = np.fromfile(cube_file, dtype=np.complex64).reshape(33, 30, 40)
        expected = np.clip(np.rint(np.abs(planes[5]) * np.float32(3.0)), 0, 255)
        self.assertTrue(np.array_equal(picture, expected.astype(np.uint8)))

    def test_bad_capture_raises_with_its_code(self):
        with self.assertRaises(frfcam.FrfcamError) as e:
            frfcam.Cube(os.path.join(self.dir.name, "missing.hdr"))
        self.assertEqual(e.exception.code, 2)

    def test_stability_rejects_too_few_lines(self):
        out = os.path.join(self.dir.name, "r.pb")
        omega = np.array([1.0])
        with self.assertRaises(frfcam.FrfcamError) as e:
            frfcam.compute_stability(out, np.ones(1), np.ones((1, 1)), omega, 2, 10)
        self.assertEqual(e.exception.code, -2)
        self.assertFalse(os.path.exists(out))


if __name__ == "__main__":
    unittest.main()
