"""The lattice strip under the plots along z: a side view of the beamline as
the run's decks give it, on the same z axis as the data.

The vertical axis is the aperture radius in mm: the line at plus and minus
the radius is the aperture that decides the losses, the pipes of
boundary.txt when input.txt switches them on, else each element's own (token
2 of its line). Inside
it each element has its glyph: drifts are the axis line, quadrupoles a box
above the axis when they focus in x (positive gradient) and below when they
defocus, solenoids, bends, field maps, cavities and the RFQ boxes of their
own colour, steerers a bar. Hard-edge elements (quad, solenoid, bend) are
carried through by the z code, which writes no line of DataSet.txt inside
them: their spans are hatched, here and on the data panels, because the
curves only join the points before and after them with a straight line.
"""

from matplotlib.patches import Patch, Rectangle

# kind: (colour, half height as a fraction of the element's radius, label)
GLYPHS = {
    "quad": ("C3", 0.6, "quadrupole (above: focusing in x)"),
    "solenoid": ("C2", 0.45, "solenoid"),
    "bend": ("C4", 0.45, "bend"),
    "steerer": ("C1", 0.75, "steerer"),
    "map": ("C9", 0.45, "static field map"),
    "cavity": ("C0", 0.75, "cavity (field map)"),
    "rfq": ("C5", 0.75, "RFQ"),
}
Z_CODE = dict(facecolor="0.85", edgecolor="0.6", hatch="///", lw=0, alpha=0.5)
Z_CODE_LABEL = "z code: no statistics inside"


def _glyph(element):
    if element.kind == "field":
        return "cavity" if element.cavity or element.field_type == 1 else "map"
    return element.kind if element.kind in GLYPHS else None


def hard_edge_spans(decks):
    """(start, end) of each run of neighbouring hard-edge elements."""
    spans = []
    for e in decks.elements:
        if not e.hard_edge:
            continue
        if spans and abs(spans[-1][1] - e.z_start) < 1e-12:
            spans[-1] = (spans[-1][0], e.z_end)
        else:
            spans.append((e.z_start, e.z_end))
    return spans


def shade_z_code(ax, decks):
    """Hatches the spans that the z code carries on a data panel."""
    for start, end in hard_edge_spans(decks):
        ax.axvspan(start, end, **Z_CODE)


def _apertures(decks):
    """(start, end, radius) of the apertures that decide the losses: the
    pipes of boundary.txt when the run uses them (the elements then leave
    the losses to them), else the elements' own."""
    if decks.pipes is not None:
        return [(p.z_start, p.z_end, p.radius) for p in decks.pipes if p.radius]
    return [(e.z_start, e.z_end, e.radius) for e in decks.elements if e.radius > 0.0]


def _inner_radius(apertures, element, fallback):
    """The narrowest aperture along the element, within which its glyph is
    drawn."""
    radii = [r for start, end, r in apertures if start < element.z_end and end > element.z_start]
    return min(radii) if radii else fallback


def _step(ax, spans, scale, **style):
    """A line at plus and minus each span's radius; returns the first line."""
    first = None
    for start, end, radius in spans:
        for sign in (1.0, -1.0):
            (line,) = ax.plot([start, end], [sign * radius * scale] * 2, **style)
            first = first or line
            style.pop("label", None)
    return first


def draw(ax, decks):
    """Draws the strip of `decks` into `ax`."""
    apertures = _apertures(decks)
    top = max((r for _, _, r in apertures), default=0.01) * 1e3
    handles = []
    ax.axhline(0.0, color="k", lw=0.8)
    label = "pipe of boundary.txt" if decks.pipes is not None else "element aperture"
    line = _step(ax, apertures, 1e3, color="k", lw=1.4, label=label)
    if line is not None:
        handles.append(line)
    used = []
    for e in decks.elements:
        kind = _glyph(e)
        if kind is None:
            continue
        colour, half, _ = GLYPHS[kind]
        h = half * _inner_radius(apertures, e, top / 1e3) * 1e3
        if kind == "steerer":
            ax.plot([e.z_start, e.z_start], [-h, h], color=colour, lw=2.5, solid_capstyle="butt", zorder=3)
        else:
            if kind == "quad":
                low, high = (0.0, h) if e.gradient >= 0.0 else (-h, 0.0)
            else:
                low, high = -h, h
            ax.add_patch(Rectangle((e.z_start, low), e.length, high - low, facecolor=colour, edgecolor="k",
                                   lw=0.5, zorder=3))
        if kind not in used:
            used.append(kind)
    handles += [Patch(facecolor=GLYPHS[k][0], edgecolor="k", lw=0.5, label=GLYPHS[k][2]) for k in used]
    if hard_edge_spans(decks):
        shade_z_code(ax, decks)
        handles.append(Patch(label=Z_CODE_LABEL, **Z_CODE))
    ax.set_ylim(-1.15 * top, 1.15 * top)
    ax.set_ylabel("aperture (mm)")
    ax.legend(handles=handles, loc="upper left", bbox_to_anchor=(1.01, 1.0), fontsize="small", frameon=False)
