"""The one failure of the readers: a file that is missing, empty, cut short or
not in the layout Keld writes. Its text names the file and says what was
expected, so that a command can print it as it stands and stop."""

from pathlib import Path


class KeldFileError(Exception):
    """A result file that cannot be read as Keld writes it."""


def read_bytes(path, expected):
    """Whole content of `path`; a missing or unreadable file raises
    KeldFileError saying what the file should have held."""
    p = Path(path)
    try:
        return p.read_bytes()
    except FileNotFoundError:
        raise KeldFileError(f"{p}: no such file, expected {expected}") from None
    except IsADirectoryError:
        raise KeldFileError(f"{p}: is a folder, expected {expected}") from None
    except OSError as e:
        raise KeldFileError(f"{p}: cannot be read ({e.strerror}), expected {expected}") from None
