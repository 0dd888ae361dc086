"""keld-plot: PNG figures from the files of a Keld run.

    keld-plot envelope RUN_DIR        rms and maximum envelopes along z
    keld-plot emittance RUN_DIR       normalised emittances and their growth
    keld-plot energy RUN_DIR          kinetic energy and particles lost along z
    keld-plot phase-space RUN_DIR     x-x', y-y', phase-energy of inData.dst and
                                      of every outData_<z>.dst (or of the .dst
                                      files named)
    keld-plot losses RUN_DIR          loss map along z from collisionData.txt
    keld-plot study STUDY_DIR         centroid, envelopes and losses over the
                                      samples output_<i> of an error study
    keld-plot all RUN_DIR             every figure that the run's files allow
    keld-plot summary RUN_DIR         how the run went, as keld prints it
    keld-plot columns                 the 40 columns of DataSet.txt and units

Figures go into the run's folder, or into the folder given with -o. The
plots along z carry a strip of the lattice, drawn from the run's lattice.txt
(and boundary.txt when input.txt uses it): give the run's input folder with
--decks, or let keld-plot find it beside the results (keld.decks says how).
"""

import argparse
import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
from matplotlib.figure import Figure  # noqa: E402  (after choosing the backend)
from matplotlib.ticker import MaxNLocator  # noqa: E402

import numpy as np  # noqa: E402

from . import strip  # noqa: E402
from .binary import plane_z_of, read_dst  # noqa: E402
from .decks import decks_of_run  # noqa: E402
from .errors import KeldFileError  # noqa: E402
from .study import read_study  # noqa: E402
from .summary import summary  # noqa: E402
from .textfiles import DATASET_COLUMNS, read_collisions, read_dataset  # noqa: E402

DPI = 120


def _folder(path):
    p = Path(path)
    if p.is_file():
        return p.parent
    if not p.exists():
        raise KeldFileError(f"{p}: no such folder, expected the output folder of a run")
    return p


def _title(folder):
    """The last two parts of a folder's path, e.g. fodo/out."""
    return "/".join(Path(folder).resolve().parts[-2:])


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
    for k, z in enumerate(planes):
        ax.axvline(z, color="0.5", lw=0.8, ls=":", label="output plane" if k == 0 else None)


def _along_z(panels, decks, height=6.0):
    """A figure of `panels` data panels over z, with the lattice strip below
    them when the decks are known. Returns the figure, the data panels and
    the panel that carries the z label."""
    fig = Figure(figsize=(9, height + (1.6 if decks else 0.0)), layout="constrained")
    if decks is None:
        axes = list(np.atleast_1d(fig.subplots(panels, 1, sharex=True)))
        return fig, axes, axes[-1]
    axes = list(fig.subplots(panels + 1, 1, sharex=True, height_ratios=[1.0] * panels + [0.55]))
    strip.draw(axes[-1], decks)
    for ax in axes[:-1]:
        strip.shade_z_code(ax, decks)
    return fig, axes[:-1], axes[-1]


def _decks(folder, decks):
    return decks_of_run(folder, decks)


def envelope(run, out_dir=None, decks=None):
    """rms and maximum envelopes in x and y along z."""
    folder = _folder(run)
    ds = read_dataset(folder / "DataSet.txt")
    z = ds.ref_z
    fig, axes, bottom = _along_z(2, _decks(folder, decks))
    for ax, plane in zip(axes, "xy"):
        ax.plot(z, ds[f"rms_{plane}"] * 1e3, label=f"rms {plane}")
        ax.plot(z, ds[f"max_{plane}"] * 1e3, ls="--", label=f"max |{plane} - mean|")
        ax.set_ylabel(f"{plane} (mm)")
        ax.set_ylim(bottom=0)
        ax.grid(alpha=0.3)
        _mark_planes(ax, _planes(folder))
        ax.legend(loc="upper left")
    bottom.set_xlabel("z of the reference particle (m)")
    fig.suptitle(f"Envelopes: {_title(folder)}")
    return _save(fig, out_dir or folder, "envelope.png")


def emittance(run, out_dir=None, decks=None):
    """Normalised rms emittances along z, and their growth from the start."""
    folder = _folder(run)
    ds = read_dataset(folder / "DataSet.txt")
    z = ds.ref_z
    fig, (top, middle), bottom = _along_z(2, _decks(folder, decks))
    for plane in "xyz":
        e = ds[f"emit_{plane}"]
        top.plot(z, e * 1e6, label=plane)
        start = e[0] if len(e) else 0.0
        growth = (e / start - 1.0) * 100.0 if start != 0.0 else np.full_like(e, np.nan)
        middle.plot(z, growth, label=plane)
    top.set_ylabel("normalised rms emittance\n(mm mrad)")
    top.set_ylim(bottom=0)
    middle.set_ylabel("growth from the start (%)")
    bottom.set_xlabel("z of the reference particle (m)")
    for ax in (top, middle):
        ax.grid(alpha=0.3)
        ax.legend(loc="best")
    fig.suptitle(f"Emittances: {_title(folder)}")
    return _save(fig, out_dir or folder, "emittance.png")


def _lost_panel(ax, z, lost, start_count):
    """Particles lost so far, scaled to the losses, with the transmission on
    the right-hand axis."""
    ax.plot(z, lost, color="C3")
    high = max(float(np.max(lost)) if len(lost) else 0.0, 1.0)
    ax.set_ylim(-0.05 * high, 1.1 * high)
    ax.set_ylabel(f"particles lost\n(of {start_count})")
    if not np.any(lost):
        ax.text(0.5, 0.5, "no particle lost", ha="center", va="center", transform=ax.transAxes)
    elif start_count:
        right = ax.secondary_yaxis("right", functions=(lambda v: 100.0 * (1.0 - v / start_count),
                                                       lambda t: start_count * (1.0 - t / 100.0)))
        right.yaxis.get_major_formatter().set_useOffset(False)
        right.set_ylabel("transmission (%)")


def energy(run, out_dir=None, decks=None):
    """Kinetic energy and number of particles lost along z."""
    folder = _folder(run)
    ds = read_dataset(folder / "DataSet.txt")
    z = ds.ref_z
    fig, (top, middle), bottom = _along_z(2, _decks(folder, decks))
    top.plot(z, ds.energy)
    top.set_ylabel("mean kinetic energy (MeV)")
    top.ticklabel_format(axis="y", useOffset=False)
    start = int(ds.alive[0]) if len(ds) else 0
    _lost_panel(middle, z, start - ds.alive, start)
    bottom.set_xlabel("z of the reference particle (m)")
    for ax in (top, middle):
        ax.grid(alpha=0.3)
    fig.suptitle(f"Energy and transmission: {_title(folder)}")
    return _save(fig, out_dir or folder, "energy.png")


def _density(fig, ax, u, v):
    """Particles of the plane u-v coloured by the count in their cell of a
    grid over the plot, with a colour bar; a 2D histogram for large
    bunches."""
    keep = np.isfinite(u) & np.isfinite(v)
    u, v = u[keep], v[keep]
    if u.size == 0:
        ax.text(0.5, 0.5, "no particles", ha="center", va="center", transform=ax.transAxes)
        return
    if u.size <= 5000:
        # Cells coarse enough that a small bunch still shows its core.
        bins = int(np.clip(np.sqrt(u.size) / 1.5, 8, 48))
        counts, ue, ve = np.histogram2d(u, v, bins=bins)
        iu = np.clip(np.searchsorted(ue, u, side="right") - 1, 0, bins - 1)
        iv = np.clip(np.searchsorted(ve, v, side="right") - 1, 0, bins - 1)
        c = counts[iu, iv]
        order = np.argsort(c)
        mappable = ax.scatter(u[order], v[order], c=c[order], s=7, lw=0, cmap="viridis")
        label = f"particles per cell ({bins} x {bins})"
    else:
        bins = 160
        mappable = ax.hist2d(u, v, bins=bins, cmin=1, cmap="viridis")[3]
        label = f"particles per cell ({bins} x {bins})"
    ax.grid(alpha=0.3)
    bar = fig.colorbar(mappable, ax=ax, label=label, shrink=0.9)
    bar.locator = MaxNLocator(integer=True)
    bar.update_ticks()


def phase_space(dst, out_dir=None, dist=None):
    """x-x', y-y' and phase-energy portraits of one distribution file
    (`dist`, when given, is that file already read)."""
    path = Path(dst)
    dist = dist if dist is not None else read_dst(path)
    q = dist.particles
    w = q[:, 5]
    mean_w = float(np.mean(w)) if len(w) else 0.0
    fig = Figure(figsize=(15, 4.6), layout="constrained")
    axes = fig.subplots(1, 3)
    _density(fig, axes[0], q[:, 0] * 10.0, q[:, 1] * 1e3)
    axes[0].set_xlabel("x (mm)")
    axes[0].set_ylabel("x' (mrad)")
    _density(fig, axes[1], q[:, 2] * 10.0, q[:, 3] * 1e3)
    axes[1].set_xlabel("y (mm)")
    axes[1].set_ylabel("y' (mrad)")
    _density(fig, axes[2], np.degrees(q[:, 4]), (w - mean_w) * 1e3)
    # A plane file measures each particle's crossing against the reference
    # particle's; the start file against the centre of the generated bunch
    # (or as the loaded file had it). Later particles have larger phases.
    against = "the reference particle" if dist.plane_z is not None else "the bunch centre"
    axes[2].set_xlabel(f"phase behind {against} (deg at {dist.frequency:g} MHz)")
    axes[2].set_ylabel(f"W - {mean_w:.6g} MeV (keV)")
    where = f"z = {dist.plane_z:g} m" if dist.plane_z is not None else "start of the run"
    fig.suptitle(f"{path.name}: {dist.count} particles, {where}")
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


def losses(run, out_dir=None, decks=None):
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
    fig, (ax,), bottom = _along_z(1, _decks(folder, decks), height=4.0)
    if len(lost):
        counts, edges, _ = ax.hist(lost.z, bins=100, range=(low, high), color="C3", label="lost per interval")
        twin = ax.twinx()
        (line,) = twin.plot(edges[1:], np.cumsum(counts), color="k", lw=1, label="lost so far")
        twin.set_ylabel("lost so far")
        twin.set_ylim(bottom=0)
        ax.legend(handles=ax.get_legend_handles_labels()[0] + [line], loc="upper left")
    else:
        ax.text(0.5, 0.5, "no particle lost", ha="center", va="center", transform=ax.transAxes)
        ax.set_xlim(low, high)
    bottom.set_xlabel("z where the particle met the pipe of boundary.txt (m)")
    ax.set_ylabel("particles lost per interval")
    ax.grid(alpha=0.3)
    fig.suptitle(f"Loss map: {len(lost)} particles lost on the pipes, {_title(folder)}")
    return _save(fig, out_dir or folder, "losses.png")


def _spread(ax, grid, curves, colour, label):
    """Mean over the samples and a band of one rms spread around it."""
    stack = np.vstack(curves)
    mean, spread = stack.mean(axis=0), stack.std(axis=0)
    ax.fill_between(grid, mean - spread, mean + spread, color=colour, alpha=0.3, lw=0,
                    label=f"{label}mean \u00b1 rms spread")
    ax.plot(grid, mean, color=colour, lw=1.2)


def study(base, out_dir=None, decks=None):
    """Centroid, envelopes and losses of every sample of an error study: each
    sample as a thin line, and the mean over the samples with a band of one
    rms spread."""
    base = Path(base)
    samples = [s for s in read_study(base) if len(s.dataset)]
    if not samples:
        raise KeldFileError(f"{base}: no sample holds a line of DataSet.txt")
    fig, axes, bottom = _along_z(4, _decks(base, decks), height=9.0)
    starts = [float(s.dataset.ref_z[0]) for s in samples]
    ends = [float(s.dataset.ref_z[-1]) for s in samples]
    grid = np.linspace(max(starts), min(ends), 400) if max(starts) < min(ends) else None

    def panel(ax, values, colour, label):
        curves = []
        for k, s in enumerate(samples):
            z = s.dataset.ref_z
            v = values(s.dataset)
            ax.plot(z, v, color=colour, lw=0.5, alpha=0.6, label=f"{label}each sample" if k == 0 else None)
            if grid is not None:
                curves.append(np.interp(grid, z, v))
        if curves:
            _spread(ax, grid, curves, colour, label)

    # DataSet.txt gives the mean against the reference particle, which
    # follows the misaligned orbit itself: the centroid in the laboratory is
    # the sum of the two.
    for plane, colour in (("x", "C0"), ("y", "C1")):
        panel(axes[0], lambda d, p=plane: (d[f"mean_{p}"] + d[f"ref_{p}"]) * 1e3, colour, f"{plane}: ")
    axes[0].set_ylabel("centroid (mm)")
    panel(axes[1], lambda d: d.rms_x * 1e3, "C0", "")
    axes[1].set_ylabel("rms x (mm)")
    panel(axes[2], lambda d: d.rms_y * 1e3, "C1", "")
    axes[2].set_ylabel("rms y (mm)")
    start = int(samples[0].dataset.alive[0])
    panel(axes[3], lambda d: d.alive[0] - d.alive, "C3", "")
    high = max(max(float(np.max(s.dataset.alive[0] - s.dataset.alive)) for s in samples), 1.0)
    axes[3].set_ylim(-0.05 * high, 1.1 * high)
    axes[3].set_ylabel(f"particles lost\n(of {start})")
    for ax in axes:
        ax.grid(alpha=0.3)
        ax.legend(loc="upper left", fontsize="small", ncol=2)
    bottom.set_xlabel("z of the reference particle (m)")
    fig.suptitle(f"Error study: {len(samples)} samples, {_title(base)}")
    return _save(fig, out_dir or base, "study.png")


def columns_text():
    """The columns of DataSet.txt, one a line: number, name, unit, meaning."""
    lines = ["Columns of DataSet.txt (one line per time step; keld.read_dataset names them):"]
    for k, (name, unit, meaning) in enumerate(DATASET_COLUMNS, 1):
        lines.append(f"{k:3d}  {name:16s} {unit:6s} {meaning}")
    return "\n".join(lines)


DESCRIPTIONS = {
    "envelope": "Envelopes along z",
    "emittance": "Emittances along z",
    "energy": "Energy and losses along z",
    "phase-space": "Phase space",
    "losses": "Loss map",
    "study": "Spread over the samples",
}
COMMANDS = ["envelope", "emittance", "energy", "phase-space", "losses", "study", "all", "summary", "columns"]


def _draw(command, paths, out_dir, decks=None):
    made = []
    for path in paths:
        if command == "envelope":
            made.append((command, envelope(path, out_dir, decks)))
        elif command == "emittance":
            made.append((command, emittance(path, out_dir, decks)))
        elif command == "energy":
            made.append((command, energy(path, out_dir, decks)))
        elif command == "phase-space":
            if Path(path).is_dir():
                made += [(command, p) for p in phase_space_run(path, out_dir)]
            else:
                made.append((command, phase_space(path, out_dir)))
        elif command == "losses":
            made.append((command, losses(path, out_dir, decks)))
        elif command == "study":
            made.append((command, study(path, out_dir, decks)))
        elif command == "all":
            folder = _folder(path)
            for name in ("envelope", "emittance", "energy", "phase-space"):
                made += _draw(name, [folder], out_dir, decks)
            lost = folder / "collisionData.txt"
            if lost.exists() and lost.stat().st_size:
                made += _draw("losses", [folder], out_dir, decks)
    return made


def main(argv=None):
    parser = argparse.ArgumentParser(prog="keld-plot", description=__doc__.split("\n\n")[0],
                                     epilog=__doc__.split("\n\n", 1)[1],
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("command", choices=COMMANDS)
    parser.add_argument("paths", nargs="*", metavar="PATH", help="output folder of a run, or .dst files")
    parser.add_argument("-o", "--output", help="folder for the figures (default: beside the data)")
    parser.add_argument("--decks", help="the run's input folder, for the lattice strip and the losses by element "
                                        "(default: looked for beside the results)")
    args = parser.parse_args(argv)
    if args.command == "columns":
        print(columns_text())
        return 0
    if not args.paths:
        parser.error(f"{args.command} needs the output folder of a run")
    try:
        if args.command == "summary":
            for path in args.paths:
                print(summary(path, args.decks).text())
            return 0
        made = _draw(args.command, args.paths, args.output, args.decks)
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
