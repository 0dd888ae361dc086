import shutil
import struct

import pytest

import keld
from keld import plot


def message(reader, path):
    with pytest.raises(keld.KeldFileError) as e:
        reader(path)
    return str(e.value)


def test_distribution_files(run, tmp_path):
    path = tmp_path / "outData_1.000000.dst"
    assert message(keld.read_dst, path) == (
        f"{path}: no such file, expected a particle distribution "
        "(23-byte header, 48 bytes per particle, 8-byte rest energy)")
    path.write_bytes(b"")
    assert message(keld.read_dst, path) == (
        f"{path}: empty file, expected a particle distribution "
        "(23-byte header, 48 bytes per particle, 8-byte rest energy)")
    path.write_bytes(b"\x7d\x64\x01")
    assert message(keld.read_dst, path) == f"{path}: 3 bytes, shorter than the 23-byte header of a particle distribution"
    whole = run.file("inData.dst").read_bytes()
    path.write_bytes(whole[:4812])
    assert message(keld.read_dst, path) == f"{path}: 4812 bytes, the header promises 300 particles (14431 bytes)"
    path.write_bytes(whole[:2] + struct.pack("<i", -4) + whole[6:])
    assert message(keld.read_dst, path) == f"{path}: the header gives a negative particle count (-4)"
    assert message(keld.read_dst, tmp_path) == (
        f"{tmp_path}: is a folder, expected a particle distribution "
        "(23-byte header, 48 bytes per particle, 8-byte rest energy)")


def test_beamset(run, tmp_path):
    whole = run.file("BeamSet.plt").read_bytes()
    path = tmp_path / "BeamSet.plt"
    records = (len(whole) - 34) // 15625
    path.write_bytes(whole[:-100])
    assert message(keld.read_beamset, path) == (
        f"{path}: {len(whole) - 100} bytes, the header promises records of 300 particles (15625 bytes each); "
        f"the record after the {records - 1} whole ones is cut short")
    path.write_bytes(b"")
    assert message(keld.read_beamset, path) == f"{path}: empty file, expected a header or a dump record"
    # Without a header the one record sets the particle count.
    record = whole[-15625:]
    path.write_bytes(record)
    assert keld.read_beamset(path).count == 300
    path.write_bytes(record[:-1])
    assert message(keld.read_beamset, path) == (
        f"{path}: 15624 bytes, expected one record without header: 25 bytes and 52 per particle")
    path.write_bytes(whole[:34] + b"\x00" + whole[35:])
    assert message(keld.read_beamset, path) == (
        f"{path}: the record at byte 34 does not start with the marker 0x7D and a kind of 0 or 1")


def test_text_files(run, tmp_path):
    path = tmp_path / "DataSet.txt"
    lines = run.file("DataSet.txt").read_text().splitlines(keepends=True)
    path.write_text("".join(lines[:5]) + lines[5][:40])
    assert message(keld.read_dataset, path) == (
        f"{path}: line 6 has {len(lines[5][:40].split())} fields, expected 40 (40 numbers per time step) "
        "(the file ends in the middle of it)")
    path.write_text(lines[0].replace(lines[0].split()[3], "abc", 1))
    assert message(keld.read_dataset, path) == f"{path}: line 1, field 4: 'abc' is not a number"
    path.write_text("\n")
    assert message(keld.read_dataset, path) == f"{path}: empty file, expected one line of 40 numbers per time step"
    path = tmp_path / "SimulationTime.txt"
    path.write_text("1.5 Exter:2: 0.1\n")
    assert message(keld.read_simulation_time, path) == (
        f"{path}: line 1 is not a timing line "
        "(total, then ' Exter:' with 4 pairs 'threads: seconds', then ' Inter:' with 7)")
    assert message(keld.read_study, tmp_path) == (
        f"{tmp_path}: no output_<i> folders, expected the output folder of an error study")


def test_plot_command_reports_one_line(run, tmp_path, capsys):
    folder = tmp_path / "run"
    shutil.copytree(run.folder, folder)
    (folder / "outData_0.300000.dst").write_bytes(b"\x7d\x64")
    assert plot.main(["phase-space", str(folder)]) == 1
    out, err = capsys.readouterr()
    assert out == ""
    assert err == f"{folder}/outData_0.300000.dst: 2 bytes, shorter than the 23-byte header of a particle distribution\n"
    assert plot.main(["envelope", str(tmp_path / "nothing")]) == 1
    assert capsys.readouterr().err == f"{tmp_path}/nothing: no such folder, expected the output folder of a run\n"
