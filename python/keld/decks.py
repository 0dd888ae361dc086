"""The beamline of a run, as its decks give it: the elements of lattice.txt
placed end to end, the pipe sections of boundary.txt when input.txt switches
them on, and the charge state and species of beam.txt.

The output folder of a run holds none of the decks. `find_decks(folder)`
looks for lattice.txt in the folder itself, then in a folder `in/` beside it
or beside its parent (the layout of the example scripts: `out/X/in/` with
`out/X/out/`, or `out/X/study/output_<i>/`); otherwise the decks folder is
given by hand.

The lines are read as the run reads them: blanks and tabs separate tokens,
"!" ends a line, nothing before `start` counts, `end` ends the lattice, and a
set of superimposed fields (`superpose`) becomes the field elements that the
run makes of it, so that every element stands at the z the run gives it.
"""

from dataclasses import dataclass, field
from pathlib import Path

from .errors import KeldFileError, read_bytes

ELEMENT_WORDS = ("drift", "quad", "solenoid", "steerer", "bend", "field", "rfq")
# The z code carries these through first-order maps, element by element: the
# run writes no line of DataSet.txt while the bunch is inside them.
HARD_EDGE = ("quad", "solenoid", "bend")
_SET_ERROR_WORDS = ("err_cav_ncpl_stat", "err_cav_ncpl_dyn", "err_quad_ncpl_stat", "err_quad_ncpl_dyn")


def split_tokens(line):
    """The tokens of one deck line: blank and tab separate, "!" ends the line
    and takes a token that no separator has closed with it."""
    tokens, start = [], 0
    for i, c in enumerate(line):
        if c == "!":
            return tokens
        if c in " \t":
            if start != i:
                tokens.append(line[start:i])
            start = i + 1
    if start < len(line):
        tokens.append(line[start:])
    return tokens


def _token_lines(path, expected):
    text = read_bytes(path, expected).decode("latin-1")
    for line in text.split("\n"):
        tokens = split_tokens(line)
        if tokens:
            yield tokens


def _number(tokens, k, default=0.0):
    try:
        return float(tokens[k])
    except (IndexError, ValueError):
        return default


@dataclass
class Element:
    """One element of the lattice. `index` counts from 0 in beamline order;
    `kind` is the deck word ("drift", "quad", ... "field", "rfq"); a set of
    superimposed fields gives "field" elements with `members` set."""

    index: int
    kind: str
    z_start: float
    z_end: float
    radius: float
    tokens: list
    members: list = None
    cavity: bool = False

    @property
    def length(self):
        return self.z_end - self.z_start

    @property
    def hard_edge(self):
        return self.kind in HARD_EDGE

    @property
    def gradient(self):
        """Quadrupole gradient in T/m (positive focuses x); 0 for others."""
        return _number(self.tokens, 4) if self.kind == "quad" else 0.0

    @property
    def field_type(self):
        """Type of a field line: 1 radio-frequency, 2 static electric, 3
        static magnetic, 4 a set of superimposed maps; None for others."""
        if self.kind != "field":
            return None
        return 4 if self.members is not None else int(_number(self.tokens, 4))


@dataclass
class PipeSection:
    """One section of boundary.txt: shape 1 a circular pipe of `radius`,
    shape 2 open (radius None)."""

    name: str
    z_start: float
    z_end: float
    radius: float = None


@dataclass
class Decks:
    """What the plots and the summary need from the decks of a run."""

    folder: Path
    elements: list
    pipes: list = None
    charge_state: float = None
    species: str = None

    @property
    def length(self):
        return self.elements[-1].z_end if self.elements else 0.0

    def element_at(self, z):
        """The element in force at z (an element owns its entrance, the next
        one its exit), or None outside the lattice."""
        if not self.elements or z < 0.0 or z >= self.elements[-1].z_end:
            return None
        for e in self.elements:
            if z < e.z_end:
                return e
        return None


class _Lattice:
    """Places elements end to end as the run does: each starts where the one
    before started plus that one's length."""

    def __init__(self):
        self.elements = []
        self.lengths = []

    def add(self, kind, length, radius, tokens, members=None, cavity=False):
        start = self.elements[-1].z_start + self.lengths[-1] if self.elements else 0.0
        self.lengths.append(length)
        self.elements.append(Element(len(self.elements), kind, start, start + length, radius, tokens, members,
                                     cavity))


def _fixed(value):
    """A length as the run passes it on in a token: six decimals."""
    return float("%f" % value)


class _SuperposedSet:
    def __init__(self, tokens):
        self.starts, self.ends, self.members = [], [], []
        self.min_aperture = 1.0
        self.expect_member = True
        self.error_line_allowed = True
        self.starts.append(_number(tokens, 1))

    def read(self, tokens, lattice):
        """Takes the next line; returns True once the set is closed."""
        key = tokens[0]
        if self.expect_member:
            if self.error_line_allowed and key in _SET_ERROR_WORDS:
                self.error_line_allowed = False
                return False
            self.expect_member = False
            start = self.starts[-1]
            self.ends.append(_number(tokens, 1) + start)
            self.min_aperture = min(self.min_aperture, _number(tokens, 2, 1.0))
            self.members.append(tokens)
            return False
        if key == "superpose":
            self.starts.append(_number(tokens, 1))
            self.expect_member = self.error_line_allowed = True
            return False
        # superposeout closes a curved set, any other line a straight one; the
        # line is used up either way.
        self._close(lattice)
        return True

    def _close(self, lattice):
        rf = [i for i, m in enumerate(self.members) if m[0] == "field" and _number(m, 5) != 0.0]
        big_e, small_s = max(self.ends), min(self.starts)
        radius = _fixed(self.min_aperture)
        if not rf:
            lattice.add("field", _fixed(big_e - small_s), radius, ["field"], self.members)
            return
        r = rf[0]
        s, e = self.starts[r], self.ends[r]
        cavity_length = _number(self.members[r], 1)
        if s == 0.0:
            lattice.add("field", cavity_length, radius, ["field"], self.members, cavity=True)
            lattice.add("field", _fixed(big_e - e), radius, ["field"], self.members)
        else:
            lattice.add("field", _fixed(s - 0.0), radius, ["field"], self.members)
            lattice.add("field", cavity_length, radius, ["field"], self.members, cavity=True)
            if e != big_e:
                lattice.add("field", _fixed(big_e - e), radius, ["field"], self.members)


def read_lattice(path):
    """The elements of lattice.txt, in beamline order, at their z."""
    lattice = _Lattice()
    waiting = True
    open_set = None
    for tokens in _token_lines(path, "the lattice deck (start, element lines, end)"):
        key = tokens[0]
        if waiting:
            waiting = key != "start"
            continue
        if open_set is not None:
            if open_set.read(tokens, lattice):
                open_set = None
            continue
        if key in ELEMENT_WORDS:
            lattice.add(key, _number(tokens, 1), _number(tokens, 2), tokens)
        elif key == "superpose":
            open_set = _SuperposedSet(tokens)
        elif key == "end":
            break
    return lattice.elements


def read_boundary(path):
    """The sections of boundary.txt, end to end from z = 0."""
    sections, z, waiting = [], 0.0, True
    for tokens in _token_lines(path, "the aperture deck (start, section lines, end)"):
        if waiting:
            waiting = tokens[0] != "start"
            continue
        if tokens[0] in ("1", "2"):
            length = _number(tokens, 2)
            radius = _number(tokens, 3) if tokens[0] == "1" else None
            sections.append(PipeSection(tokens[1] if len(tokens) > 1 else "", z, z + length, radius))
            z += length
    return sections


def _keyword_values(path):
    """First token (lower case) to the other tokens, for input.txt and
    beam.txt; the last line of a keyword counts."""
    values = {}
    if Path(path).is_file():
        for tokens in _token_lines(path, "a deck"):
            values[tokens[0].lower()] = tokens[1:]
    return values


def find_decks(folder):
    """The folder that holds the run's lattice.txt, or None (see above)."""
    folder = Path(folder)
    for base in (folder, folder.parent, folder.parent.parent):
        for candidate in (base, base / "in") if base != folder else (base,):
            if (candidate / "lattice.txt").is_file():
                return candidate
    return None


def read_decks(folder):
    """The lattice, the pipes (when input.txt says `boundary 1`), and charge
    state and species of the decks in `folder`."""
    folder = Path(folder)
    if not (folder / "lattice.txt").is_file():
        raise KeldFileError(f"{folder}: no lattice.txt, expected the input folder of the run")
    run = _keyword_values(folder / "input.txt")
    beam = _keyword_values(folder / "beam.txt")
    pipes = None
    if int(_number(run.get("boundary", []), 0)) == 1:
        pipes = read_boundary(folder / "boundary.txt")
    charge = _number(beam.get("numofcharge", []), 0, None)
    species = beam["kindofparticle"][0] if beam.get("kindofparticle") else None
    return Decks(folder, read_lattice(folder / "lattice.txt"), pipes, charge, species)


def decks_of_run(run, decks=None):
    """The decks of the run in folder `run`: those in `decks` when given,
    else those that find_decks finds; None when there are none."""
    if decks is not None:
        return read_decks(decks)
    found = find_decks(run)
    return read_decks(found) if found is not None else None
