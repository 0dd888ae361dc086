"""keld-plot: PNG figures from the files of a Keld run.

    keld-plot envelope RUN_DIR        rms and maximum envelopes along z
    keld-plot emittance RUN_DIR       normalised emittances and their growth
    keld-plot energy RUN_DIR          kinetic energy and alive count along z
    keld-plot phase-space RUN_DIR     x-x', y-y', phase-energy of inData.dst and
                                      of every outData_<z>.dst (or of the .dst
                                      files named)
    keld-plot losses RUN_DIR          loss map along z from collisionData.txt
    keld-plot study STUDY_DIR         spread over the samples output_<i>
    keld-plot all RUN_DIR             every figure that the run's files allow

Figures go into the run's folder, or into the folder given with -o.
"""

import argparse
import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
from matplotlib.figure import Figure  # noqa: E402  (after choosing the backend)

import numpy as np  # noqa: E402

from .binary import plane_z_of, read_dst  # noqa: E402
from .errors import KeldFileError  # noqa: E402
from .study import read_study  # noqa: E402
from .textfiles import read_collisions, read_dataset  # noqa: E402

DPI = 120


def _folder(path):
    p = Path(path)
    if p.is_file():
        return p.parent
    if not p.exists():
        raise KeldFileError(f"{p}: no such folder, expected the output folder of a run")
    return p


def _save(fig, out_dir, name):
    out_dir = Path(out_dir)
    out_dir.mkdir(parents=True, exist_ok=True)
    target = out_dir / name
    fig.savefig(target, dpi=DPI)
    return target


def _planes(folder):
    """z of the output planes whose files lie in the folder."""
    return sorted(z for z in (plane_z_of(p) for p in Path(folder).glob("outData_*.dst")) if z is not None)


def _mark_planes(ax, planes):
    for z in planes:
        ax.axvline(z, color="0.6", lw=0.8, ls=":")


def envelope(run, out_dir=None):
    """rms and maximum envelopes in x and y along z."""
    folder = _folder(run)
    ds = read_dataset(folder / "DataSet.txt")
    z = ds.ref_z
    fig = Figure(figsize=(8, 6), layout="constrained")
    axes = fig.subplots(2, 1, sharex=True)
    for ax, plane in zip(axes, "xy"):
        ax.plot(z, ds[f"rms_{plane}"] * 1e3, label=f"rms {plane}")
        ax.plot(z, ds[f"max_{plane}"] * 1e3, ls="--", label=f"max |{plane} - mean|")
        ax.set_ylabel(f"{plane} (mm)")
        ax.set_ylim(bottom=0)
        ax.grid(alpha=0.3)
        ax.legend(loc="upper left")
        _mark_planes(ax, _planes(folder))
    axes[-1].set_xlabel("z of the reference particle (m)")
    fig.suptitle(f"Envelopes: {folder.resolve().name}")
    return _save(fig, out_dir or folder, "envelope.png")


def emittance(run, out_dir=None):
    """Normalised rms emittances along z, and their growth from the start."""
    folder = _folder(run)
    ds = read_dataset(folder / "DataSet.txt")
    z = ds.ref_z
    fig = Figure(figsize=(8, 6), layout="constrained")
    top, bottom = fig.subplots(2, 1, sharex=True)
    for plane in "xyz":
        e = ds[f"emit_{plane}"]
        top.plot(z, e * 1e6, label=plane)
        start = e[0] if len(e) else 0.0
        growth = (e / start - 1.0) * 100.0 if start != 0.0 else np.full_like(e, np.nan)
        bottom.plot(z, growth, label=plane)
    top.set_ylabel("normalised rms emittance\n(mm mrad)")
    top.set_ylim(bottom=0)
    bottom.set_ylabel("growth from the start (%)")
    bottom.set_xlabel("z of the reference particle (m)")
    for ax in (top, bottom):
        ax.grid(alpha=0.3)
        ax.legend(loc="best")
    fig.suptitle(f"Emittances: {folder.resolve().name}")
    return _save(fig, out_dir or folder, "emittance.png")


def energy(run, out_dir=None):
    """Kinetic energy and number of particles alive along z."""
    folder = _folder(run)
    ds = read_dataset(folder / "DataSet.txt")
    z = ds.ref_z
    fig = Figure(figsize=(8, 6), layout="constrained")
    top, bottom = fig.subplots(2, 1, sharex=True)
    top.plot(z, ds.energy)
    top.set_ylabel("kinetic energy (MeV)")
    top.ticklabel_format(axis="y", useOffset=False)
    bottom.plot(z, ds.alive, color="C3")
    bottom.set_ylabel("particles alive")
    bottom.set_ylim(bottom=0)
    bottom.set_xlabel("z of the reference particle (m)")
    for ax in (top, bottom):
        ax.grid(alpha=0.3)
    fig.suptitle(f"Energy and transmission: {folder.resolve().name}")
    return _save(fig, out_dir or folder, "energy.png")


def _density(ax, u, v):
    keep = np.isfinite(u) & np.isfinite(v)
    u, v = u[keep], v[keep]
    if u.size == 0:
        ax.text(0.5, 0.5, "no particles", ha="center", va="center", transform=ax.transAxes)
    elif u.size <= 5000:
        ax.scatter(u, v, s=2, alpha=0.6, lw=0)
    else:
        ax.hist2d(u, v, bins=160, cmin=1, cmap="viridis")
    ax.grid(alpha=0.3)


def phase_space(dst, out_dir=None, dist=None):
    """x-x', y-y' and phase-energy portraits of one distribution file
    (`dist`, when given, is that file already read)."""
    path = Path(dst)
    dist = dist if dist is not None else read_dst(path)
    q = dist.particles
    w = q[:, 5]
    mean_w = float(np.mean(w)) if len(w) else 0.0
    fig = Figure(figsize=(13, 4.3), layout="constrained")
    axes = fig.subplots(1, 3)
    _density(axes[0], q[:, 0] * 10.0, q[:, 1] * 1e3)
    axes[0].set_xlabel("x (mm)")
    axes[0].set_ylabel("x' (mrad)")
    _density(axes[1], q[:, 2] * 10.0, q[:, 3] * 1e3)
    axes[1].set_xlabel("y (mm)")
    axes[1].set_ylabel("y' (mrad)")
    _density(axes[2], np.degrees(q[:, 4]), (w - mean_w) * 1e3)
    axes[2].set_xlabel("phase (deg)")
    axes[2].set_ylabel(f"W - {mean_w:.6g} MeV (keV)")
    where = f"z = {dist.plane_z:g} m" if dist.plane_z is not None else path.stem
    fig.suptitle(f"{path.name}: {dist.count} particles, {where}, {dist.frequency:g} MHz")
    return _save(fig, out_dir or path.parent, f"phase-space_{path.stem}.png")


def distribution_files(folder):
    """inData.dst, then the outData_<z>.dst files in the order of z."""
    folder = Path(folder)
    files = [folder / "inData.dst"] if (folder / "inData.dst").exists() else []
    planes = [(plane_z_of(p), p) for p in folder.glob("outData_*.dst")]
    files += [p for z, p in sorted((z, p) for z, p in planes if z is not None)]
    return files


def phase_space_run(run, out_dir=None):
    folder = _folder(run)
    files = distribution_files(folder)
    if not files:
        raise KeldFileError(f"{folder}: no inData.dst or outData_<z>.dst, expected the output folder of a run")
    # All files are read before the first figure is drawn, so that a bad
    # file stops the command before it writes anything.
    dists = [read_dst(f) for f in files]
    return [phase_space(f, out_dir or folder, d) for f, d in zip(files, dists)]


def losses(run, out_dir=None):
    """Loss map: particles lost per interval of z, and their running total."""
    folder = _folder(run)
    lost = read_collisions(folder / "collisionData.txt")
    dataset = folder / "DataSet.txt"
    if dataset.exists():
        z_ref = read_dataset(dataset).ref_z
        low, high = float(np.min(z_ref)), float(np.max(z_ref))
    elif len(lost):
        low, high = float(np.min(lost.z)), float(np.max(lost.z))
    else:
        low, high = 0.0, 1.0
    low = min(low, 0.0)
    if high <= low:
        high = low + 1.0
    fig = Figure(figsize=(8, 4.5), layout="constrained")
    ax = fig.subplots()
    if len(lost):
        counts, edges, _ = ax.hist(lost.z, bins=100, range=(low, high), color="C3")
        twin = ax.twinx()
        twin.plot(edges[1:], np.cumsum(counts), color="k", lw=1)
        twin.set_ylabel("lost so far")
        twin.set_ylim(bottom=0)
    else:
        ax.text(0.5, 0.5, "no particle lost", ha="center", va="center", transform=ax.transAxes)
        ax.set_xlim(low, high)
    ax.set_xlabel("z where the particle met the aperture (m)")
    ax.set_ylabel("particles lost per interval")
    ax.grid(alpha=0.3)
    fig.suptitle(f"Loss map: {len(lost)} particles lost, {folder.resolve().name}")
    return _save(fig, out_dir or folder, "losses.png")


def study(base, out_dir=None):
    """Envelopes and alive counts of every sample of an error study, with the
    band between the smallest and largest value at each z."""
    base = Path(base)
    samples = read_study(base)
    fig = Figure(figsize=(8, 8), layout="constrained")
    axes = fig.subplots(3, 1, sharex=True)
    columns = (("rms_x", 1e3, "rms x (mm)"), ("rms_y", 1e3, "rms y (mm)"), ("alive", 1.0, "particles alive"))
    starts = [float(s.dataset.ref_z[0]) for s in samples if len(s.dataset)]
    ends = [float(s.dataset.ref_z[-1]) for s in samples if len(s.dataset)]
    grid = np.linspace(max(starts), min(ends), 400) if starts and max(starts) < min(ends) else None
    for ax, (name, scale, label) in zip(axes, columns):
        curves = []
        for s in samples:
            z, v = s.dataset.ref_z, s.dataset[name] * scale
            ax.plot(z, v, color="0.55", lw=0.6)
            if grid is not None:
                curves.append(np.interp(grid, z, v))
        if curves:
            stack = np.vstack(curves)
            ax.fill_between(grid, stack.min(axis=0), stack.max(axis=0), color="C0", alpha=0.25,
                            label="spread")
            ax.plot(grid, stack.mean(axis=0), color="C0", label="mean")
            ax.legend(loc="best")
        ax.set_ylabel(label)
        ax.grid(alpha=0.3)
    axes[-1].set_xlabel("z of the reference particle (m)")
    fig.suptitle(f"Error study: {len(samples)} samples, {base.resolve().name}")
    return _save(fig, out_dir or base, "study.png")


DESCRIPTIONS = {
    "envelope": "Envelopes along z",
    "emittance": "Emittances along z",
    "energy": "Energy and alive count along z",
    "phase-space": "Phase space",
    "losses": "Loss map",
    "study": "Spread over the samples",
}


def _draw(command, paths, out_dir):
    made = []
    for path in paths:
        if command == "envelope":
            made.append((command, envelope(path, out_dir)))
        elif command == "emittance":
            made.append((command, emittance(path, out_dir)))
        elif command == "energy":
            made.append((command, energy(path, out_dir)))
        elif command == "phase-space":
            if Path(path).is_dir():
                made += [(command, p) for p in phase_space_run(path, out_dir)]
            else:
                made.append((command, phase_space(path, out_dir)))
        elif command == "losses":
            made.append((command, losses(path, out_dir)))
        elif command == "study":
            made.append((command, study(path, out_dir)))
        elif command == "all":
            folder = _folder(path)
            for name in ("envelope", "emittance", "energy", "phase-space"):
                made += _draw(name, [folder], out_dir)
            if (folder / "collisionData.txt").exists():
                made += _draw("losses", [folder], out_dir)
    return made


def main(argv=None):
    parser = argparse.ArgumentParser(prog="keld-plot", description=__doc__.split("\n\n")[0],
                                     epilog=__doc__.split("\n\n", 1)[1],
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("command", choices=["envelope", "emittance", "energy", "phase-space", "losses", "study",
                                            "all"])
    parser.add_argument("paths", nargs="+", metavar="PATH", help="output folder of a run, or .dst files")
    parser.add_argument("-o", "--output", help="folder for the figures (default: beside the data)")
    args = parser.parse_args(argv)
    try:
        made = _draw(args.command, args.paths, args.output)
    except KeldFileError as e:
        print(e, file=sys.stderr)
        return 1
    except OSError as e:
        print(f"{e.filename}: {e.strerror}", file=sys.stderr)
        return 1
    for command, path in made:
        print(f"{DESCRIPTIONS[command]}: {path}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
