import os
import shutil
import subprocess
import sys
from pathlib import Path

from keld import plot

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


def test_loss_map_and_study_spread(lossy_run, run, tmp_path):
    assert_png(plot.losses(lossy_run.folder, tmp_path))
    study = tmp_path / "study"
    for i in range(3):
        shutil.copytree(run.folder, study / f"output_{i}")
    assert_png(plot.study(study))


def test_keld_plot_command(run, tmp_path):
    # The wrapper that the build links into the build folder as keld-plot.
    tool = tmp_path / "keld-plot"
    tool.symlink_to(Path(__file__).resolve().parents[1] / "keld-tool")
    done = subprocess.run([str(tool), "envelope", str(run.folder), "-o", str(tmp_path / "figures")],
                          capture_output=True, text=True, env=dict(os.environ, KELD_PYTHON=sys.executable))
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == f"Envelopes along z: {tmp_path}/figures/envelope.png\n"
    assert_png(tmp_path / "figures" / "envelope.png")
