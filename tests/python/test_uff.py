"""Universal files through the installed package: round trips of what
write_uff58 writes (nodes, directions, axes and text beyond ASCII included),
the FRF matrix for the analysis, and errors as exceptions of three kinds
only. (Files in the published layout, both byte orders of 58b and 8-bit
encodings are read by the library's own tests.)"""
import os
import random
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
                               numerator=frfcam._uff._axis("Acceleration", "m/s\u00b2", 12),
                               denominator=frfcam._uff._axis("\u20ac/N"),
                               id_lines=["Kraft \u00fcber alles"] + ["NONE"] * 4),
            frfcam.UffFunction(x=f, y=np.cos(f), response_node=102, response_direction=-1,
                               ordinate_type=frfcam._uff.REAL_SINGLE),
            frfcam.UffFunction(x=uneven, y=np.sin(f), function_type=1),
        ]
        for binary in (False, True):
            frfcam.write_uff58(self.path("rt.uff"), functions, binary=binary)
            back = frfcam.read_uff58(self.path("rt.uff"))
            self.assertEqual(len(back), 3)
            # Text goes out one Latin-1 byte per character ('?' beyond it)
            # and comes back as str.
            with open(self.path("rt.uff"), "rb") as raw:
                self.assertIn(b"Kraft \xfcber alles\n", raw.read())
            self.assertEqual(back[0].id_lines[0], "Kraft \u00fcber alles")
            self.assertEqual(back[0].denominator["label"], "?/N")
            np.testing.assert_allclose(back[0].y, functions[0].y, rtol=1e-12)
            self.assertEqual((back[0].response, back[0].reference, back[0].function_id),
                             ("101 +Z", "1 +Z", 7))
            self.assertEqual(back[0].numerator["units"], "m/s\u00b2")
            self.assertEqual(repr(back[0]), "UffFunction(FRF 7: 101 +Z / 1 +Z, 10 complex points, "
                                            "5..50 Hz)")
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
            _, times, _ = frfcam.uff_frf_matrix(back, function_types=[1])
            self.assertEqual(times.shape, (10, 1))
            with self.assertRaisesRegex(ValueError, r"^the list holds 1 time history "
                                        r"\(function type 1\) and no FRF \(type 4\)$"):
                frfcam.uff_frf_matrix(back[2:])

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

    def test_damaged_files_raise_only_the_three_kinds(self):
        x = np.linspace(1, 30, 12)
        y = np.exp(1j * x)
        functions = [frfcam.UffFunction(x=x, y=y, response_node=5),
                     frfcam.UffFunction(x=x ** 1.3, y=y.real, ordinate_type=frfcam._uff.REAL_SINGLE,
                                        numerator=frfcam._uff._axis("Acc", "m/s\u00b2"))]
        frfcam.write_uff58(self.path("a.uff"), functions)
        frfcam.write_uff58(self.path("b.uff"), functions, binary=True)
        with open(self.path("a.uff"), "rb") as f:
            ascii_bytes = f.read()
        with open(self.path("b.uff"), "rb") as f:
            binary_bytes = f.read()
        other = b"    -1\n  2414b     1     2           1           5\nname\n\xff\n-1\xfe    -1\n"
        samples = [ascii_bytes, binary_bytes, other + ascii_bytes + b"    -1\n   151\n"]
        rng = random.Random(7)
        damaged = []
        for data in samples:
            damaged += [data[:cut] for cut in range(0, len(data), 7)]
            for _ in range(150):
                at = rng.randrange(len(data))
                damaged.append(data[:at] + bytes([rng.randrange(256)]) + data[at + 1:])
        for i, data in enumerate(damaged):
            with open(self.path("d.uff"), "wb") as f:
                f.write(data)
            try:
                for fn in frfcam.read_uff58(self.path("d.uff")):
                    str(fn.id_lines) + str(fn.numerator)
            except (ValueError, RuntimeError) as e:
                self.assertNotIn("\n", str(e), i)
        with self.assertRaises((ValueError, RuntimeError)):
            frfcam.read_uff58(self.dir.name)


if __name__ == "__main__":
    unittest.main()
