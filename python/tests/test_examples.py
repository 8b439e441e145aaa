# SPDX-License-Identifier: MIT
"""The example scripts of examples/python, run as a user would, their outputs checked with ffprobe."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

import quorvel_avformat
from conftest import matches, probe

EXAMPLES = Path(__file__).resolve().parents[2] / "examples" / "python"
AV = "video:50,audio:88"

# (script, arguments on the clips folder c and an output folder o, the output and what ffprobe finds in it)
RUNS = [
    ("convert.py", lambda c, o: [c / "av.mkv", o / "out.mp4"], "out.mp4", AV),
    ("convert.py", lambda c, o: [c / "av.mkv", o / "cut.mkv", "0.4", "1.2"], "cut.mkv", "video:*"),
    ("packet_copy.py", lambda c, o: [c / "av.mkv", o / "copy.mkv"], "copy.mkv", AV),
    ("pipe.py", lambda c, o: [], "piped.mkv", AV),
    ("split_join.py", lambda c, o: [c / "av.mkv", o], "joined.mkv", "video:100,audio:176"),
]


@pytest.mark.parametrize("script, arguments, output, expected", RUNS, ids=[f"{r[0]}:{r[2]}" for r in RUNS])
def test_example(clips: Path, tmp_path: Path, script: str, arguments, output: str, expected: str) -> None:
    package = str(Path(quorvel_avformat.__file__).parents[1])
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(filter(None, [package, os.environ.get("PYTHONPATH")]))}
    with open(clips / "av.mkv", "rb") as stdin, open(tmp_path / "piped.mkv", "wb") as stdout:
        subprocess.run([sys.executable, str(EXAMPLES / script), *map(str, arguments(clips, tmp_path))],
                       stdin=stdin, stdout=stdout if script == "pipe.py" else None, env=environment, check=True)
    assert matches(probe(tmp_path / output), expected)


def test_pip_install_without_an_index(clips: Path, tmp_path: Path) -> None:
    """pip builds and installs the package with the setuptools already there, and it works from there."""
    pytest.importorskip("pip")
    package = Path(quorvel_avformat.__file__).parents[1]
    source = tmp_path / "src"
    shutil.copytree(package, source, ignore=shutil.ignore_patterns("__pycache__", "build", "*.egg-info", "tests"))
    subprocess.run([sys.executable, "-m", "pip", "install", "-q", "--no-build-isolation", "--no-index",
                    "--target", str(tmp_path / "site"), str(source)], check=True)
    assert (tmp_path / "site" / "quorvel_avformat" / "py.typed").exists()
    environment = {**os.environ, "PYTHONPATH": str(tmp_path / "site")}
    subprocess.run([sys.executable, "-c", "import sys, quorvel_avformat as q; q.convert(sys.argv[1], sys.argv[2])",
                    str(clips / "av.mkv"), str(tmp_path / "out.mkv")], env=environment, check=True, cwd=tmp_path)
    assert probe(tmp_path / "out.mkv") == AV
