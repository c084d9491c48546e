"""frfcam.modes() on a synthetic plate: the plate's modes come out, with the
shapes `frfcam modes` writes, and bad input raises with a message."""
import os
import re
import subprocess
import tempfile
import unittest

import numpy as np

import frfcam

CLI = os.environ["FRFCAM_CLI"]


class ModesOfSyntheticPlate(unittest.TestCase):
    def test_frequencies_shapes_and_errors(self):
        with tempfile.TemporaryDirectory() as folder:
            header = os.path.join(folder, "plate.hdr")
            reference = os.path.join(folder, "plate_reference.txt")
            printed = subprocess.run([CLI, "synth", header, "--width", "64", "--height", "48",
                                      "--frames", "1000"], check=True, capture_output=True,
                                     text=True).stdout
            truth = [float(f) for f in re.findall(r"^mode \d+: ([0-9.]+) Hz", printed, re.M)]
            self.assertEqual(len(truth), 3, printed)

            seen = []
            result = frfcam.modes(header, reference, progress=seen.append)
            self.assertEqual(seen[-1], 100)  # the cube was rendered first
            self.assertEqual(result.count, 3)
            np.testing.assert_allclose(result.frequency_hz, truth, rtol=0.005)
            self.assertTrue(np.all((result.damping_ratio > 0) & (result.damping_ratio < 0.1)))
            self.assertTrue(np.all(result.mpc > 0.9), result.mpc)
            self.assertEqual((result.shapes.dtype, result.shapes.shape),
                             (np.complex64, (3, 48, 64)))
            self.assertGreater(np.count_nonzero(result.shapes[0]), 1000)
            self.assertTrue(set(result.chart["class"]) <= set(frfcam.CLASSES))
            text = repr(result)
            self.assertTrue(text.startswith("ModesResult(3 modes at ") and "\n" not in text, text)
            self.assertLess(len(text), 200)

            # The same computation as the command line, pixel for pixel, from
            # a Capture object and the reference as an array.
            out = os.path.join(folder, "out")
            subprocess.run([CLI, "modes", header, "--reference", reference, "-o", out],
                           check=True, stdout=subprocess.DEVNULL)
            again = frfcam.modes(frfcam.Capture.open(header), np.loadtxt(reference))
            for k in range(3):
                np.testing.assert_array_equal(
                    again.shapes[k], np.load(os.path.join(out, f"mode_{k + 1}.npy")))

            missing = os.path.join(folder, "missing.hdr")
            for args, kwargs, error, words in [
                    ((missing, reference), {}, FileNotFoundError, "missing.hdr"),
                    ((header, reference), dict(orders=(40, 2)), ValueError, "orders"),
                    ((header, reference), dict(band=(500, 100)), ValueError, "band"),
                    ((header, reference), dict(shapes="motion"), ValueError, "shapes"),
                    ((header, np.zeros(1000)), {}, ValueError, "all zeros")]:
                with self.subTest(words=words), self.assertRaisesRegex(error, words):
                    frfcam.modes(*args, **kwargs)
            self.assertEqual(result.kind, "brightness")
            self.assertIsNone(result.displacement)


class ModesOfMovingBeam(unittest.TestCase):
    def test_displacement_in_millimetres_matches_the_command_line(self):
        with tempfile.TemporaryDirectory() as folder:
            header = os.path.join(folder, "beam.hdr")
            reference = os.path.join(folder, "beam_reference.txt")
            subprocess.run([CLI, "synth", header, "--scene", "beam", "--width", "64",
                            "--height", "160"], check=True, stdout=subprocess.DEVNULL)
            result = frfcam.modes(header, reference, scale=0.5)
            self.assertEqual(result.kind, "displacement")
            np.testing.assert_allclose(result.frequency_hz, [60, 250, 700], rtol=1e-3)
            self.assertEqual((result.displacement.dtype, result.displacement.shape),
                             (np.complex64, (3, 2, 160, 64)))
            self.assertEqual(result.mean_image.shape, (160, 64))
            # The background has nothing to follow; the beam moves in x.
            self.assertTrue(np.isnan(result.displacement[0, 0, 0, 0]))
            ux = result.displacement[0, 0]
            self.assertGreater(np.count_nonzero(np.isfinite(ux)), 1000)

            out = os.path.join(folder, "out")
            subprocess.run([CLI, "modes", header, "--reference", reference, "--scale", "0.5",
                            "-o", out], check=True, stdout=subprocess.DEVNULL)
            for k in range(3):
                np.testing.assert_array_equal(
                    result.displacement[k], np.load(os.path.join(out, f"mode_{k + 1}_disp.npy")))


if __name__ == "__main__":
    unittest.main()
