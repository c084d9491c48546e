"""Captures and cubes through the installed package: what a render writes is
what plane(), spectrum(), frf() and map() give back, and every misuse raises
with a message instead of returning zeros."""
import os
import signal
import subprocess
import tempfile
import unittest

import numpy as np

import frfcam

CLI = os.environ["FRFCAM_CLI"]


def synth(folder, name, *args):
    header = os.path.join(folder, name + ".hdr")
    subprocess.run([CLI, "synth", header, *args], check=True, stdout=subprocess.DEVNULL)
    return header


class InstalledPackage(unittest.TestCase):
    def test_comes_from_the_environment_with_its_libraries(self):
        here = os.path.dirname(frfcam.__file__)
        self.assertIn("site-packages", here)
        self.assertTrue(any(f.startswith("libfftw3f") for f in os.listdir(os.path.join(here, "_libs"))))


class RenderedCube(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.header = synth(cls.dir.name, "plate", "--width", "40", "--height", "30",
                           "--frames", "64", "--fps", "1000")
        cls.force = np.loadtxt(os.path.join(cls.dir.name, "plate_reference.txt"))
        cls.capture = frfcam.Capture.open(cls.header)
        cls.cube = cls.capture.cube()
        cls.seen = []
        cls.cube.render(progress=cls.seen.append)
        cube_file = os.path.join(cls.dir.name, "plate", "plate_0001.fft")
        cls.planes = np.fromfile(cube_file, dtype=np.complex64).reshape(33, 30, 40)
        cls.short_header = os.path.join(cls.dir.name, "short.hdr")
        with open(cls.short_header, "wb") as f:
            f.write(b"\0" * 100)  # too short to be a capture header

    @classmethod
    def tearDownClass(cls):
        cls.dir.cleanup()

    def test_geometry_and_frequency_axis(self):
        self.assertEqual((self.capture.width, self.capture.height, self.capture.frames), (40, 30, 64))
        self.assertEqual(self.cube.shape, (30, 40))
        self.assertEqual(self.cube.bins, 33)
        np.testing.assert_allclose(self.cube.frequencies, np.arange(33) * 1000 / 64)
        self.assertEqual(self.cube.bin_of(150.0), 10)
        self.assertEqual(self.seen[-1], 100)
        self.assertTrue(self.cube.rendered)

    def test_planes_and_spectra_are_the_cube_files(self):
        plane = self.cube.plane(5)
        self.assertEqual((plane.dtype, plane.shape), (np.complex64, (30, 40)))
        np.testing.assert_array_equal(plane, self.planes[5])
        spectrum = self.cube.spectrum(7, 3)
        self.assertEqual((spectrum.dtype, spectrum.shape), (np.complex64, (33,)))
        np.testing.assert_array_equal(spectrum, self.planes[:, 3, 7])
        np.testing.assert_array_equal(self.cube.plane(np.int64(5)), plane)

    def test_maps_with_and_without_reference(self):
        picture = self.cube.map(bin=5, gain=3.0)
        self.assertEqual((picture.dtype, picture.shape), (np.uint8, (30, 40)))
        expected = np.clip(np.rint(np.abs(self.planes[5]) * np.float32(3.0)), 0, 255)
        np.testing.assert_array_equal(picture, expected.astype(np.uint8))

        r = frfcam.spectrum_of(self.force)[10]
        frf = self.cube.frf(freq=150.0, reference=self.force)
        np.testing.assert_allclose(frf, self.planes[10] / r, rtol=1e-5)
        gain = self.cube.auto_gain(10, reference=self.force)
        np.testing.assert_allclose(np.quantile(np.abs(frf), 0.995) * gain, 255, rtol=1e-5)
        referenced = self.cube.map(freq=150.0, reference=self.force)
        np.testing.assert_array_equal(
            referenced, np.clip(np.rint(np.abs(frf) * np.float32(gain)), 0, 255).astype(np.uint8))
        # The reference was for that map only.
        np.testing.assert_array_equal(self.cube.map(bin=5, gain=3.0), picture)
        self.cube.set_reference(self.force)
        try:
            np.testing.assert_array_equal(self.cube.map(bin=10, gain=gain), referenced)
        finally:
            self.cube.set_reference(None)

    def test_zero_references_raise(self):
        one_line = np.cos(2 * np.pi * 5 * np.arange(64) / 64)  # nothing but bin 5
        self.assertTrue(np.all(np.isfinite(self.cube.frf(bin=5, reference=one_line))))
        with self.assertRaisesRegex(ValueError, "all zeros"):
            self.cube.set_reference(np.zeros(64))
        with self.assertRaisesRegex(ValueError, "zero at bin 10"):
            self.cube.map(bin=10, gain=1.0, reference=one_line)
        self.cube.set_reference(one_line)
        try:
            with self.assertRaisesRegex(ValueError, "zero at bin 10"):
                self.cube.map(bin=10, gain=1.0)
        finally:
            self.cube.set_reference(None)

    def test_reference_files_as_people_write_them(self):
        # Times and values, ';' separated with decimal commas, under a header
        # and a units row: the values, as a plain file gives them.
        path = os.path.join(self.dir.name, "timed.csv")
        with open(path, "w") as f:
            f.write("time;force  # from the recorder\ns;N\n")
            for i, v in enumerate(self.force):
                f.write(f"{i / 1000:.4f};{float(v)!r}\n".replace(".", ","))
        np.testing.assert_array_equal(frfcam.read_reference(path), self.force.astype(np.float32))
        with self.assertWarnsRegex(RuntimeWarning, "give 1000 samples/s, the capture 990"):
            frfcam.read_reference(path, fps=990)
        with open(path, "a") as f:
            f.write("0,1;oops\n")
        with self.assertRaisesRegex(ValueError, f"timed.csv:{self.force.size + 3}: 'oops'"):
            frfcam.read_reference(path)

    def test_misuse_raises_with_a_message(self):
        cube = self.cube
        cases = [
            (lambda: cube.plane(2.0), ValueError, "integer"),
            (lambda: cube.plane(33), ValueError, "0..32"),
            (lambda: cube.map(freq=501.0), ValueError, "500 Hz"),
            (lambda: cube.map(), ValueError, "exactly one"),
            (lambda: cube.spectrum(40, 0), ValueError, "outside"),
            (lambda: cube.map(bin=1, reference=np.ones(10)), ValueError, "64 frames"),
            (lambda: cube.map(bin=1, gain=float("nan")), ValueError, "finite"),
            (lambda: frfcam.Capture.open(b"plate.hdr"), ValueError, "bytes"),
            (lambda: frfcam.Capture.open(os.path.join(self.dir.name, "missing.hdr")),
             FileNotFoundError, "no such file"),
            (lambda: frfcam.Capture.open(self.header, fps=-1), ValueError, "fps"),
            (lambda: frfcam.delete_cube(os.path.join(self.dir.name, "nowhere")),
             FileNotFoundError, "nowhere"),
            (lambda: frfcam.Capture.open(self.short_header), ValueError, "not a capture"),
        ]
        for call, error, words in cases:
            with self.subTest(words=words):
                with self.assertRaises(error) as e:
                    call()
                self.assertIn(words, str(e.exception))


class UnfinishedCubes(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.dir.cleanup()

    def assertUnreadable(self, cube):
        self.assertFalse(cube.rendered)
        for read in (lambda: cube.map(bin=3, gain=1.0), lambda: cube.plane(3),
                     lambda: cube.spectrum(0, 0), lambda: cube.map(bin=3)):
            with self.assertRaisesRegex(RuntimeError, "render"):
                read()

    def test_never_rendered_and_cut_short(self):
        header = synth(self.dir.name, "small", "--width", "16", "--height", "8", "--frames", "32")
        cube = frfcam.Capture.open(header).cube()
        self.assertUnreadable(cube)
        cube.render()
        cube_file = os.path.join(self.dir.name, "small", "small_0001.fft")
        os.truncate(cube_file, os.path.getsize(cube_file) - 8)
        self.assertUnreadable(frfcam.Capture.open(header).cube())
        self.assertGreaterEqual(frfcam.delete_cube(self.dir.name), 1)
        self.assertFalse(os.path.exists(cube_file))

    def test_callback_exception_and_ctrl_c_cancel_the_render(self):
        header = synth(self.dir.name, "big", "--width", "256", "--height", "192",
                       "--frames", "1000", "--fps", "2000")

        class Stop(Exception):
            pass

        def fail(percent):
            raise Stop(f"at {percent}")

        cube = frfcam.Capture.open(header).cube()
        with self.assertRaises(Stop):
            cube.render(progress=fail)
        self.assertUnreadable(cube)

        calls = []

        def interrupt(percent):
            calls.append(percent)
            os.kill(os.getpid(), signal.SIGINT)

        with self.assertRaises(KeyboardInterrupt):
            cube.render(progress=interrupt)
        self.assertEqual(len(calls), 1)
        self.assertUnreadable(cube)

        # The same cube renders again afterwards, with a tqdm-like progress.
        class Bar:
            total = None
            n = 0

            def update(self, k):
                self.n += k

        bar = Bar()
        cube.render(progress=bar)
        self.assertEqual((bar.total, bar.n), (100, 100))
        self.assertTrue(cube.rendered)


if __name__ == "__main__":
    unittest.main()
