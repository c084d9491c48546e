"""Universal files through the installed package: a hand-made dataset 58,
round trips of what write_uff58 writes, and the FRF matrix for the analysis."""
import os
import tempfile
import unittest

import numpy as np

import frfcam

HAND_MADE = "\n".join([
    "    -1",
    "    58",
    "H 101+Z / 1+Z",
    "NONE",
    "NONE",
    "NONE",
    "NONE",
    "    4         7    1         0 NONE             101   3 NONE               1   3",
    "         5         2         1  1.00000E+01  2.50000E+00  0.00000E+00",
    "        18    0    0    0 Frequency            Hz                  ",
    "        12    1    0    0 Acceleration         m/s^2               ",
    "        13    0    1    0 Force                N                   ",
    "         0    0    0    0 NONE                 NONE                ",
    "  1.00000E+00  2.00000E+00 -3.00000E+00  4.00000E-01",
    "    -1",
    ""])


class Uff(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.dir.cleanup()

    def path(self, name):
        return os.path.join(self.dir.name, name)

    def test_reads_a_hand_made_file(self):
        with open(self.path("h.uff"), "w") as f:
            f.write(HAND_MADE)
        (h,) = frfcam.read_uff58(self.path("h.uff"))
        self.assertEqual((h.response, h.reference, h.function_id), ("101 +Z", "1 +Z", 7))
        np.testing.assert_array_equal(h.x, [10.0, 12.5])
        np.testing.assert_array_equal(h.y, [1 + 2j, -3 + 0.4j])
        self.assertEqual(h.numerator["label"], "Acceleration")
        self.assertEqual(h.ordinate_type, frfcam._uff.COMPLEX_SINGLE)

    def test_round_trips_and_frf_matrix(self):
        f = np.linspace(5, 50, 10)
        uneven = f ** 1.5
        functions = [
            frfcam.UffFunction(x=f, y=np.exp(1j * f), response_node=101, response_direction=3),
            frfcam.UffFunction(x=f, y=np.cos(f), response_node=102, response_direction=-1,
                               ordinate_type=frfcam._uff.REAL_SINGLE),
            frfcam.UffFunction(x=uneven, y=np.sin(f), function_type=1),
        ]
        for binary in (False, True):
            frfcam.write_uff58(self.path("rt.uff"), functions, binary=binary)
            back = frfcam.read_uff58(self.path("rt.uff"))
            self.assertEqual(len(back), 3)
            np.testing.assert_allclose(back[0].y, functions[0].y, rtol=1e-12)
            np.testing.assert_allclose(back[1].y, np.cos(f), rtol=1e-5)
            self.assertEqual(back[1].response, "102 -X")
            self.assertFalse(back[2].even_abscissa)
            np.testing.assert_allclose(back[2].x, uneven, rtol=1e-5)
            freq, h, used = frfcam.uff_frf_matrix(back)
            self.assertEqual(h.shape, (10, 2))
            self.assertEqual([u.response_node for u in used], [101, 102])
            _, one, _ = frfcam.uff_frf_matrix(back, responses=[(102, -1)])
            self.assertEqual(one.shape, (10, 1))

    def test_errors_raise_with_messages(self):
        with open(self.path("bad.uff"), "w") as f:
            f.write(HAND_MADE.replace("  1.00000E+00  2.00000E+00 -3.00000E+00  4.00000E-01\n", ""))
        with self.assertRaisesRegex(ValueError, r"bad.uff:\d+: record 12 ends after 0 of 4"):
            frfcam.read_uff58(self.path("bad.uff"))
        with self.assertRaises(FileNotFoundError):
            frfcam.read_uff58(self.path("missing.uff"))
        with self.assertRaisesRegex(ValueError, "bytes"):
            frfcam.read_uff58(b"x.uff")
        x = np.arange(4.0)
        with self.assertRaisesRegex(ValueError, "one length"):
            frfcam.write_uff58(self.path("w.uff"), [frfcam.UffFunction(x=x, y=x[:3])])
        with self.assertRaisesRegex(RuntimeError, "w.uff"):
            frfcam.write_uff58(self.path("no/w.uff"), [frfcam.UffFunction(x=x, y=x)])
        with self.assertRaisesRegex(ValueError, "even spacing"):
            frfcam.write_uff58(self.path("w.uff"),
                               [frfcam.UffFunction(x=x ** 2, y=x, even_abscissa=True)])
        self.assertFalse(os.path.exists(self.path("w.uff")))


if __name__ == "__main__":
    unittest.main()
