"""Readers and writer of the binary particle files of a Keld run.

Both layouts are little endian with no padding.

Particle distribution (`inData.dst`, `outData_<z>.dst`, and any file a run
can start from):

    byte 125, byte 100, int32 N, double current (mA), double frequency (MHz),
    byte 125, N x 6 doubles (x cm, x' rad, y cm, y' rad, phase rad,
    kinetic energy MeV), double rest energy (MeV)

Particle dumps (`BeamSet.plt`): an optional header

    byte 0x7D, byte 100, int32 period, int32 N, double current (mA),
    double frequency (MHz), double rest energy (MeV)

then records of

    byte 0x7D, int32 kind (0 time code, 1 z code), int32 step, double time,
    double z, N x (6 doubles, int32)

Without a header (a run with no periodic dumps) the file holds the one record
of the last output stop, and N follows from the file's size.
"""

import re
import struct
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from .errors import KeldFileError, read_bytes

DST_HEAD = struct.Struct("<BBiddB")  # 23 bytes
DST_COLUMNS = ("x", "xp", "y", "yp", "phase", "energy")
DST_UNITS = {"x": "cm", "xp": "rad", "y": "cm", "yp": "rad", "phase": "rad", "energy": "MeV"}

BEAMSET_HEAD = struct.Struct("<BBiiddd")  # 34 bytes
BEAMSET_RECORD_HEAD = struct.Struct("<Biidd")  # 25 bytes
BEAMSET_ENTRY = np.dtype([("coordinate", "<f8", (6,)), ("status", "<i4")])  # 52 bytes, packed

_DST_EXPECTED = "a particle distribution (23-byte header, 48 bytes per particle, 8-byte rest energy)"


@dataclass
class Distribution:
    """One particle distribution file. `particles` has one row per particle:
    x (cm), x' (rad), y (cm), y' (rad), phase (rad), kinetic energy (MeV).
    `markers` are the three marker bytes as found, kept so that the file can
    be written back unchanged."""

    particles: np.ndarray
    current: float
    frequency: float
    rest_energy: float
    markers: bytes = b"\x7d\x64\x7d"
    path: Path = None

    def column(self, name):
        return self.particles[:, DST_COLUMNS.index(name)]

    @property
    def count(self):
        return self.particles.shape[0]

    @property
    def plane_z(self):
        """z of the output plane, from a name outData_<z>.dst; None otherwise."""
        return plane_z_of(self.path) if self.path is not None else None

    def to_bytes(self):
        n = self.count
        data = bytearray(DST_HEAD.pack(self.markers[0], self.markers[1], n, self.current, self.frequency,
                                       self.markers[2]))
        data += np.ascontiguousarray(self.particles, dtype="<f8").tobytes()
        data += struct.pack("<d", self.rest_energy)
        return bytes(data)


def plane_z_of(path):
    m = re.fullmatch(r"outData_(.+)\.dst", Path(path).name)
    if not m:
        return None
    try:
        return float(m.group(1))
    except ValueError:
        return None


def read_dst(path):
    """Reads a particle distribution file (inData.dst, outData_<z>.dst)."""
    p = Path(path)
    data = read_bytes(p, _DST_EXPECTED)
    size = len(data)
    if size == 0:
        raise KeldFileError(f"{p}: empty file, expected {_DST_EXPECTED}")
    if size < DST_HEAD.size:
        raise KeldFileError(f"{p}: {size} bytes, shorter than the 23-byte header of a particle distribution")
    m0, m1, n, current, frequency, m2 = DST_HEAD.unpack_from(data, 0)
    if n < 0:
        raise KeldFileError(f"{p}: the header gives a negative particle count ({n})")
    expected = DST_HEAD.size + 48 * n + 8
    if size != expected:
        raise KeldFileError(f"{p}: {size} bytes, the header promises {n} particles ({expected} bytes)")
    particles = np.frombuffer(data, dtype="<f8", count=6 * n, offset=DST_HEAD.size).reshape(n, 6).astype(np.float64)
    (rest,) = struct.unpack_from("<d", data, expected - 8)
    return Distribution(particles, current, frequency, rest, bytes((m0, m1, m2)), p)


def write_dst(dist, path):
    """Writes a particle distribution file in the layout a Keld run reads."""
    Path(path).write_bytes(dist.to_bytes())


@dataclass
class Dump:
    """One record of BeamSet.plt. For kind 0 (time code) `coordinates` holds
    x, gamma beta x, y, gamma beta y, z, gamma beta z relative to the
    reference particle (positions in m) and `status` the lost mark; for kind 1
    (z code) it holds x, gamma beta x, y, gamma beta y, time (s),
    gamma beta z of each particle's crossing and `status` the crossing flag."""

    kind: int
    step: int
    time: float
    z: float
    coordinates: np.ndarray
    status: np.ndarray


@dataclass
class BeamSet:
    """All of BeamSet.plt. The header values are None when the file has no
    header."""

    count: int
    period: int = None
    current: float = None
    frequency: float = None
    rest_energy: float = None
    dumps: list = field(default_factory=list)
    path: Path = None


def read_beamset(path):
    """Reads BeamSet.plt: the header, if there is one, and every dump."""
    p = Path(path)
    data = read_bytes(p, "particle dumps (a header and records, or one record)")
    size = len(data)
    if size == 0:
        raise KeldFileError(f"{p}: empty file, expected a header or a dump record")
    if size < 2 or data[0] != 0x7D:
        raise KeldFileError(f"{p}: does not start with the marker byte 0x7D")
    result = BeamSet(count=0, path=p)
    offset = 0
    if data[1] == 100:
        if size < BEAMSET_HEAD.size:
            raise KeldFileError(f"{p}: {size} bytes, shorter than the 34-byte header")
        _, _, period, n, current, frequency, rest = BEAMSET_HEAD.unpack_from(data, 0)
        if n < 0:
            raise KeldFileError(f"{p}: the header gives a negative particle count ({n})")
        result.period, result.count, result.current, result.frequency, result.rest_energy = (
            period, n, current, frequency, rest)
        offset = BEAMSET_HEAD.size
        record = BEAMSET_RECORD_HEAD.size + 52 * n
        if (size - offset) % record:
            whole = (size - offset) // record
            raise KeldFileError(
                f"{p}: {size} bytes, the header promises records of {n} particles ({record} bytes each); "
                f"the record after the {whole} whole ones is cut short")
    else:
        # No header: the file holds the one record of the last output stop.
        if (size - BEAMSET_RECORD_HEAD.size) % 52 or size < BEAMSET_RECORD_HEAD.size:
            raise KeldFileError(
                f"{p}: {size} bytes, expected one record without header: 25 bytes and 52 per particle")
        result.count = (size - BEAMSET_RECORD_HEAD.size) // 52
        record = size
    n = result.count
    while offset < size:
        marker, kind, step, time, z = BEAMSET_RECORD_HEAD.unpack_from(data, offset)
        if marker != 0x7D or kind not in (0, 1):
            raise KeldFileError(
                f"{p}: the record at byte {offset} does not start with the marker 0x7D and a kind of 0 or 1")
        entries = np.frombuffer(data, dtype=BEAMSET_ENTRY, count=n, offset=offset + BEAMSET_RECORD_HEAD.size)
        result.dumps.append(Dump(kind, step, time, z, entries["coordinate"].astype(np.float64),
                                 entries["status"].astype(np.int32)))
        offset += record
    return result
