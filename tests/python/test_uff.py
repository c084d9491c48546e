"""Universal files through the installed package: round trips of what
write_uff58 writes (nodes, directions and axes included), the FRF matrix for
the analysis, and errors as exceptions. (Files in the published layout are
read by the library's own tests.)"""
import os
import tempfile
import unittest

import numpy as np

import frfcam


class Uff(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.dir.cleanup()

    def path(self, name):
        return os.path.join(self.dir.name, name)

    def test_round_trips_and_frf_matrix(self):
        f = np.linspace(5, 50, 10)
        uneven = f ** 1.5
        functions = [
            frfcam.UffFunction(x=f, y=np.exp(1j * f), response_node=101, response_direction=3,
                               function_id=7, reference_node=1, reference_direction=3,
                               numerator=frfcam._uff._axis("Acceleration", "m/s^2", 12)),
            frfcam.UffFunction(x=f, y=np.cos(f), response_node=102, response_direction=-1,
                               ordinate_type=frfcam._uff.REAL_SINGLE),
            frfcam.UffFunction(x=uneven, y=np.sin(f), function_type=1),
        ]
        for binary in (False, True):
            frfcam.write_uff58(self.path("rt.uff"), functions, binary=binary)
            back = frfcam.read_uff58(self.path("rt.uff"))
            self.assertEqual(len(back), 3)
            np.testing.assert_allclose(back[0].y, functions[0].y, rtol=1e-12)
            self.assertEqual((back[0].response, back[0].reference, back[0].function_id),
                             ("101 +Z", "1 +Z", 7))
            self.assertEqual(back[0].numerator, functions[0].numerator)
            self.assertEqual(back[0].ordinate_type, frfcam._uff.COMPLEX_DOUBLE)
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
            f.write("    -1\n    58\nNONE\n")
        with self.assertRaisesRegex(ValueError, r"bad.uff:\d+: "):
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
