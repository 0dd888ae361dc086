"""Reader of an error study: one folder output_<i> per sample under the
study's output folder, each holding the files of one run."""

import re
from dataclasses import dataclass
from pathlib import Path

from .errors import KeldFileError
from .textfiles import read_dataset, read_error_data


@dataclass
class Sample:
    """One sample of an error study. Sample number i + 1 lies in folder
    output_<i>. The error rows are None where the sample drew no such set."""

    index: int
    folder: Path
    dataset: object
    static_errors: list = None
    dynamic_errors: list = None

    @property
    def number(self):
        return self.index + 1


def sample_folders(base):
    """The folders output_<i> under `base`, ordered by i."""
    b = Path(base)
    if not b.is_dir():
        raise KeldFileError(f"{b}: no such folder, expected the output folder of an error study")
    found = []
    for child in b.iterdir():
        m = re.fullmatch(r"output_(\d+)", child.name)
        if m and child.is_dir():
            found.append((int(m.group(1)), child))
    if not found:
        raise KeldFileError(f"{b}: no output_<i> folders, expected the output folder of an error study")
    return sorted(found)


def read_study(base):
    """Every sample of the study under `base`, in sample order."""
    samples = []
    for index, folder in sample_folders(base):
        static = folder / "StaticErrorData.txt"
        dynamic = folder / "DynamicErrorData.txt"
        samples.append(Sample(
            index, folder, read_dataset(folder / "DataSet.txt"),
            read_error_data(static) if static.exists() else None,
            read_error_data(dynamic) if dynamic.exists() else None))
    return samples
