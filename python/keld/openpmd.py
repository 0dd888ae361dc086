"""openPMD (HDF5) export of Keld particle data, and import back to .dst.

A distribution file becomes iteration 0 of one species. Its six columns are
kept exactly as they stand, so that the import gives the same bytes back:

    position/x, position/y   x and y in cm, unitSI 0.01
    xPrime, yPrime, phase    x', y' (rad) and phase (rad), dimensionless
    kineticEnergy            MeV, unitSI 1.60217653e-13 J
    header values            species attributes keldCurrent (mA),
                             keldFrequency (MHz), keldRestEnergy (MeV),
                             keldMarkers (the three marker bytes)

Beside them stand the records other codes look for, derived from the
columns:

    position/z               0: the plane lies at positionOffset/z
    momentum                 of one real particle, from the kinetic energy
                             split along the slopes
    time                     the delay behind the reference particle at the
                             plane, phase / (2 pi f), in s
    weighting                real particles per macro particle: the bunch
                             charge I / f over N times the charge of one
    charge, mass             of one real particle (charge state times e,
                             rest energy over c^2)
    id                       0 to N - 1

so that the sum of weighting times charge is the bunch charge I / f. The
charge state is not in a distribution file: it comes from the run's beam.txt
(numofcharge), found beside the file as keld.decks finds decks, or from
--charge-state; without either it is taken as 1 and the export says so. A
plane file of a run without space charge holds the current 0: the weighting
is then 1, and the export says so too. The species also carries the totals
numParticles, totalCharge and chargeLive (C).

A BeamSet.plt file becomes one iteration per dump, with the coordinates and
momenta of each particle, the lost mark or crossing flag, the same weighting,
charge and mass from its header, and the dump's step, kind and z as
iteration attributes.

Command line:

    keld-openpmd export FILE.dst|BeamSet.plt OUT.h5 [--charge-state Q] [--decks DIR]
    keld-openpmd import IN.h5 OUT.dst [--iteration K]
"""

import argparse
import os
import sys
import time as clock
from pathlib import Path

import numpy as np

from .binary import Distribution, read_beamset, read_dst, write_dst
from .decks import find_decks, read_decks
from .errors import KeldFileError

ELEMENTARY_CHARGE = 1.60217653e-19
SPEED_OF_LIGHT = 299792458.0
MEV = 1e6 * ELEMENTARY_CHARGE  # J
MEV_PER_C = MEV / SPEED_OF_LIGHT  # kg m/s
MEV_PER_C2 = MEV / SPEED_OF_LIGHT ** 2  # kg

# unitDimension: powers of length, mass, time, current, temperature, amount,
# luminous intensity.
NONE = (0, 0, 0, 0, 0, 0, 0)
LENGTH = (1, 0, 0, 0, 0, 0, 0)
MOMENTUM = (1, 1, -1, 0, 0, 0, 0)
CHARGE = (0, 0, 1, 1, 0, 0, 0)
MASS = (0, 1, 0, 0, 0, 0, 0)
TIME = (0, 0, 1, 0, 0, 0, 0)
ENERGY = (2, 1, -2, 0, 0, 0, 0)

_KELD_RECORDS = ("xPrime", "yPrime", "phase", "kineticEnergy")


def _text(value):
    return np.bytes_(value)


def _h5py():
    try:
        import h5py
    except ImportError:
        raise KeldFileError("h5py is not installed: it comes with the Debian package python3-h5py") from None
    return h5py


def _create(h5py, out):
    try:
        return h5py.File(out, "w")
    except OSError as e:
        reason = os.strerror(e.errno) if e.errno else str(e).split(" (")[0]
        raise KeldFileError(f"{out}: cannot be written ({reason})") from None


def _root(f):
    f.attrs["openPMD"] = _text("1.1.0")
    f.attrs["openPMDextension"] = np.uint32(0)
    f.attrs["basePath"] = _text("/data/%T/")
    f.attrs["particlesPath"] = _text("particles/")
    f.attrs["iterationEncoding"] = _text("groupBased")
    f.attrs["iterationFormat"] = _text("/data/%T/")
    f.attrs["software"] = _text("Keld")
    f.attrs["date"] = _text(clock.strftime("%Y-%m-%d %H:%M:%S %z"))


def _iteration(f, index, t):
    it = f.create_group(f"data/{index}")
    it.attrs["time"] = np.float64(t)
    it.attrs["dt"] = np.float64(0.0)  # the transport's step is not part of the dumped data
    it.attrs["timeUnitSI"] = np.float64(1.0)
    return it


def _record(obj, dimension, macro_weighted=0, weighting_power=0.0):
    obj.attrs["unitDimension"] = np.array(dimension, dtype=np.float64)
    obj.attrs["timeOffset"] = np.float64(0.0)
    obj.attrs["macroWeighted"] = np.uint32(macro_weighted)
    obj.attrs["weightingPower"] = np.float64(weighting_power)
    return obj


def _component(parent, name, values, unit_si):
    ds = parent.create_dataset(name, data=np.ascontiguousarray(values, dtype=np.float64))
    ds.attrs["unitSI"] = np.float64(unit_si)
    return ds


def _constant(group, value, n, unit_si):
    group.attrs["value"] = np.float64(value)
    group.attrs["shape"] = np.array([n], dtype=np.uint64)
    group.attrs["unitSI"] = np.float64(unit_si)
    return group


def _vector(sp, name, dimension, comps, n, weighting_power=0.0):
    """A record of three components; each is (values, unitSI) or a constant
    given as (float, unitSI)."""
    rec = _record(sp.create_group(name), dimension, 0, weighting_power)
    for axis, (values, unit_si) in zip("xyz", comps):
        if np.isscalar(values):
            _constant(rec.create_group(axis), values, n, unit_si)
        else:
            _component(rec, axis, values, unit_si)
    return rec


def _scalar(sp, name, dimension, values, unit_si, macro_weighted=0, weighting_power=0.0):
    ds = _component(sp, name, values, unit_si)
    return _record(ds, dimension, macro_weighted, weighting_power)


def _scalar_constant(sp, name, dimension, value, n, unit_si, macro_weighted, weighting_power):
    g = _constant(sp.create_group(name), value, n, unit_si)
    return _record(g, dimension, macro_weighted, weighting_power)


def _ids(sp, n):
    ds = sp.create_dataset("id", data=np.arange(n, dtype=np.uint64))
    ds.attrs["unitSI"] = np.float64(1.0)
    _record(ds, NONE)


class Charge:
    """What turns macro particles into real ones: the charge state of one
    real particle and the number of real particles per macro particle."""

    def __init__(self, state, weighting, notes):
        self.state = state
        self.weighting = weighting
        self.notes = notes


def _charge(current_mA, frequency_MHz, n, charge_state, source):
    """Weighting from the bunch charge I / f, shared by the N macro
    particles: |I / f| / (N |q| e)."""
    notes = []
    if charge_state is None:
        charge_state = 1.0
        notes.append(f"{source}: no beam.txt beside it and no --charge-state: charge state 1 assumed")
    if current_mA is None or current_mA == 0.0 or not frequency_MHz or n == 0:
        why = "holds no current" if current_mA is None else f"holds the current {current_mA:g} mA"
        if current_mA == 0.0:
            why += " (a run without space charge writes 0)"
        notes.append(f"{source}: {why}: weighting 1, one real particle per macro particle")
        return Charge(charge_state, 1.0, notes)
    bunch = abs(current_mA / 1000.0 / (frequency_MHz * 1e6))
    return Charge(charge_state, bunch / (n * abs(charge_state) * ELEMENTARY_CHARGE), notes)


def _particle_records(sp, charge, n, rest_energy):
    """weighting, charge and mass of one real particle, and the species
    totals of the beam-physics extension."""
    _scalar_constant(sp, "weighting", NONE, charge.weighting, n, 1.0, 1, 1.0)
    _scalar_constant(sp, "charge", CHARGE, charge.state, n, ELEMENTARY_CHARGE, 0, 1.0)
    if rest_energy is not None:
        _scalar_constant(sp, "mass", MASS, rest_energy, n, MEV_PER_C2, 0, 1.0)
    total = n * charge.weighting * charge.state * ELEMENTARY_CHARGE
    sp.attrs["numParticles"] = np.uint64(n)
    sp.attrs["totalCharge"] = np.float64(total)
    sp.attrs["chargeLive"] = np.float64(total)
    sp.attrs["chargeUnitSI"] = np.float64(1.0)


def _species_type(sp, species_type):
    if species_type:
        sp.attrs["speciesType"] = _text(species_type)


def export_dst(dist, out, species="beam", charge_state=None, species_type=None):
    """Writes one distribution as iteration 0 of an openPMD file. Returns the
    notes on what had to be assumed (see the module's text)."""
    h5py = _h5py()
    n = dist.count
    x, xp, y, yp, phase, energy = (dist.particles[:, k] for k in range(6))
    # Momenta from the kinetic energy, split by the slopes. They are derived
    # for other codes only; a value that is not finite stays so, quietly.
    with np.errstate(all="ignore"):
        p = np.sqrt(energy * energy + 2.0 * energy * dist.rest_energy)
        pz = p / np.sqrt(1.0 + xp * xp + yp * yp)
        px, py = xp * pz, yp * pz
    plane = dist.plane_z or 0.0
    source = dist.path.name if dist.path is not None else "the distribution"
    charge = _charge(dist.current, dist.frequency, n, charge_state, source)
    with _create(h5py, out) as f:
        _root(f)
        sp = _iteration(f, 0, 0.0).create_group(f"particles/{species}")
        sp.attrs["keldSource"] = _text("dst")
        sp.attrs["keldMarkers"] = np.frombuffer(dist.markers, dtype=np.uint8)
        sp.attrs["keldCurrent"] = np.float64(dist.current)
        sp.attrs["keldFrequency"] = np.float64(dist.frequency)
        sp.attrs["keldRestEnergy"] = np.float64(dist.rest_energy)
        sp.attrs["keldPlaneZ"] = np.float64(plane)
        _species_type(sp, species_type)
        _vector(sp, "position", LENGTH, [(x, 0.01), (y, 0.01), (0.0, 1.0)], n)
        _vector(sp, "positionOffset", LENGTH, [(0.0, 1.0), (0.0, 1.0), (plane, 1.0)], n)
        _vector(sp, "momentum", MOMENTUM, [(px, MEV_PER_C), (py, MEV_PER_C), (pz, MEV_PER_C)], n, 1.0)
        if dist.frequency != 0.0:
            # The phase is 2 pi f times the delay behind the reference
            # particle (behind the bunch centre in a generated inData.dst).
            _scalar(sp, "time", TIME, phase / (2.0 * np.pi * dist.frequency * 1e6), 1.0)
        _scalar(sp, "xPrime", NONE, xp, 1.0)
        _scalar(sp, "yPrime", NONE, yp, 1.0)
        _scalar(sp, "phase", NONE, phase, 1.0)
        _scalar(sp, "kineticEnergy", ENERGY, energy, MEV, 0, 1.0)
        _particle_records(sp, charge, n, dist.rest_energy)
        _ids(sp, n)
    return charge.notes


def export_beamset(beamset, out, species="beam", charge_state=None, species_type=None):
    """Writes every dump of a BeamSet.plt as one iteration, numbered in file
    order; the dump's step, kind and z are iteration attributes. Returns the
    notes on what had to be assumed."""
    h5py = _h5py()
    n = beamset.count
    source = beamset.path.name if beamset.path is not None else "the dumps"
    charge = _charge(beamset.current, beamset.frequency, n, charge_state, source)
    with _create(h5py, out) as f:
        _root(f)
        for k, dump in enumerate(beamset.dumps):
            it = _iteration(f, k, dump.time)
            it.attrs["keldStep"] = np.int32(dump.step)
            it.attrs["keldKind"] = np.int32(dump.kind)
            it.attrs["keldZ"] = np.float64(dump.z)
            sp = it.create_group(f"particles/{species}")
            sp.attrs["keldSource"] = _text("BeamSet.plt")
            _species_type(sp, species_type)
            q = dump.coordinates
            if dump.kind == 0:
                # Time code: one common time, positions relative to the
                # reference particle, which stands at z = dump.z.
                z_comp = (q[:, 4], 1.0)
                sp.attrs["keldRelativeToReference"] = np.uint32(1)
            else:
                # z code: every particle at the plane, each at its own time.
                z_comp = (0.0, 1.0)
                _scalar(sp, "time", TIME, q[:, 4], 1.0)
            _vector(sp, "position", LENGTH, [(q[:, 0], 1.0), (q[:, 2], 1.0), z_comp], n)
            _vector(sp, "positionOffset", LENGTH, [(0.0, 1.0), (0.0, 1.0), (dump.z, 1.0)], n)
            if beamset.rest_energy is not None:
                mc = beamset.rest_energy * MEV_PER_C
                _vector(sp, "momentum", MOMENTUM, [(q[:, 1], mc), (q[:, 3], mc), (q[:, 5], mc)], n, 1.0)
            else:
                _vector(sp, "gammaBeta", NONE, [(q[:, 1], 1.0), (q[:, 3], 1.0), (q[:, 5], 1.0)], n)
            _particle_records(sp, charge, n, beamset.rest_energy)
            status = sp.create_dataset("lost" if dump.kind == 0 else "crossingFlag", data=dump.status)
            status.attrs["unitSI"] = np.float64(1.0)
            _record(status, NONE)
            _ids(sp, n)
    return charge.notes


def run_charge(source, decks=None):
    """Charge state and species of the run that wrote `source`, from the
    beam.txt in `decks` or in the decks found beside the file; (None, None)
    when there is none."""
    folder = decks if decks is not None else find_decks(Path(source).resolve().parent)
    if folder is None or not (Path(folder) / "beam.txt").is_file():
        return None, None
    found = read_decks(folder)
    return found.charge_state, found.species


def _values(obj):
    """Raw stored values of a record component and its unitSI."""
    if "value" in obj.attrs:
        shape = tuple(int(s) for s in obj.attrs["shape"])
        return np.full(shape, float(obj.attrs["value"])), float(obj.attrs["unitSI"])
    return np.asarray(obj[()], dtype=np.float64), float(obj.attrs.get("unitSI", 1.0))


def import_dst(path, iteration=None, species=None):
    """Reads a distribution back from an openPMD file that export_dst wrote."""
    h5py = _h5py()
    p = Path(path)
    if not p.exists():
        raise KeldFileError(f"{p}: no such file, expected an openPMD file (HDF5)")
    try:
        f = h5py.File(p, "r")
    except OSError:
        raise KeldFileError(f"{p}: not an HDF5 file, expected an openPMD file") from None
    with f:
        if "data" not in f or not len(f["data"]):
            raise KeldFileError(f"{p}: no iterations under /data/, expected an openPMD file")
        iterations = sorted(f["data"].keys(), key=lambda s: int(s) if s.isdigit() else s)
        if iteration is None:
            if len(iterations) != 1:
                raise KeldFileError(f"{p}: {len(iterations)} iterations ({', '.join(iterations)}); choose one")
            key = iterations[0]
        else:
            key = str(iteration)
            if key not in f["data"]:
                raise KeldFileError(f"{p}: no iteration {key}; there are {', '.join(iterations)}")
        group = f["data"][key].get("particles")
        names = list(group.keys()) if group is not None else []
        if species is None:
            if len(names) != 1:
                raise KeldFileError(f"{p}: iteration {key} has {len(names)} particle species; choose one")
            species = names[0]
        if species not in names:
            raise KeldFileError(f"{p}: iteration {key} has no particle species {species!r}")
        sp = group[species]
        missing = [r for r in _KELD_RECORDS if r not in sp]
        missing += [a for a in ("keldCurrent", "keldFrequency", "keldRestEnergy") if a not in sp.attrs]
        if "position" not in sp or missing:
            raise KeldFileError(
                f"{p}: species {species!r} lacks {', '.join(missing) or 'position'}; "
                "only files exported from a .dst can be turned back into one")
        columns = []
        for name in ("x", "xPrime", "y", "yPrime", "phase", "kineticEnergy"):
            values, unit_si = _values(sp["position"][name] if name in ("x", "y") else sp[name])
            wanted = {"x": 0.01, "y": 0.01, "kineticEnergy": MEV}.get(name, 1.0)
            columns.append(values if unit_si == wanted else values * (unit_si / wanted))
        n = columns[0].shape[0]
        if any(c.shape != (n,) for c in columns):
            raise KeldFileError(f"{p}: the records of species {species!r} differ in length")
        markers = bytes(np.asarray(sp.attrs.get("keldMarkers", [125, 100, 125]), dtype=np.uint8))
        return Distribution(np.column_stack(columns) if n else np.zeros((0, 6)),
                            float(sp.attrs["keldCurrent"]), float(sp.attrs["keldFrequency"]),
                            float(sp.attrs["keldRestEnergy"]), markers)


def main(argv=None):
    parser = argparse.ArgumentParser(prog="keld-openpmd", description=__doc__.split("\n\n")[0])
    sub = parser.add_subparsers(dest="command", required=True)
    exp = sub.add_parser("export", help="write a .dst or BeamSet.plt file as openPMD (HDF5)")
    exp.add_argument("source")
    exp.add_argument("target")
    exp.add_argument("--species", default="beam")
    exp.add_argument("--charge-state", type=float, help="charge state of one particle (default: numofcharge of the "
                     "run's beam.txt)")
    exp.add_argument("--decks", help="the run's input folder (default: looked for beside the file)")
    imp = sub.add_parser("import", help="write an openPMD file that came from a .dst back as .dst")
    imp.add_argument("source")
    imp.add_argument("target")
    imp.add_argument("--iteration", type=int)
    imp.add_argument("--species")
    args = parser.parse_args(argv)
    try:
        if args.command == "export":
            state, kind = run_charge(args.source, args.decks)
            if args.charge_state is not None:
                state = args.charge_state
            export = export_beamset if Path(args.source).suffix == ".plt" else export_dst
            read = read_beamset if Path(args.source).suffix == ".plt" else read_dst
            for note in export(read(args.source), args.target, args.species, state, kind):
                print(note)
        else:
            write_dst(import_dst(args.source, args.iteration, args.species), args.target)
    except KeldFileError as e:
        print(e, file=sys.stderr)
        return 1
    except OSError as e:
        print(f"{e.filename or args.target}: {e.strerror or e}", file=sys.stderr)
        return 1
    print(f"Wrote {args.target}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
