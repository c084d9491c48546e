"""The `frfcam` command of the wheel: the command-line tool, a C++ program
that travels in the package (frfcam/_bin), run with the arguments given."""
from __future__ import annotations

import os
import subprocess
import sys
from typing import List, Optional

_HERE = os.path.dirname(os.path.abspath(__file__))


def program() -> str:
    """The path of the packaged tool."""
    return os.path.join(_HERE, "_bin", "frfcam.exe" if os.name == "nt" else "frfcam")


def main(argv: Optional[List[str]] = None) -> int:
    args = sys.argv[1:] if argv is None else list(argv)
    tool = program()
    if not os.path.isfile(tool):
        sys.stderr.write(f"frfcam: the command-line tool is not in this installation ({tool})\n")
        return 1
    # The libraries beyond the base system travel in frfcam/_libs, beside the
    # native module that names them in its run path; the tool needs them too.
    env = dict(os.environ)
    libs = os.path.join(_HERE, "_libs")
    if os.path.isdir(libs):
        var = "PATH" if os.name == "nt" else "LD_LIBRARY_PATH"
        env[var] = libs + (os.pathsep + env[var] if env.get(var) else "")
    if os.name == "nt":  # no exec there that keeps the console's process
        return subprocess.call([tool] + args, env=env)
    sys.stdout.flush()
    sys.stderr.flush()
    os.execve(tool, [tool] + args, env)
    return 1  # not reached


if __name__ == "__main__":
    sys.exit(main())
