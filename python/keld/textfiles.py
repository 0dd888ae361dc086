"""Readers of the text files of a Keld run.

Each numeric file comes back as a `Table`: a 2-D NumPy array with one named
column for each field of a line, reachable as `table["rms_x"]` or
`table.rms_x`, and the unit of each column in `table.units`.
"""

import re
from pathlib import Path

import numpy as np

from .errors import KeldFileError, read_bytes

# DataSet.txt: one line per time step, 40 fields. The statistics describe the
# bunch relative to the reference particle; x' and y' are the transverse
# momenta over gamma beta z, d the relative deviation of gamma beta z.
DATASET_COLUMNS = (
    ("energy", "MeV", "kinetic energy of the mean particle"),
    ("mean_x", "m", "mean x relative to the reference"),
    ("mean_gbx", "1", "mean gamma beta x"),
    ("mean_y", "m", "mean y relative to the reference"),
    ("mean_gby", "1", "mean gamma beta y"),
    ("mean_z", "m", "mean z relative to the reference"),
    ("mean_gbz", "1", "mean gamma beta z"),
    ("alpha_x", "1", "Twiss alpha in x"),
    ("alpha_y", "1", "Twiss alpha in y"),
    ("alpha_z", "1", "Twiss alpha in z"),
    ("beta_x", "m/rad", "Twiss beta in x"),
    ("beta_y", "m/rad", "Twiss beta in y"),
    ("beta_z", "m", "Twiss beta in z, from z in m and d"),
    ("emit_x", "m rad", "normalised rms emittance in x"),
    ("emit_y", "m rad", "normalised rms emittance in y"),
    ("emit_z", "m rad", "normalised rms emittance in z"),
    ("rms_x", "m", "rms x"),
    ("rms_xp", "rad", "rms x'"),
    ("rms_y", "m", "rms y"),
    ("rms_yp", "rad", "rms y'"),
    ("rms_z", "m", "rms z"),
    ("rms_d", "1", "rms d"),
    ("max_x", "m", "largest |x - mean|"),
    ("max_xp", "rad", "largest |x' - mean|"),
    ("max_y", "m", "largest |y - mean|"),
    ("max_yp", "rad", "largest |y' - mean|"),
    ("max_z", "m", "largest |z - mean|"),
    ("max_d", "1", "largest |d - mean|"),
    ("alive", "1", "particles alive"),
    ("ref_x", "m", "reference particle x"),
    ("ref_gbx", "1", "reference particle gamma beta x"),
    ("ref_y", "m", "reference particle y"),
    ("ref_gby", "1", "reference particle gamma beta y"),
    ("ref_z", "m", "reference particle z"),
    ("ref_gbz", "1", "reference particle gamma beta z"),
    ("frame_state", "1", "frame: state"),
    ("frame_plane", "1", "frame: plane"),
    ("frame_step_bend", "m", "frame: step in the bending plane"),
    ("frame_step_z", "m", "frame: step in z"),
    ("step", "1", "time step"),
)

SYNPARTICLE_COLUMNS = (
    ("z", "m"), ("energy", "MeV"), ("x", "m"), ("y", "m"),
    ("gbx", "1"), ("gby", "1"), ("gbz", "1"), ("bend_plane", "1"), ("bend_angle", "rad"),
)

SESYNPARTICLE_COLUMNS = (
    ("x", "m"), ("gbx", "1"), ("y", "m"), ("gby", "1"), ("z", "m"), ("gbz", "1"),
    ("bx", "T"), ("by", "T"), ("bz", "T"), ("lost", "1"),
)

COLLISION_COLUMNS = (
    ("x", "m"), ("y", "m"), ("z", "m"),
    ("gbx_c", "m/s"), ("gby_c", "m/s"), ("gbz_c", "m/s"),  # gamma beta times c
    ("charge_number", "1"), ("rest_energy", "MeV"), ("multiplicity", "1"), ("time", "s"),
)

PHASE_COLUMNS = (("cavity", "1"), ("time", "s"), ("z", "m"), ("energy", "MeV"))

SCANDATA_COLUMNS = (("phase", "deg"), ("time", "s"))


class Table:
    """Named numeric columns read from one text file."""

    def __init__(self, path, columns, data):
        self.path = Path(path)
        self.columns = tuple(name for name, unit in columns)
        self.units = {name: unit for name, unit in columns}
        self.data = data
        self._index = {name: k for k, name in enumerate(self.columns)}

    def __getitem__(self, name):
        try:
            return self.data[:, self._index[name]]
        except KeyError:
            raise KeyError(f"{self.path.name} has no column {name!r}; columns: {', '.join(self.columns)}") from None

    def __getattr__(self, name):
        if name.startswith("_") or name not in self._index:
            raise AttributeError(name)
        return self.data[:, self._index[name]]

    def __len__(self):
        return self.data.shape[0]

    def __repr__(self):
        return f"<Table {self.path.name}: {len(self)} lines of {len(self.columns)} columns>"


def _lines(path, expected, allow_empty):
    raw = read_bytes(path, expected)
    if not raw.strip() and not allow_empty:
        raise KeldFileError(f"{Path(path)}: empty file, expected {expected}")
    text = raw.decode("latin-1")
    ends_whole = text.endswith("\n")
    lines = text.split("\n")
    if ends_whole:
        lines.pop()
    return lines, ends_whole


def _numbers(path, rows, width, firsts):
    """Turns rows of number tokens into a float array; a token that is no
    number is reported with its line (taken from `firsts`) and field."""
    if not rows:
        return np.zeros((0, width))
    try:
        return np.array(rows, dtype=np.float64)
    except ValueError:
        pass
    for r, row in enumerate(rows):
        for k, token in enumerate(row):
            try:
                float(token)
            except ValueError:
                raise KeldFileError(
                    f"{Path(path)}: line {firsts[r]}, field {k + 1}: {token!r} is not a number") from None
    raise KeldFileError(f"{Path(path)}: cannot be read as numbers")  # not reached


def _fields(path, lines, ends_whole, count, what):
    """Splits lines on blanks; every line must have `count` fields. Blank
    lines are skipped."""
    rows, numbers = [], []
    for n, line in enumerate(lines, 1):
        tokens = line.split()
        if not tokens:
            continue
        if len(tokens) != count:
            cut = " (the file ends in the middle of it)" if n == len(lines) and not ends_whole else ""
            raise KeldFileError(f"{Path(path)}: line {n} has {len(tokens)} fields, expected {count} ({what}){cut}")
        rows.append(tokens)
        numbers.append(n)
    return rows, numbers


def _number_table(path, lines, ends_whole, count, what):
    """All lines as numbers, `count` to a line. NumPy's own parser reads a
    sound file quickly; any fault sends the lines through the slow reading,
    which finds and names the line at fault."""
    if any(line.strip() for line in lines):
        try:
            data = np.loadtxt(lines, dtype=np.float64, ndmin=2, comments=None)
            if data.shape[1] == count:
                return data
        except ValueError:
            pass
    rows, firsts = _fields(path, lines, ends_whole, count, what)
    return _numbers(path, rows, count, firsts)


def read_dataset(path):
    """DataSet.txt: the bunch statistics, one row per time step, 40 named
    columns (see DATASET_COLUMNS for names, units and meaning)."""
    lines, whole = _lines(path, "one line of 40 numbers per time step", False)
    data = _number_table(path, lines, whole, 40, "40 numbers per time step")
    return Table(path, [(n, u) for n, u, _ in DATASET_COLUMNS], data)


def read_synparticle(path):
    """synParticle.txt: the reference particle's track, one row per step.
    The local time stamps of the lines are in `.stamps`."""
    lines, whole = _lines(path, "one line per time step: a time stamp and 9 numbers", False)
    rows, stamps, firsts = [], [], []
    for n, line in enumerate(lines, 1):
        tokens = line.split()
        if not tokens:
            continue
        if len(tokens) < 10:
            cut = " (the file ends in the middle of it)" if n == len(lines) and not whole else ""
            raise KeldFileError(
                f"{Path(path)}: line {n} has {len(tokens)} fields, expected a time stamp and 9 numbers{cut}")
        stamps.append(" ".join(tokens[:-9]))
        rows.append(tokens[-9:])
        firsts.append(n)
    table = Table(path, SYNPARTICLE_COLUMNS, _numbers(path, rows, 9, firsts))
    table.stamps = stamps
    return table


def read_se_synparticle(path):
    """SeSynParticle.txt: the reference particle at every step (and, in a
    secondary-beam run, each tracked particle): coordinates, momenta, the
    magnetic field at the particle and its lost mark."""
    lines, whole = _lines(path, "one line of 10 numbers per step", False)
    return Table(path, SESYNPARTICLE_COLUMNS, _number_table(path, lines, whole, 10, "10 numbers per step"))


def read_collisions(path):
    """collisionData.txt: one row per lost particle, at the point where it
    crossed the aperture. The particle names are in `.species`. A run
    without losses leaves the file empty: that gives a table of no rows."""
    lines, whole = _lines(path, "one line of 10 numbers and a name per lost particle", True)
    rows, firsts = _fields(path, lines, whole, 11, "10 numbers and the particle's name")
    table = Table(path, COLLISION_COLUMNS, _numbers(path, [r[:10] for r in rows], 10, firsts))
    table.species = [r[10] for r in rows]
    return table


def read_phase(path):
    """Phase.txt: two rows per radio-frequency cavity (entry, then exit) of the
    synchronous particle's flight: cavity number from 1, time, z, energy."""
    lines, whole = _lines(path, "two lines per cavity: number, time, z, energy", True)
    return Table(path, PHASE_COLUMNS, _number_table(path, lines, whole, 4, "cavity number, time, z and energy"))


def read_scandata(path):
    """scanData.txt: entrance phase (degrees) and arrival time (s) of each
    radio-frequency element in beamline order."""
    lines, whole = _lines(path, "one line per cavity: entrance phase and arrival time", True)
    return Table(path, SCANDATA_COLUMNS, _number_table(path, lines, whole, 2, "entrance phase and arrival time"))


_PAIR = re.compile(r"(-?\d+): (\S+)")

SIMULATION_EXTERNAL = ("push", "map", "field_pre", "z_to_t")
SIMULATION_INTERNAL = ("weight", "weight_reduce", "table", "convolution", "convolution_reduce", "gradient",
                       "allocate")


def read_simulation_time(path):
    """SimulationTime.txt: one dict per run, with the total in seconds and, for
    each account, the pair (threads, seconds)."""
    lines, _ = _lines(path, "one timing line per run", False)
    runs = []
    for n, line in enumerate(lines, 1):
        if not line.strip():
            continue
        head, sep, rest = line.partition(" Exter:")
        outer, sep2, inner = rest.partition(" Inter:")
        ext, inn = _PAIR.findall(outer), _PAIR.findall(inner)
        try:
            total = float(head)
        except ValueError:
            total = None
        if not sep or not sep2 or total is None or len(ext) != 4 or len(inn) != 7:
            raise KeldFileError(
                f"{Path(path)}: line {n} is not a timing line "
                "(total, then ' Exter:' with 4 pairs 'threads: seconds', then ' Inter:' with 7)")
        record = {"total": total}
        for name, (threads, seconds) in zip(SIMULATION_EXTERNAL + SIMULATION_INTERNAL, ext + inn):
            record[name] = (int(threads), float(seconds))
        runs.append(record)
    return runs


_SINGLE = (
    re.compile(r"dx:(\S+?)mm\s+dy:(\S+?)mm\s+dz:(\S+?)mm"),
    re.compile(r"dpx:(\S+?)mrad\s+dpy:(\S+?)mrad\s+dpz:--"),
    re.compile(r"Energy:(\S+?)MeV"),
)


def read_single_particle(path):
    """SingleParticle.txt of a one-particle run: the start offsets as a dict
    with dx, dy, dz in mm, dpx, dpy in mrad and energy in MeV."""
    lines, _ = _lines(path, "three lines: dx/dy/dz, dpx/dpy, Energy", False)
    lines = [line.strip() for line in lines if line.strip()]
    found = [p.fullmatch(line) for p, line in zip(_SINGLE, lines)]
    if len(lines) != 3 or not all(found):
        raise KeldFileError(f"{Path(path)}: expected three lines 'dx:..mm  dy:..mm  dz:..mm', "
                            "'dpx:..mrad  dpy:..mrad  dpz:--' and 'Energy:..MeV'")
    try:
        values = [float(v) for m in found for v in m.groups()]
    except ValueError as e:
        raise KeldFileError(f"{Path(path)}: {e}") from None
    return dict(zip(("dx", "dy", "dz", "dpx", "dpy", "energy"), values))


def read_error_data(path):
    """StaticErrorData.txt or DynamicErrorData.txt: the rows of one error
    sample, each a NumPy array (rows may differ in length)."""
    lines, _ = _lines(path, "one line of numbers per error row", True)
    rows = []
    for n, line in enumerate(lines, 1):
        tokens = line.split()
        if tokens:
            rows.append(_numbers(path, [tokens], len(tokens), [n])[0])
    return rows
