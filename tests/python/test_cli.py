"""The `frfcam` console script of the wheel: the packaged command-line tool
runs with the arguments given and its exit status comes back."""
import os
import subprocess
import sys
import unittest

import frfcam


class ConsoleScript(unittest.TestCase):
    def test_runs_the_packaged_tool(self):
        script = os.path.join(os.path.dirname(sys.executable), "frfcam")
        version = subprocess.run([script, "--version"], capture_output=True, text=True)
        self.assertEqual(version.returncode, 0, version.stderr)
        self.assertIn(frfcam.__version__, version.stdout)
        unknown = subprocess.run([script, "help", "nothing"], capture_output=True, text=True)
        self.assertEqual(unknown.returncode, 2)
        self.assertIn("no command 'nothing'", unknown.stderr)
