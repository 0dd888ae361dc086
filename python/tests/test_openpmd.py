import h5py
import numpy as np
import pytest

import keld
from keld import openpmd


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


def test_dst_export_is_openpmd(run, tmp_path):
    dist = keld.read_dst(run.file("outData_0.500000.dst"))
    h5 = tmp_path / "plane.h5"
    openpmd.export_dst(dist, h5)
    with h5py.File(h5, "r") as f:
        assert f.attrs["openPMD"] == b"1.1.0" and f.attrs["basePath"] == b"/data/%T/"
        sp = f["data/0/particles/beam"]
        for record in ("position", "positionOffset", "momentum", "charge", "mass", "time", "kineticEnergy"):
            assert len(sp[record].attrs["unitDimension"]) == 7
        # SI values: x in m, z at the plane, momentum of a 3 MeV proton.
        x = sp["position/x"][()] * sp["position/x"].attrs["unitSI"]
        assert x == pytest.approx(dist.column("x") / 100.0)
        assert sp["positionOffset/z"].attrs["value"] == 0.5
        pz = sp["momentum/z"][()] * sp["momentum/z"].attrs["unitSI"]
        assert pz.mean() == pytest.approx(np.sqrt(9.0 + 6.0 * 938.272029) * 1e6 * 1.60217653e-19 / 299792458.0,
                                          rel=1e-3)
        charge = sp["charge"].attrs["value"] * 300
        assert charge == 0.0  # the plane files of a run without space charge carry no current
        assert sp["mass"].attrs["value"] * sp["mass"].attrs["unitSI"] == pytest.approx(1.6726e-27, rel=1e-4)


def test_beamset_export(run, tmp_path):
    bs = keld.read_beamset(run.file("BeamSet.plt"))
    h5 = tmp_path / "dumps.h5"
    openpmd.export_beamset(bs, h5)
    with h5py.File(h5, "r") as f:
        assert sorted(f["data"], key=int) == [str(k) for k in range(len(bs.dumps))]
        last = f[f"data/{len(bs.dumps) - 1}"]
        assert last.attrs["keldStep"] == bs.dumps[-1].step and last.attrs["time"] == bs.dumps[-1].time
        assert np.array_equal(last["particles/beam/position/y"][()], bs.dumps[-1].coordinates[:, 2])
        assert np.array_equal(last["particles/beam/lost"][()], bs.dumps[-1].status)
    with pytest.raises(keld.KeldFileError, match="iterations"):
        openpmd.import_dst(h5)
    with pytest.raises(keld.KeldFileError) as e:
        openpmd.import_dst(h5, iteration=0)
    assert str(e.value) == (f"{h5}: species 'beam' lacks xPrime, yPrime, phase, kineticEnergy, keldCurrent, "
                            "keldFrequency, keldRestEnergy; only files exported from a .dst can be turned back "
                            "into one")
