"""Universal files through the installed package: round trips of what
write_uff58 writes (nodes, directions and axes included), text in 8-bit
encodings, the FRF matrix for the analysis, and errors as exceptions of
three kinds only. (Files in the published layout are read by the library's
own tests.)"""
import os
import random
import struct
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


    def test_text_in_latin1_and_utf8(self):
        head = b"    -1\n    58\n" + b"Kraft \xfcber alles\n" + b"NONE\n" * 4
        record6 = b"    4         1    1         0 NONE             101   3 NONE               1   3\n"
        record7 = b"         2         2         1  0.00000E+00  1.00000E+00  0.00000E+00\n"
        axes = (b"        18    0    0    0 Frequency            Hz                  \n"
                b"        12    1    0    0 Acceleration         m/s\xb2                \n"
                b"         0    0    0    0 PSD                  g\xb2/Hz              \n"
                b"         0    0    0    0 NONE                 \xc2\xb0C                  \n")
        with open(self.path("latin1.uff"), "wb") as f:
            f.write(head + record6 + record7 + axes + b"  1.00000E+00  2.00000E+00\n    -1\n")
        [u] = frfcam.read_uff58(self.path("latin1.uff"))
        self.assertEqual(u.id_lines[0], "Kraft \u00fcber alles")
        self.assertEqual(u.numerator["units"], "m/s\u00b2")
        self.assertEqual(u.denominator["units"], "g\u00b2/Hz")
        self.assertEqual(u.z_axis["units"], "\u00b0C")  # valid UTF-8 stays UTF-8
        # Written back one Latin-1 byte per character; beyond Latin-1, '?'.
        u.denominator["label"] = "\u20ac/N"
        frfcam.write_uff58(self.path("back.uff"), [u])
        with open(self.path("back.uff"), "rb") as f:
            raw = f.read()
        self.assertIn(b"Acceleration         m/s\xb2                \n", raw)
        self.assertIn(b"?/N", raw)
        [v] = frfcam.read_uff58(self.path("back.uff"))
        self.assertEqual((v.numerator["units"], v.z_axis["units"]), ("m/s\u00b2", "\u00b0C"))

    def test_function_types(self):
        f = np.linspace(5, 50, 10)
        functions = [frfcam.UffFunction(x=f, y=np.sin(f), function_type=1, response_node=n)
                     for n in (1, 2)]
        functions.append(frfcam.UffFunction(x=f, y=np.cos(f) + 0j, function_type=9))
        with self.assertRaisesRegex(ValueError, r"^the list holds 2 time histories "
                                    r"\(function type 1\), 1 PSD \(type 9\) and no FRF "
                                    r"\(type 4\)$"):
            frfcam.uff_frf_matrix(functions)
        _, h, used = frfcam.uff_frf_matrix(functions, function_types=[1])
        self.assertEqual(h.shape, (10, 2))
        self.assertEqual([u.response_node for u in used], [1, 2])

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
        # The same values read back from both forms to single precision.
        a, b = frfcam.read_uff58(self.path("a.uff")), frfcam.read_uff58(self.path("b.uff"))
        for fa, fb in zip(a, b):
            np.testing.assert_allclose(fa.x, fb.x, rtol=1e-5)
            np.testing.assert_allclose(fa.y, fb.y, rtol=1e-5, atol=1e-6)
        # A big-endian 58b of doubles, bytes packed here by struct.
        big = (b"    -1\n    58b     2     2          11          32     0     0           0"
               b"           0\n" + b"NONE\n" * 5 + ascii_bytes.split(b"\n")[7] + b"\n" +
               b"         6         2         1  1.00000E+00  2.00000E+00  0.00000E+00\n" +
               b"\n".join(ascii_bytes.split(b"\n")[9:13]) + b"\n" +
               struct.pack(">4d", 0.1, -2.5, 3.0, 1e-300) + b"    -1\n")
        with open(self.path("big.uff"), "wb") as f:
            f.write(big)
        [u] = frfcam.read_uff58(self.path("big.uff"))
        np.testing.assert_array_equal(u.x, [1.0, 3.0])
        np.testing.assert_array_equal(u.y, [0.1 - 2.5j, 3.0 + 1e-300j])

        other = b"    -1\n  2414b     1     2           1           5\nname\n\xff\n-1\xfe    -1\n"
        samples = [ascii_bytes, binary_bytes, big, other + ascii_bytes + b"    -1\n   151\n"]
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
