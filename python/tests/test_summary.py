import shutil

import numpy as np
import pytest

import keld
from keld import decks

# A deck with what moves elements: lines before start, a capitalised word,
# comments, a set of superimposed fields cut at its cavity (the line that
# closes the set is used up), a thin steerer, and lines behind end.
LATTICE = """drift 9 9 0
start
drift 0.1 0.02 0 ! first drift
quad 0.05 0.02 0 -12 0 0
DRIFT 1 1 0
superpose 0
field 0.2 0.03 0 3 0 0 0 1 qmap
superpose 0.05
err_cav_ncpl_dyn 1 1 0.1
field 0.1 0.025 0 1 352.2e6 -30 1 1 cell
drift 0.3 0.02 0
steerer 0.0 0.02 0 0 0.001 0 0
drift 0.1 0.02 0!0.5
bend 0.2 0.02 0 10 1.0 0 0
end
drift 5 5 0
"""


def test_lattice_deck_places_elements_as_the_run_does(tmp_path):
    (tmp_path / "in").mkdir()
    (tmp_path / "in" / "lattice.txt").write_text(LATTICE)
    (tmp_path / "in" / "input.txt").write_text("Boundary 1\n")
    (tmp_path / "in" / "beam.txt").write_text("NumOfCharge -1\nkindofparticle H-\n")
    (tmp_path / "in" / "boundary.txt").write_text("start\n1 pipe 0.4 0.015 RLP 0 0 0 0 0 0\n2 open 0.3\nend\n")
    (tmp_path / "out").mkdir()
    assert decks.find_decks(tmp_path / "out") == tmp_path / "in"
    found = decks.read_decks(tmp_path / "in")
    assert [(e.kind, e.cavity) for e in found.elements] == [
        ("drift", False), ("quad", False), ("field", False), ("field", True), ("field", False), ("steerer", False),
        ("drift", False), ("bend", False)]
    ends = [0.1, 0.15, 0.2, 0.3, 0.35, 0.35, 0.45, 0.65]
    assert [e.z_end for e in found.elements] == pytest.approx(ends, abs=1e-15)
    assert [e.z_start for e in found.elements] == pytest.approx([0.0] + ends[:-1], abs=1e-15)
    assert [e.hard_edge for e in found.elements] == [False, True, False, False, False, False, False, True]
    assert found.elements[1].gradient == -12.0 and found.elements[3].field_type == 4
    assert found.elements[3].radius == 0.025 and found.elements[6].radius == 0.02
    assert (found.charge_state, found.species) == (-1.0, "H-")
    assert [(p.name, p.z_start, p.z_end, p.radius) for p in found.pipes] == [
        ("pipe", 0.0, 0.4, 0.015), ("open", 0.4, 0.7, None)]
    assert found.element_at(0.1).kind == "quad" and found.element_at(found.length) is None
    assert found.element_at(-1e-9) is None


def console_block(console, first, last):
    """The console from the line `first` up to the line before `last`."""
    text = console.replace("\r", "\n")
    start = text.index(first)
    return text[start:text.index("\n" + last, start)]


def test_summary_agrees_with_keld(lossy_run, run, tmp_path):
    s = keld.summary(lossy_run.folder)  # the decks are found in in/ beside out/
    assert s.text() == console_block(lossy_run.console, "Run summary:", "Wall time: ")
    ds = keld.read_dataset(lossy_run.file("DataSet.txt"))
    lost_z = keld.read_collisions(lossy_run.file("collisionData.txt")).z
    assert (s.particles_in, s.particles_out, s.lost_on_pipes) == (300, ds.alive[-1], len(lost_z))
    assert 0.2 < s.transmission < 0.8 and s.transmission == ds.alive[-1] / 300
    assert s.lost_at_element_apertures == 0  # with boundary 1 the pipes alone decide
    narrow = s.losses[0]
    assert narrow.label() == "in element 1 (drift, z 0 to 0.3 m)"
    assert narrow.count == np.count_nonzero((lost_z >= 0.0) & (lost_z < 0.3)) > 100
    assert sum(loss.count for loss in s.losses) == len(lost_z)
    assert s.emittance_growth["x"] == pytest.approx((ds.emit_x[-1] / ds.emit_x[0] - 1) * 100)
    assert s.rms["z"] == ds.rms_z[-1] and s.energy == ds.energy[-1]

    # A study of three copies of the run without losses: no spread at all.
    for i in range(3):
        shutil.copytree(run.folder, tmp_path / "study" / f"output_{i}")
    study = keld.summary(tmp_path / "study", decks=run.decks)
    assert [i for i, _ in study.samples] == [0, 1, 2]
    assert study.transmission_spread() == (100.0, 0.0)
    lines = study.text().splitlines()
    assert lines[0] == "Study summary: 3 samples" and lines[3].startswith("  sample 3 (output_2): 300 of 300 out (100 %)")
    assert lines[4] == "  transmission: mean 100 %, rms spread 0 %, from 100 to 100 %"
