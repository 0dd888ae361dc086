#pragma once
// Set-up checks that keep a run from destroying its own inputs or filling
// the disk: they stop the run (status 1, with the ErrorLog.txt line) before
// its first output file is written.
#include <string>

class Initial;
class Lattice;
struct Beam;

// Refuses a run whose output folder is its input folder (the same folder
// however the two paths name it): an input that shares a name with an output,
// a secondary list called collisionData.txt say, would be overwritten.
void CheckFoldersApart();

// Refuses a single run whose distribution file (as beam.txt names it) lies in
// the output folder under a name that the run writes itself.
void CheckDistributionKept(const std::string& distributionName);

// What a run is expected to write, in bytes: the per-step text files, the
// dumps of BeamSet.plt, the plane files and the lost-particle lines.
struct OutputEstimate {
  double steps = 0.0;     // time steps of the run, estimated from the start speed
  double beamSet = 0.0;   // BeamSet.plt
  double total = 0.0;     // everything, BeamSet.plt included
};
OutputEstimate EstimateOutput(const Initial& init, const Beam& beam, const Lattice& lattice);

// Refuses `runs` runs like this one (the samples of a study that are still to
// come) when their estimated outputs exceed the free space of the output
// folder.
void CheckOutputSpace(const Initial& init, const Beam& beam, const Lattice& lattice, int runs);
