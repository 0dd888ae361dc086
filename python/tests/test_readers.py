import re

import numpy as np
import pytest

import keld

E = 1.60217653e-19
C = 299792458.0


def console_number(run, prefix):
    m = re.search(re.escape(prefix) + r"\s*(\S+)", run.console)
    assert m, f"no line {prefix!r} on the console"
    return float(m.group(1))


def test_distributions_against_the_deck_and_the_console(run):
    start = keld.read_dst(run.file("inData.dst"))
    assert start.count == 300
    assert start.markers == b"\x7d\x64\x7d"
    assert start.current == pytest.approx(10.0, rel=1e-14)
    assert start.frequency == pytest.approx(352.2, rel=1e-14)
    assert start.rest_energy == 938.272029
    assert start.column("energy").mean() == pytest.approx(3.0, rel=1e-3)
    # The console's macro factor: bunch charge over N over e.
    macro = start.current / 1000.0 / (start.frequency * 1e6) / start.count / E
    assert macro == pytest.approx(console_number(run, "single macro particle:"), rel=1e-5)

    planes = sorted((d.plane_z, d) for d in map(keld.read_dst, run.folder.glob("outData_*.dst")))
    assert [z for z, _ in planes] == [0.1, 0.3, 0.5]
    assert len(planes) == console_number(run, "A total of")
    for _, dist in planes:
        assert dist.count == 300
        assert dist.current == 0.0  # no space charge: the files carry no current
    # The steerer between the planes at 0.3 and 0.5 m turns every particle by
    # -B L / (B rho), B = 0.5 mT over the 0.2 m drift behind it.
    pc = np.sqrt(3.0 ** 2 + 2 * 3.0 * 938.272029) * 1e6
    kick = -0.0005 * 0.2 / (pc / C)
    before, after = planes[1][1], planes[2][1]
    assert after.column("xp").mean() - before.column("xp").mean() == pytest.approx(kick, rel=1e-3)
    assert after.column("yp").mean() == pytest.approx(before.column("yp").mean(), abs=1e-9)


def test_dataset_and_reference_track(run):
    ds = keld.read_dataset(run.file("DataSet.txt"))
    assert ds.data.shape[1] == 40 and len(ds.columns) == 40
    assert ds.units["rms_x"] == "m" and ds.units["emit_x"] == "m rad"
    assert np.all(ds.alive == 300)
    assert ds.step[0] == -1 and set(np.diff(ds.step)) <= {0.0, 1.0}
    assert ds.energy == pytest.approx(3.0, rel=1e-3)
    # Drifts keep the normalised emittance of the generated bunch, 0.2 mm mrad.
    assert ds.emit_x == pytest.approx(ds.emit_x[0], rel=1e-3)
    assert ds.emit_x[0] == pytest.approx(2e-7, rel=0.25)
    assert ds.ref_z[-1] >= 0.5 > ds.ref_z[0]
    assert ds["rms_y"] is not None and ds.rms_x[-1] > ds.rms_x[0]

    track = keld.read_synparticle(run.file("synParticle.txt"))
    assert re.fullmatch(r"\d{4}/\d\d/\d\d \d\d:\d\d:\d\d", track.stamps[0])
    # Both files follow the reference particle step by step up to the steerer.
    assert track.z[:100] == pytest.approx(ds.ref_z[:100], rel=1e-5, abs=1e-9)
    assert track.energy == pytest.approx(track.energy[0], rel=1e-12)
    assert np.all(track.bend_plane == 0)

    pushed = keld.read_se_synparticle(run.file("SeSynParticle.txt"))
    assert np.all(pushed.lost == 0)
    assert pushed.gbz == pytest.approx(track.gbz[0], rel=1e-12)
    assert pushed.z.max() == pytest.approx(track.z.max(), abs=0.01)


def test_beamset_dumps(run):
    bs = keld.read_beamset(run.file("BeamSet.plt"))
    assert (bs.period, bs.count) == (50, 300)
    assert bs.current == pytest.approx(10.0) and bs.frequency == pytest.approx(352.2)
    assert bs.rest_energy == 938.272029
    steps = [d.step for d in bs.dumps]
    # Every 50 steps, and once more at the final output stop.
    assert len(steps) > 3 and steps[:-1] == list(range(0, 50 * (len(steps) - 1), 50)) and steps[-1] > steps[-2]
    for d in bs.dumps:
        assert d.kind == 0 and d.coordinates.shape == (300, 6) and np.all(d.status == 0)
    zs = [d.z for d in bs.dumps]
    assert zs == sorted(zs) and zs[-1] >= 0.5
    # Relative coordinates: the bunch centre stays near the reference.
    assert abs(bs.dumps[-1].coordinates[:, 4].mean()) < 0.01


def test_losses_of_a_real_run(lossy_run):
    lost = keld.read_collisions(lossy_run.file("collisionData.txt"))
    ds = keld.read_dataset(lossy_run.file("DataSet.txt"))
    assert 0 < len(lost) == 300 - ds.alive[-1]
    assert set(lost.species) == {"proton"} and np.all(lost.rest_energy == 938.272)
    # Each record carries the macro particle's charge in units of e.
    assert lost.charge_number == pytest.approx(console_number(lossy_run, "single macro particle:"), rel=1e-5)
    # Most losses lie on the wall of the narrow pipe (the crossing point is
    # interpolated linearly between two steps, so not all of them exactly).
    inside = (lost.z > 0.0) & (lost.z < 0.3)
    assert np.count_nonzero(inside) > len(lost) // 2
    assert np.median(np.hypot(lost.x, lost.y)[inside]) == pytest.approx(0.0015, rel=1e-3)


def test_simulation_time(run):
    (line,) = keld.read_simulation_time(run.file("SimulationTime.txt"))
    assert line["total"] > 0.0
    assert set(line) == {"total", *keld.textfiles.SIMULATION_EXTERNAL, *keld.textfiles.SIMULATION_INTERNAL}
    threads, seconds = line["push"]
    assert threads >= 1 and 0.0 <= seconds <= line["total"]


def test_hand_written_files(tmp_path):
    phase = tmp_path / "Phase.txt"
    phase.write_text("1  0.0000000012500  0.1  3.000000\n1  0.0000000021250  0.3  3.512\n")
    t = keld.read_phase(phase)
    assert list(t.cavity) == [1, 1] and t.time[1] == 2.125e-09 and t.energy[1] == 3.512

    scan = tmp_path / "scanData.txt"
    scan.write_text("-35.1234567890   0.00000000125000000000\n")
    s = keld.read_scandata(scan)
    assert s.phase[0] == -35.123456789 and s.time[0] == 1.25e-09

    lost = tmp_path / "collisionData.txt"
    lost.write_text("0.012 0.001  0.25  1000  -20  2.4e+07  1  938.272  1  1.2e-08  proton\n"
                    "-0.02 0  0.75  0  0  2.4e+07  1  938.272  1  3.1e-08  proton\n")
    c = keld.read_collisions(lost)
    assert list(c.z) == [0.25, 0.75] and c.species == ["proton", "proton"] and c.time[1] == 3.1e-08
    lost.write_text("")
    assert len(keld.read_collisions(lost)) == 0  # a run without losses

    single = tmp_path / "SingleParticle.txt"
    single.write_text("dx:1.5mm  dy:0mm  dz:-2mm\ndpx:0.25mrad  dpy:0mrad  dpz:--\nEnergy:3MeV\n")
    assert keld.read_single_particle(single) == dict(dx=1.5, dy=0.0, dz=-2.0, dpx=0.25, dpy=0.0, energy=3.0)


def test_error_study_folders(run, tmp_path):
    text = run.file("DataSet.txt").read_text()
    for i in (0, 1, 10, 2):
        folder = tmp_path / f"output_{i}"
        folder.mkdir()
        (folder / "DataSet.txt").write_text(text)
        (folder / "StaticErrorData.txt").write_text(f"0 {i} 0.5 \n1 2 \n")
    (tmp_path / "output_x").mkdir()  # not a sample
    samples = keld.read_study(tmp_path)
    assert [s.index for s in samples] == [0, 1, 2, 10]
    assert samples[3].number == 11 and samples[3].folder.name == "output_10"
    assert samples[2].static_errors[0].tolist() == [0, 2, 0.5] and samples[2].static_errors[1].tolist() == [1, 2]
    assert samples[0].dynamic_errors is None
    assert len(samples[1].dataset) == len(keld.read_dataset(run.file("DataSet.txt")))
