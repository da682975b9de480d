import os
import pathlib
import subprocess

import pytest

SOURCE = pathlib.Path(os.environ.get("ORBISCOPE_SOURCE_DIR", pathlib.Path(__file__).resolve().parents[2]))
CLI = pathlib.Path(os.environ.get("ORBISCOPE_CLI", SOURCE / "build" / "bin" / "orbiscope"))


def corpus_dir():
    env = os.environ.get("ORBISCOPE_CORPUS")
    p = pathlib.Path(env) if env else SOURCE.parent / "shared" / "corpus"
    return p if p.is_dir() else None


@pytest.fixture
def corpus():
    d = corpus_dir()
    if d is None:
        pytest.skip("no corpus folder")
    return d


def run_cli(*args, cwd=None):
    if not CLI.exists():
        pytest.skip("orbiscope not built")
    return subprocess.run([str(CLI), *map(str, args)], capture_output=True, text=True, cwd=cwd)
