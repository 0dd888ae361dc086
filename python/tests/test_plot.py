import os
import shutil
import subprocess
import sys
from pathlib import Path

from keld import plot, strip
from keld.decks import decks_of_run

PNG = b"\x89PNG\r\n\x1a\n"


def assert_png(path):
    data = Path(path).read_bytes()
    assert data.startswith(PNG) and len(data) > 5000, path


def test_each_figure_of_a_run(run, tmp_path):
    for draw in (plot.envelope, plot.emittance, plot.energy, plot.losses):
        assert_png(draw(run.folder, tmp_path))
    made = plot.phase_space_run(run.folder, tmp_path)
    assert [p.name for p in made] == ["phase-space_inData.png", "phase-space_outData_0.100000.png",
                                      "phase-space_outData_0.300000.png", "phase-space_outData_0.500000.png"]
    for p in made:
        assert_png(p)


def test_lattice_strip_and_study(lossy_run, run, tmp_path):
    # The strip draws the run's own lattice: two drifts and the thin steerer,
    # under the pipes of boundary.txt, whose radii set its scale.
    fig, axes, bottom = plot._along_z(2, decks_of_run(lossy_run.folder))
    assert len(axes) == 2 and bottom.get_ylabel() == "aperture (mm)"
    assert [t.get_text() for t in bottom.get_legend().get_texts()] == ["pipe of boundary.txt", "steerer"]
    assert bottom.get_ylim() == (-1.15 * 20.0, 1.15 * 20.0)
    assert sorted({round(abs(y), 9) for line in bottom.get_lines() for y in line.get_ydata()}) == [
        0.0, 1.5, 15.0, 20.0]  # axis, narrow pipe, steerer bar (0.75 of the 2 cm pipe), wide pipe
    assert_png(plot.losses(lossy_run.folder, tmp_path))
    # Hard-edge elements are hatched as spans of the z code.
    found = decks_of_run(lossy_run.folder)
    found.elements[0].kind = "quad"
    assert strip.hard_edge_spans(found) == [(0.0, 0.3)]
    study = tmp_path / "study"
    for i in range(3):
        shutil.copytree(run.folder, study / f"output_{i}")
    assert_png(plot.study(study, decks=run.decks))


def test_keld_plot_command(run, tmp_path):
    # The wrapper that the build links into the build folder as keld-plot.
    tool = tmp_path / "keld-plot"
    tool.symlink_to(Path(__file__).resolve().parents[1] / "keld-tool")
    env = dict(os.environ, KELD_PYTHON=sys.executable)
    done = subprocess.run([str(tool), "envelope", str(run.folder), "-o", str(tmp_path / "figures")],
                          capture_output=True, text=True, env=env)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == f"Envelopes along z: {tmp_path}/figures/envelope.png\n"
    assert_png(tmp_path / "figures" / "envelope.png")
    columns = subprocess.run([str(tool), "columns"], capture_output=True, text=True, env=env).stdout.splitlines()
    assert len(columns) == 41
    assert columns[17] == " 17  rms_x            m      rms x" and columns[29] == " 29  alive            1      particles alive"
    done = subprocess.run([str(tool), "summary", str(run.folder)], capture_output=True, text=True, env=env)
    assert done.stdout.splitlines()[1] == "  particles: 300 in, 300 out at z = " + \
        "%.6g" % float(run.file("DataSet.txt").read_text().splitlines()[-1].split()[33]) + " m, transmission 100 %"
