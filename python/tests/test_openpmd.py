import h5py
import numpy as np
import pytest

import keld
from keld import openpmd

E = 1.60217653e-19
C = 299792458.0
REST = 938.272029

REQUIRED = {
    "root": ("openPMD", "openPMDextension", "basePath", "iterationEncoding", "iterationFormat", "particlesPath"),
    "iteration": ("dt", "time", "timeUnitSI"),
    "record": ("unitDimension", "timeOffset"),
    "component": ("unitSI",),
}


def openpmd_faults(path):
    """Every required attribute of the particle standard that the file lacks,
    read with h5py alone."""
    faults = []
    with h5py.File(path, "r") as f:
        faults += [f"/ {a}" for a in REQUIRED["root"] if a not in f.attrs]
        base = f.attrs["basePath"].decode().replace("%T", "{}")
        for key in f["data"]:
            it = f[base.format(key)]
            faults += [f"{it.name} {a}" for a in REQUIRED["iteration"] if a not in it.attrs]
            for sp in it[f.attrs["particlesPath"].decode()].values():
                for record in sp.values():
                    faults += [f"{record.name} {a}" for a in REQUIRED["record"] if a not in record.attrs]
                    if len(record.attrs.get("unitDimension", ())) != 7:
                        faults.append(f"{record.name} unitDimension of 7 powers")
                    scalar = isinstance(record, h5py.Dataset) or "value" in record.attrs
                    for comp in [record] if scalar else record.values():
                        faults += [f"{comp.name} {a}" for a in REQUIRED["component"] if a not in comp.attrs]
                        if isinstance(comp, h5py.Group) and not {"value", "shape"} <= set(comp.attrs):
                            faults.append(f"{comp.name} value and shape of a constant")
    return faults


def si(comp):
    if "value" in comp.attrs:
        return np.full(tuple(comp.attrs["shape"]), comp.attrs["value"] * comp.attrs["unitSI"])
    return comp[()] * comp.attrs["unitSI"]


def test_dst_round_trip_is_byte_identical(run, tmp_path):
    for name in ("inData.dst", "outData_0.500000.dst"):
        source = run.file(name)
        h5 = tmp_path / (name + ".h5")
        openpmd.export_dst(keld.read_dst(source), h5)
        back = tmp_path / name
        keld.write_dst(openpmd.import_dst(h5), back)
        assert back.read_bytes() == source.read_bytes()
    # Odd marker bytes, no particles, and values no arithmetic may touch.
    odd = keld.Distribution(np.zeros((0, 6)), 0.0, 0.0, 938.0, b"\x01\x02\x03")
    h5 = tmp_path / "odd.h5"
    openpmd.export_dst(odd, h5)
    assert openpmd.import_dst(h5).to_bytes() == odd.to_bytes()
    odd = keld.Distribution(np.array([[-0.0, 1e-310, np.nan, np.inf, 5e300, 1.0]]), 1.5, 2.5, 3.5)
    openpmd.export_dst(odd, h5)
    assert openpmd.import_dst(h5).to_bytes() == odd.to_bytes()


def test_plane_of_a_run_with_space_charge(lossy_run, tmp_path, capsys):
    source = lossy_run.file("outData_0.300000.dst")
    dist = keld.read_dst(source)
    assert 0 < dist.count < 300 and dist.current > 0.0
    h5 = tmp_path / "plane.h5"
    # The charge state comes from the run's beam.txt, found beside the output folder.
    assert openpmd.main(["export", str(source), str(h5)]) == 0
    assert capsys.readouterr().out == f"Wrote {h5}\n"
    assert openpmd_faults(h5) == []
    with h5py.File(h5, "r") as f:
        sp = f["data/0/particles/beam"]
        weighting, charge, mass = si(sp["weighting"]), si(sp["charge"]), si(sp["mass"])
        # The bunch of beam.txt, 10 mA at 352.2 MHz in 300 macro particles, of which dist.count reached the plane.
        assert np.sum(weighting * charge) == pytest.approx(0.01 / 352.2e6 * dist.count / 300, rel=1e-9)
        assert sp.attrs["totalCharge"] == pytest.approx(0.01 / 352.2e6 * dist.count / 300, rel=1e-9)
        macro = float(lossy_run.console.split("single macro particle: ")[1].split()[0])
        assert weighting == pytest.approx(macro, rel=1e-5) and charge[0] == E
        assert (sp["charge"].attrs["macroWeighted"], sp["charge"].attrs["weightingPower"]) == (0, 1.0)
        assert (sp["weighting"].attrs["macroWeighted"], sp["weighting"].attrs["weightingPower"]) == (1, 1.0)
        assert mass[0] == pytest.approx(1.67262e-27, rel=1e-5) and sp.attrs["speciesType"] == b"proton"
        assert np.array_equal(si(sp["position/x"]), dist.column("x") * 0.01)
        p = np.sqrt(si(sp["momentum/x"]) ** 2 + si(sp["momentum/y"]) ** 2 + si(sp["momentum/z"]) ** 2)
        w = dist.column("energy")
        assert p == pytest.approx(np.sqrt((w + REST) ** 2 - REST ** 2) * 1e6 * E / C, rel=1e-9)
        assert si(sp["positionOffset/z"])[0] == 0.3


def test_time_is_the_delay_behind_the_reference(run, tmp_path, capsys):
    # Between the planes at 0.1 and 0.3 m the bunch drifts: each particle's
    # delay grows by 0.2 m (1 / vz - 1 / v) against the reference particle,
    # whose gamma is the mean gamma of the start bunch.
    start = keld.read_dst(run.file("inData.dst"))
    g = np.mean(start.column("energy") / REST + 1.0)
    v_ref = np.sqrt(1.0 - 1.0 / g ** 2) * C
    delays = []
    for z in ("0.100000", "0.300000"):
        h5 = tmp_path / f"{z}.h5"
        assert openpmd.main(["export", str(run.file(f"outData_{z}.dst")), str(h5)]) == 0
        with h5py.File(h5, "r") as f:
            sp = f["data/0/particles/beam"]
            delays.append(si(sp["time"]))
            assert si(sp["weighting"])[0] == 1.0
            pz, p = si(sp["momentum/z"]), np.sqrt(sum(si(sp[f"momentum/{a}"]) ** 2 for a in "xyz"))
            vz = pz / np.sqrt((REST * 1e6 * E / C) ** 2 + p ** 2) * C
    # The current of a plane file without space charge is 0, and the export says what it made of it.
    assert capsys.readouterr().out.splitlines()[-2] == (
        "outData_0.300000.dst: holds the current 0 mA (a run without space charge writes 0): "
        "weighting 1, one real particle per macro particle")
    expected = 0.2 * (1.0 / vz - 1.0 / v_ref)
    assert np.ptp(expected) > 1e-12  # the energy spread spreads the delays
    assert delays[1] - delays[0] == pytest.approx(expected, rel=1e-6, abs=1e-16)


def test_beamset_export(run, lossy_run, tmp_path):
    bs = keld.read_beamset(run.file("BeamSet.plt"))
    h5 = tmp_path / "dumps.h5"
    openpmd.export_beamset(bs, h5, charge_state=1.0)
    assert openpmd_faults(h5) == []
    with h5py.File(h5, "r") as f:
        assert sorted(f["data"], key=int) == [str(k) for k in range(len(bs.dumps))]
        last = f[f"data/{len(bs.dumps) - 1}"]
        assert last.attrs["keldStep"] == bs.dumps[-1].step and last.attrs["time"] == bs.dumps[-1].time
        sp = last["particles/beam"]
        assert np.array_equal(sp["position/y"][()], bs.dumps[-1].coordinates[:, 2])
        assert np.array_equal(sp["lost"][()], bs.dumps[-1].status)
        # The dumps carry the current of the deck: 10 mA at 352.2 MHz over 300.
        assert np.sum(si(sp["weighting"]) * si(sp["charge"])) == pytest.approx(0.01 / 352.2e6, rel=1e-9)
        assert si(sp["mass"])[0] == pytest.approx(REST * 1e6 * E / C ** 2, rel=1e-12)
    with pytest.raises(keld.KeldFileError, match="iterations"):
        openpmd.import_dst(h5)
    with pytest.raises(keld.KeldFileError) as e:
        openpmd.import_dst(h5, iteration=0)
    assert str(e.value) == (f"{h5}: species 'beam' lacks xPrime, yPrime, phase, kineticEnergy, keldCurrent, "
                            "keldFrequency, keldRestEnergy; only files exported from a .dst can be turned back "
                            "into one")
    # Without a header (no periodic dumps) there is no current: weighting 1, said once.
    one = keld.read_beamset(lossy_run.file("BeamSet.plt"))
    assert openpmd.export_beamset(one, h5) == [
        "BeamSet.plt: no beam.txt beside it and no --charge-state: charge state 1 assumed",
        "BeamSet.plt: holds no current: weighting 1, one real particle per macro particle"]
