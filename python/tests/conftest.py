"""One tiny real run of keld for the whole test session: 300 protons of 3 MeV
through 0.3 m of drift, a horizontal steerer and 0.2 m more, with three
output planes and a dump every 50 steps. The decks lie in `in/` beside the
output folder `out/`, where the package finds them by itself. The keld
binary comes from KELD_BINARY (set by the Makefile), else build/keld."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "python"))

DECKS = {
    "input.txt": "spacecharge 0\nsteppercycle 20\ndumpperiodicity 50\n",
    "beam.txt": (
        "kindofparticle proton\n"
        "particlerestmass 938.272029\n"
        "numofcharge 1\n"
        "kneticenergy 3.0\n"
        "frequency 352.2e6\n"
        "current 10\n"
        "particlenumber 300\n"
        "distribution GS GS\n"
        "twissx -0.5 0.3 0.2\n"
        "twissy 0.5 0.3 0.2\n"
        "twissz 0.0 3.2 0.1\n"
    ),
    "lattice.txt": (
        "start\n"
        "drift 0.3 0.02 0\n"
        "outputplane -0.2\n"
        "outputplane 0.0\n"
        "steerer 0.0 0.02 0 0.0 0.0005 0 0\n"
        "drift 0.2 0.02 0\n"
        "end\n"
    ),
}


class Run:
    """The output folder of the session's run, its decks folder and its
    console text."""

    def __init__(self, folder, decks, console):
        self.folder = folder
        self.decks = decks
        self.console = console

    def file(self, name):
        return self.folder / name


def run_decks(tmp_path_factory, decks):
    binary = Path(os.environ.get("KELD_BINARY", ROOT / "build" / "keld"))
    if not binary.exists():
        pytest.fail(f"{binary}: no keld binary; build it first (make build) or set KELD_BINARY")
    base = tmp_path_factory.mktemp("keld_run")
    into, out = base / "in", base / "out"
    into.mkdir()
    out.mkdir()
    for name, text in decks.items():
        (into / name).write_text(text)
    done = subprocess.run([str(binary), str(into), str(out)], capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stdout + done.stderr
    return Run(out, into, done.stdout)


@pytest.fixture(scope="session")
def run(tmp_path_factory):
    return run_decks(tmp_path_factory, DECKS)


@pytest.fixture(scope="session")
def lossy_run(tmp_path_factory):
    """The same bunch with its self-field (a coarse mesh: the run is about
    files, not physics) through a 1.5 mm pipe for the first 0.3 m, then a 2
    cm one: about half the particles are lost on the aperture list."""
    decks = dict(DECKS)
    decks["input.txt"] = "spacecharge 1\nnumofgrid 16 16 16\nsteppercycle 20\nboundary 1\n"
    decks["boundary.txt"] = "start\n1 narrow 0.3 0.0015\n1 wide 0.25 0.02\nend\n"
    return run_decks(tmp_path_factory, decks)
