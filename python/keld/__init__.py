"""Reading and plotting the results of Keld runs.

Readers return NumPy arrays, or small records with named fields:

    read_dataset("out/DataSet.txt").rms_x        # one value per time step
    read_dst("out/outData_1.000000.dst").particles  # N x 6: x, x', y, y', phase, W
    read_beamset("out/BeamSet.plt").dumps        # every particle dump

A file that is missing, empty, cut short or not in Keld's layout raises
KeldFileError, whose text names the file and what was expected.
    summary("out")                               # how the run went, as keld prints it

Figures: keld-plot (keld.plot); openPMD: keld-openpmd (keld.openpmd).
"""

from .binary import (BeamSet, Distribution, Dump, read_beamset, read_dst,
                     write_dst)
from .errors import KeldFileError
from .decks import find_decks, read_decks
from .study import Sample, read_study
from .summary import summary
from .textfiles import (DATASET_COLUMNS, Table, read_collisions, read_dataset,
                        read_error_data, read_phase, read_scandata, read_simulation_time,
                        read_se_synparticle, read_single_particle, read_synparticle)

__all__ = [
    "BeamSet", "Distribution", "Dump", "read_beamset", "read_dst", "write_dst", "KeldFileError", "Sample",
    "read_study", "DATASET_COLUMNS", "Table", "read_collisions", "read_dataset", "read_error_data", "read_phase",
    "read_scandata", "read_se_synparticle", "read_simulation_time", "read_single_particle",
    "read_synparticle", "find_decks", "read_decks", "summary",
]
