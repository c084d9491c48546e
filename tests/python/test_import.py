"""frfcam.import_video() and Capture.open() on a recording: the capture's
size, rate and samples, the import kept beside the recording, and errors."""
import os
import subprocess
import tempfile
import unittest

import numpy as np

import frfcam

CLI = os.environ["FRFCAM_CLI"]


class ImportRecording(unittest.TestCase):
    def test_import_cache_and_errors(self):
        with tempfile.TemporaryDirectory() as folder:
            cih = os.path.join(folder, "rec.cih")
            subprocess.run([CLI, "synth", cih, "--scene", "beam", "--width", "32", "--height",
                            "64", "--frames", "40"], check=True, stdout=subprocess.DEVNULL)
            capture = frfcam.import_video(cih, os.path.join(folder, "part.hdr"),
                                          frames=(10, 29), roi=(8, 0, 16, 64))
            self.assertEqual((capture.width, capture.height, capture.frames), (16, 64, 20))
            self.assertEqual(capture.fps, 2000.0)

            # The recording itself: imported once beside it, then reused.
            whole = frfcam.Capture.open(cih)
            self.assertEqual((whole.width, whole.height, whole.frames), (32, 64, 40))
            header = os.path.join(folder, "rec.cih.frfcam", "capture.hdr")
            self.assertEqual(os.path.realpath(whole.path), os.path.realpath(header))
            stamp = os.stat(header).st_mtime_ns
            frfcam.Capture.open(cih)
            self.assertEqual(os.stat(header).st_mtime_ns, stamp)
            # The part shows the whole's columns 8..23: their mean images
            # agree up to the noise and motion of the frames they average,
            # and not shifted or mirrored.
            a = whole.cube()
            a.render()
            b = capture.cube()
            b.render()
            part, region = b.plane(0).real.ravel(), a.plane(0).real[:, 8:24].ravel()
            self.assertGreater(np.corrcoef(part, region)[0, 1], 0.99)
            self.assertLess(np.corrcoef(part, a.plane(0).real[:, 9:25].ravel())[0, 1], 0.95)

            with self.assertRaises(FileNotFoundError):
                frfcam.import_video(os.path.join(folder, "none.cih"), os.path.join(folder, "x.hdr"))
            with self.assertRaisesRegex(ValueError, "region"):
                frfcam.import_video(cih, os.path.join(folder, "x.hdr"), roi=(30, 0, 8, 8))
            with self.assertRaisesRegex(ValueError, "bits"):
                frfcam.import_video(cih, os.path.join(folder, "x.hdr"), bits=16)
            self.assertFalse(os.path.exists(os.path.join(folder, "x.hdr")))


if __name__ == "__main__":
    unittest.main()
