#pragma once
// The few lines that keld prints when a run has ended: particles in and out,
// losses by element, final energy, sizes and emittances with their growth,
// and for an error study one line per sample and the spread. Everything is
// read back from the files the run wrote, so the numbers are those of the
// files and the same as keld.summary() in the Python package gives.
#include <chrono>
#include <string>
#include <vector>

namespace host {

// One element of lattice.txt placed as the run places it.
struct LatticeSpan {
  std::string kind;  // the deck word: drift, quad, ... field, rfq
  double zStart = 0.0;
  double length = 0.0;
  double zEnd = 0.0;
};

// The elements of inputFolder/lattice.txt in beamline order.
std::vector<LatticeSpan> ReadLatticeSpans(const std::string& latticePath);

// The summary of the run in `folder` (a folder with DataSet.txt), lines
// without their line ends; empty when DataSet.txt holds no statistics.
std::vector<std::string> RunSummaryLines(const std::string& folder, const std::vector<LatticeSpan>& lattice);

// The summary of the error study under `folder`, over the samples whose
// folders output_<i> are named in `samples`.
std::vector<std::string> StudySummaryLines(const std::string& folder, const std::vector<int>& samples);

// The numbers i of the folders output_<i> in `outputFolder`, ascending.
std::vector<int> SampleFolders(const std::string& outputFolder);

// Prints the summary of what the run that began at `start` wrote: the
// samples of a study whose folders are new since `samplesBefore` (a study
// makes a folder for each sample it runs and stops on one that exists), or
// else the plain run; then the wall time.
void PrintRunSummary(const std::string& inputFolder, const std::string& outputFolder,
                     const std::vector<int>& samplesBefore, std::chrono::system_clock::time_point start);

}  // namespace host
