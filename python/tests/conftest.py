"""Documents for the tests: the samples, the corpus and a big generated document,
from the folders the test command names (KLN_SAMPLES_DIR, KLN_CORPUS_DIR) and
the project's make_samples (KLN_MAKE_SAMPLES)."""

import json
import os
import subprocess
from pathlib import Path

import pytest

import kln


def _folder(variable: str) -> Path:
    value = os.environ.get(variable)
    if not value:
        pytest.fail(f"{variable} names no folder")
    return Path(value)


def documents():
    """Every sample and corpus document."""
    return sorted(_folder("KLN_SAMPLES_DIR").glob("*.kln")) + sorted(_folder("KLN_CORPUS_DIR").iterdir())


def kln2txt(*args: str, **kwargs) -> subprocess.CompletedProcess:
    return subprocess.run([kln.kln2txt_path(), *args], capture_output=True, check=False, **kwargs)


@pytest.fixture(scope="session")
def reference():
    """kln2txt --json's answer for every document, by path."""
    paths = documents()
    out = kln2txt("--json", *map(str, paths)).stdout.decode().splitlines()
    return {str(p): json.loads(line) for p, line in zip(paths, out)}


@pytest.fixture(scope="session")
def samples() -> Path:
    return _folder("KLN_SAMPLES_DIR")


@pytest.fixture(scope="session")
def big_document(tmp_path_factory) -> Path:
    """A word-processing document of about 4 MB of text."""
    folder = tmp_path_factory.mktemp("big")
    line = "日本語の文章です。 Report line {} of block {}, with some words to fill it."
    blocks = ("\n".join(line.format(n, b) for n in range(40)) for b in range(1500))
    (folder / "big.desc").write_text("kind text\ntitle big\ntext\n" + "\n\n".join(blocks) + "\n", encoding="utf-8")
    subprocess.run([str(_folder("KLN_MAKE_SAMPLES")), str(folder), str(folder / "big.desc")], check=True)
    return folder / "big.kln"


def serve_processes():
    """The kln2txt --serve processes of this package still there: running
    anywhere, or children of this process not yet reaped."""
    argv = [kln.kln2txt_path().encode(), b"--serve"]
    pids = []
    for proc in Path("/proc").iterdir():
        try:
            if not proc.name.isdigit():
                continue
            stat = (proc / "stat").read_text()
            child = stat.startswith(f"{proc.name} (kln2txt) ") and int(stat.split(") ")[1].split()[1]) == os.getpid()
            if child or (proc / "cmdline").read_bytes().split(b"\0")[:2] == argv:
                pids.append(int(proc.name))
        except OSError:
            pass
    return pids
