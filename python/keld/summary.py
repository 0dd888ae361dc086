"""How a run went, from its own files: the summary that keld prints when a
run ends, with the same numbers and the same text.

    s = keld.summary("out/run")          # one run
    s.transmission, s.losses, s.emittance_growth["x"], print(s.text())
    keld.summary("out/study")            # an error study: one summary per output_<i>

Particles in are the count of inData.dst, particles out the alive count of
the last line of DataSet.txt (which counts every loss, at element apertures
as on the pipes of boundary.txt); the sizes, the energy and the emittances
are those of that line, the growth is against its first line. Lines of
collisionData.txt (losses on the pipes of boundary.txt) are placed in the
elements of the run's lattice.txt, found as `decks.find_decks` says or given
as `decks`.
"""

import math
import struct
from dataclasses import dataclass, field
from pathlib import Path

from .decks import decks_of_run
from .errors import KeldFileError, read_bytes
from .study import sample_folders
from .textfiles import read_collisions, read_dataset, read_simulation_time

PLANES = ("x", "y", "z")


def _g(value):
    return "%.6g" % value


@dataclass
class Loss:
    """Particles lost on the pipes in one element (`element` None: outside
    the lattice, `where` says on which side)."""

    count: int
    element: object = None
    where: str = ""

    def label(self):
        e = self.element
        if e is None:
            return self.where
        return f"in element {e.index + 1} ({e.kind}, z {_g(e.z_start)} to {_g(e.z_end)} m)"


@dataclass
class RunSummary:
    folder: Path
    particles_in: int
    particles_out: int
    z: float  # of the reference particle at the last line of DataSet.txt, m
    energy: float  # mean kinetic energy, MeV
    rms: dict  # x, y, z in m
    emittance: dict  # normalised rms, m rad, at the last line
    emittance_start: dict  # the same at the first line
    lost_on_pipes: int  # lines of collisionData.txt
    losses: list = None  # Loss per element with pipe losses; None without decks
    tracking_time: float = None  # s, the run's line of SimulationTime.txt

    @property
    def transmission(self):
        """Particles out over particles in, a fraction."""
        return self.particles_out / self.particles_in if self.particles_in else float("nan")

    @property
    def lost(self):
        return self.particles_in - self.particles_out

    @property
    def lost_at_element_apertures(self):
        """Losses with no line in collisionData.txt: the apertures of the
        elements themselves."""
        return max(self.lost - self.lost_on_pipes, 0)

    @property
    def emittance_growth(self):
        """Growth of each normalised emittance from the first line, percent
        (None where the first is 0)."""
        return {p: (self.emittance[p] / self.emittance_start[p] - 1.0) * 100.0
                if self.emittance_start[p] != 0.0 else None for p in PLANES}

    def text(self):
        """The summary as keld prints it."""
        percent = 100.0 * self.particles_out / self.particles_in if self.particles_in else float("nan")
        lines = ["Run summary:",
                 f"  particles: {self.particles_in} in, {self.particles_out} out at z = {_g(self.z)} m, "
                 f"transmission {_g(percent)} %",
                 f"  lost: {self.lost}, of them {self.lost_on_pipes} on the pipes of boundary.txt (collisionData.txt)"]
        if self.losses is not None:
            lines += [f"    {loss.label()}: {loss.count}" for loss in self.losses]
        if self.lost_at_element_apertures:
            lines.append(f"  lost at element apertures (no line in collisionData.txt): "
                         f"{self.lost_at_element_apertures}")
        growth = self.emittance_growth
        lines += [
            f"  mean kinetic energy: {_g(self.energy)} MeV",
            "  rms size x, y, z: " + ", ".join(_g(self.rms[p] * 1e3) for p in PLANES) + " mm",
            "  normalised rms emittance x, y, z: " + ", ".join(_g(self.emittance[p] * 1e6) for p in PLANES) +
            " mm mrad",
            "  emittance growth x, y, z: " + ", ".join("n/a" if growth[p] is None else "%+.3g" % growth[p]
                                                       for p in PLANES) + " %",
        ]
        if self.tracking_time is not None:
            lines.append(f"  tracking time: {_g(self.tracking_time)} s")
        return "\n".join(lines)


def _mean_spread(values):
    """Mean and rms spread (over n), summed in order as keld sums them."""
    total = 0.0
    for v in values:
        total += v
    mean = total / len(values)
    square = 0.0
    for v in values:
        square += (v - mean) * (v - mean)
    return mean, math.sqrt(square / len(values))


@dataclass
class StudySummary:
    folder: Path
    samples: list = field(default_factory=list)  # (index i of output_<i>, RunSummary)

    def transmission_spread(self):
        """Mean and rms spread of the transmission over the samples, percent."""
        return _mean_spread([100.0 * s.particles_out / s.particles_in for _, s in self.samples])

    def emittance_spread(self, plane):
        """Mean and rms spread of the exit emittance, m rad."""
        return _mean_spread([s.emittance[plane] for _, s in self.samples])

    def text(self):
        lines = [f"Study summary: {len(self.samples)} samples"]
        for i, s in self.samples:
            lines.append(f"  sample {i + 1} (output_{i}): {s.particles_out} of {s.particles_in} out "
                         f"({_g(100.0 * s.particles_out / s.particles_in)} %), emittance x, y, z "
                         + ", ".join(_g(s.emittance[p] * 1e6) for p in PLANES) + " mm mrad")
        if self.samples:
            values = [100.0 * s.particles_out / s.particles_in for _, s in self.samples]
            low, high = min(values), max(values)
            mean, spread = self.transmission_spread()
            lines.append(f"  transmission: mean {_g(mean)} %, rms spread {_g(spread)} %, from {_g(low)} to "
                         f"{_g(high)} %")
            for p in PLANES:
                mean, spread = self.emittance_spread(p)
                lines.append(f"  exit emittance {p}: mean {_g(mean * 1e6)} mm mrad, rms spread "
                             f"{_g(spread * 1e6)} mm mrad")
        return "\n".join(lines)


def _count_in(folder, dataset):
    path = folder / "inData.dst"
    if path.exists():
        head = read_bytes(path, "a particle distribution")
        if len(head) >= 6:
            return struct.unpack_from("<i", head, 2)[0]
    return int(dataset.alive[0])


def run_summary(folder, decks=None, found_decks=None):
    """The summary of the run in `folder` (see the module's text)."""
    folder = Path(folder)
    ds = read_dataset(folder / "DataSet.txt")
    first, last = 0, len(ds) - 1
    lost_z = []
    if (folder / "collisionData.txt").exists():
        lost_z = list(read_collisions(folder / "collisionData.txt").z)
    found = found_decks if found_decks is not None else decks_of_run(folder, decks)
    losses = None
    if found is not None:
        counts, before, beyond = {}, 0, 0
        for z in lost_z:
            element = found.element_at(z)
            if element is not None:
                counts[element.index] = counts.get(element.index, 0) + 1
            elif z < 0.0:
                before += 1
            else:
                beyond += 1
        losses = [Loss(counts[e.index], e) for e in found.elements if e.index in counts]
        if before:
            losses.append(Loss(before, where="before z = 0"))
        if beyond:
            losses.append(Loss(beyond, where="beyond the end of the lattice"))
    timing = None
    if (folder / "SimulationTime.txt").exists():
        runs = read_simulation_time(folder / "SimulationTime.txt")
        timing = runs[-1]["total"] if runs else None
    return RunSummary(
        folder=folder,
        particles_in=_count_in(folder, ds),
        particles_out=int(ds.alive[last]),
        z=float(ds.ref_z[last]),
        energy=float(ds.energy[last]),
        rms={p: float(ds[f"rms_{p}"][last]) for p in PLANES},
        emittance={p: float(ds[f"emit_{p}"][last]) for p in PLANES},
        emittance_start={p: float(ds[f"emit_{p}"][first]) for p in PLANES},
        lost_on_pipes=len(lost_z),
        losses=losses,
        tracking_time=timing,
    )


def summary(folder, decks=None):
    """The summary of a run (a folder with DataSet.txt) or of an error study
    (a folder of output_<i> folders). `decks` is the run's input folder; by
    default it is looked for beside the results."""
    folder = Path(folder)
    if (folder / "DataSet.txt").exists() or not folder.is_dir():
        return run_summary(folder, decks)
    samples = sample_folders(folder)
    found = decks_of_run(folder, decks)
    result = StudySummary(folder)
    for index, sample in samples:
        if (sample / "DataSet.txt").exists():
            result.samples.append((index, run_summary(sample, found_decks=found)))
    if not result.samples:
        raise KeldFileError(f"{folder}: no output_<i> folder holds a DataSet.txt")
    return result
