"""compute_stability, read_record and plot_stability through the installed
package, on the five-mode system of `frfcam synth-frf`."""
import os
import re
import subprocess
import tempfile
import unittest

import numpy as np

import frfcam

CLI = os.environ["FRFCAM_CLI"]
TRUE_HZ = np.array([48.0, 121.5, 203.0, 287.5, 412.0])


class Stability(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.csv = os.path.join(cls.dir.name, "frf.csv")
        subprocess.run([CLI, "synth-frf", cls.csv, "--lines", "600", "--channels", "3",
                        "--noise", "0.001"], check=True, stdout=subprocess.DEVNULL)
        table = np.loadtxt(cls.csv, delimiter=",", skiprows=1)
        cls.freq = table[:, 0]
        cls.frf = table[:, 1::2] + 1j * table[:, 2::2]
        cls.record = os.path.join(cls.dir.name, "r.pb")
        cls.result = frfcam.compute_stability(cls.freq, cls.frf, orders=(2, 40),
                                              reference_channel=1, record=cls.record)

    @classmethod
    def tearDownClass(cls):
        cls.dir.cleanup()

    def test_finds_the_modes_with_shapes_for_every_channel(self):
        r = self.result
        found = np.sort(r.selected_frequency)
        self.assertEqual(found.size, 5, found)
        np.testing.assert_allclose(found, TRUE_HZ, rtol=2e-3)
        self.assertTrue(np.all((r.selected_damping > 0.005) & (r.selected_damping < 0.03)))
        self.assertEqual(r.residues.shape, (3, 5))
        self.assertEqual(r.synthesised.shape, self.frf.shape)
        error = np.abs(r.synthesised - self.frf).max(axis=0) / np.abs(self.frf).max(axis=0)
        self.assertTrue(np.all(error < 0.02), error)
        text = repr(r)
        self.assertRegex(text, r"^StabilityResult\(5 modes at [0-9., ]+, \.\.\. Hz; orders \d+\.\.40; "
                               rf"{self.frf.shape[0]} lines x 3 channels\)$")
        self.assertLess(len(text), 200)

    def test_chart_rows_and_classes(self):
        chart = self.result.chart
        np.testing.assert_array_equal(self.result.orders, np.arange(3, 41))
        self.assertEqual(set(chart["class"]) - set(frfcam.CLASSES), set())
        stable = self.result.chart_of("s")
        self.assertGreater(stable.size, 50)
        self.assertTrue(np.all(np.isfinite(stable["damping"])))
        self.assertTrue(np.all(np.isnan(self.result.chart_of("o")["damping"])))
        self.assertTrue(np.all((chart["frequency"] > self.freq[0]) & (chart["frequency"] < self.freq[-1])))

    def test_record_reads_back_as_the_same_selection(self):
        back = frfcam.read_record(self.record)
        np.testing.assert_array_equal(back.selected_frequency, self.result.selected_frequency)
        np.testing.assert_array_equal(back.chart["frequency"], self.result.chart["frequency"])
        np.testing.assert_allclose(back.residues[0], self.result.residues[1])
        np.testing.assert_allclose(back.synthesised[:, 0], self.result.synthesised[:, 1])

    def test_plot_draws_classes_and_modes_as_the_command_line_chart(self):
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.colors
        import matplotlib.pyplot as plt
        svg_path = os.path.join(self.dir.name, "chart.svg")
        subprocess.run([CLI, "chart", self.record, "-o", svg_path], check=True,
                       stdout=subprocess.DEVNULL)
        with open(svg_path) as f:
            legend = re.search(r'<g id="legend".*?</g>', f.read(), re.S).group(0)
        # The legend draws s, f, d, o in that order: filled, stroked, stroked, filled.
        symbols = re.findall(r'<(?:circle|path) [^>]*?(?:fill|stroke)="(#[0-9a-f]{6})"', legend)
        self.assertEqual(len(symbols), 4, legend)
        cli = dict(zip("sfdo", symbols))
        ax = frfcam.plot_stability(self.result)
        self.assertEqual(len(ax.collections), 4)
        for collection in ax.collections:
            cls = collection.get_label()[0]
            drawn = {matplotlib.colors.to_hex(c) for c in
                     list(collection.get_facecolors()) + list(collection.get_edgecolors())}
            self.assertIn(cli[cls], drawn, cls)
        selected = re.search(r'stroke="(#[0-9a-f]{6})"[^>]*stroke-dasharray', legend).group(1)
        marked = [l for l in ax.lines if len(l.get_xdata())
                  and l.get_xdata()[0] in self.result.selected_frequency]
        self.assertEqual(len(marked), 5)
        self.assertEqual(matplotlib.colors.to_hex(marked[0].get_color()), selected)
        out = os.path.join(self.dir.name, "chart.png")
        ax.figure.savefig(out)
        self.assertGreater(os.path.getsize(out), 1000)
        plt.close("all")

    def test_command_line_uses_the_same_defaults(self):
        """The significance filter's choice is tested in the library; here the
        package exposes it and the command line makes the same one."""
        out = subprocess.run([CLI, "stability", self.csv, "-o", os.path.join(self.dir.name, "c.pb")],
                             check=True, capture_output=True, text=True).stdout
        python = frfcam.compute_stability(self.freq, self.frf)
        exact = frfcam.compute_stability(self.freq, self.frf, significance=False)
        self.assertEqual(python.candidates.size, exact.modes)
        self.assertEqual(int(python.candidates.kept.sum()), python.modes)
        for freq in python.selected_frequency:
            self.assertIn(f"{freq:14.4f}", out)
        self.assertIn(f"{python.modes} mode(s) selected", out)

    def test_bad_input_raises_before_any_work(self):
        missing = os.path.join(self.dir.name, "no", "r.pb")
        bad = self.frf.copy()
        bad[3, 0] = np.nan
        f, h = self.freq, self.frf
        cases = [
            (f, h, dict(orders=(2, 2)), ValueError, "two orders"),
            (f, h, dict(orders=(2.5, 9)), ValueError, "integers"),
            (f, h, dict(reference_channel=3), ValueError, "reference_channel"),
            (f, h, dict(record=missing), RuntimeError, "r.pb"),
            (f, h, dict(record=self.dir.name), RuntimeError, "folder"),
            (f, h, dict(record=b"r.pb"), ValueError, "bytes"),
            (f[:-1], h, {}, ValueError, "one frequency per line"),
            (f, bad, {}, ValueError, "not finite"),
            (f[:6], h[:6], dict(orders=(10, 20)), ValueError, "too few lines .* 6 spectral line"),
        ]
        for freq, frf, kwargs, error, words in cases:
            with self.subTest(words=words):
                with self.assertRaises(error) as e:
                    frfcam.compute_stability(freq, frf, **kwargs)
                self.assertRegex(str(e.exception), words)
        with self.assertRaises(FileNotFoundError):
            frfcam.read_record(missing)
        self.assertFalse(os.path.exists(missing))


if __name__ == "__main__":
    unittest.main()
