#pragma once
#include <array>
#include <chrono>
#include <initializer_list>
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "beam/LeapFrog.h"
#include "beamline/Boundary.h"
#include "beamline/Lattice.h"
#include "run/ErrorSample.h"
#include "spacecharge/Mesh.h"
#include "spacecharge/PIC.h"
#include "spacecharge/ThreadPool.h"
#include "tracking/TcodeTrans.h"

// The tracking engine: a worker pool for the time-step kernel together with
// the run's settings, time accounts and step counter.
class MethodMP : public ThreadPool {
 public:
  std::chrono::system_clock::time_point startTime;
  double timePush = 0.0;      // us in the pooled push
  double timeMap = 0.0;       // us in the hard-edge maps
  double timeFieldPre = 0.0;  // us preparing the hard-edge self-field
  double timeZtoT = 0.0;      // us turning rows back into particles
  double timeTotal = 0.0;     // us of the whole run
  double timeStep = 0.0;      // s
  int spaceCharge = 0;
  int track = 0;
  int multithreading = 0;
  int dumpPeriodicity = 0;
  int stepCounter = 0;
  int boundary = 0;
  int lpBoundary = 0;
  std::vector<int> cores = std::vector<int>(10, 0);
  std::vector<double> outputPlanes;
  std::vector<double> scParameters = std::vector<double>(20, 0.0);
  std::vector<int> numOfGrid;
  double progressPercent = 0.0;
  double progressElapsed = 0.0;
  double progressRemaining = 0.0;
  double startZ = 0.0;
  double progressInterval = 3.0;  // s between two progress lines
  int stepLimit = 0;

  MethodMP();

  void Run(Lattice& lattice, Beam& beam, ErrorSample& sample, Boundary& boundaryList);
  void tcodeRun(double& time, double& stepSize, double& startPlane, std::vector<int>& stopCode,
                std::vector<double>& stopZ, CrossingTable& planeCrossing, CrossingTable& curveCrossing, Beam& beam,
                Lattice& lattice, PIC& pic, Mesh& mesh, LeapFrog& leapFrog, ErrorSample& sample,
                Boundary& boundaryList);
  // Turns the crossing rows back into particles at the common time timeOut,
  // each on its straight line behind the plane z; clears every row.
  double zTotcode(double z, Beam& beam, CrossingTable& rows, double& timeOut);
  // Walks one z-code section element by element through the hard-edge maps,
  // with one space-charge kick at each element's middle; hands the bunch
  // back to the time code at the section's end.
  void zcodeRun(double& time, double& startPlane, std::vector<int>& elementCode, std::vector<int>& sectionElements,
                CrossingTable& planeCrossing, Beam& beam, Lattice& lattice, PIC& pic, Mesh& mesh,
                ErrorSample& sample);
  // One map step of all alive rows from zStart to zEnd. kickMode 1 kicks by
  // the self-field first, 2 leaves the mean arrival time in timeOut, 0 (and
  // 1) the earliest; it comes back as 0.
  void HardEdgeTrans(int element, double zStart, double zEnd, CrossingTable& states, Beam& beam, Lattice& lattice,
                     int& kickMode, double& timeOut);
  // The reference row through the whole element.
  void HardEdgeTrans(int element, CrossingTable& states, Beam& beam, Lattice& lattice);
  // Relative coordinates, mean and rms of the rows carried to the common
  // time `time`, as the solver's mesh fit and deposition want them.
  void HESCFieldPre(Beam& beam, CrossingTable& states, Lattice& lattice, double& time);
  // Stops the run before anything moves when a z-code section holds an
  // element that no map can carry, or an output plane it cannot write.
  void CheckZcodeSections(Lattice& lattice, const std::vector<std::vector<int>>& sectionElements,
                          const std::vector<std::vector<int>>& elementCode);

  // The secondary-beam run: the reference alone through the whole plan, then
  // each macro particle alone, with its own clock and step and no self-field.
  void SeRun(Lattice& lattice, Beam& beam, ErrorSample& sample, Boundary& boundaryList);
  // One time-code section for one particle; reference is 1 on the
  // reference pass, which sets stepLimit.
  void SeTRun(std::vector<int>& stopCode, std::vector<double>& stopZ, std::vector<double>& row, Particle& particle,
              Lattice& lattice, LeapFrog& leapFrog, ErrorSample& sample, int reference, Boundary& boundaryList);
  // One z-code section for one particle's crossing row.
  void SeZRun(std::vector<int>& elementCode, std::vector<int>& sectionElements, std::vector<double>& row,
              Particle& particle, Lattice& lattice, ErrorSample& sample, int reference);
  // One whole map of a hard-edge element on one row, without kick.
  void SeHardEdgeTrans(int element, double zFrom, double zTo, std::vector<double>& row, Particle& particle,
                       Lattice& lattice, int reference);
  // outData_<z>.txt: emptied by the reference pass, one line per particle.
  void SePlaneOut(Particle& particle, std::vector<double>& row, double z, int reference);

  // Exact statistics pass over the bunch.
  void UpdateBeamParameters(Beam& beam, Lattice& lattice);
  void synPout(Beam& beam, double& time);
  void SeSynPout(Particle& particle);
  void beamOut(Beam& beam, CrossingTable& rows, int kind, double time, double z, int step);
  void dstOut(Beam& beam, const CrossingTable& rows, double z);
  void errSampleOut(ErrorSample& sample);
  void testOut(Beam& beam);
  void simulationProgress(Beam& beam, ErrorSample& sample);
  // Reports a failure of the tracking stage and ends the process, status 2.
  [[noreturn]] static void errorOut(std::string message);
  // The run cannot go on once the bunch's moments are not numbers.
  [[noreturn]] void NotFiniteStop(int step);

 private:
  double latticeEnd = 0.0;  // m, end of the last element of the run's lattice
  // What both runs do first: the error sample's files and element errors,
  // the opening lines, the emptied output files and the dump header.
  void BeginRun(Lattice& lattice, Beam& beam, ErrorSample& sample, std::initializer_list<const char*> emptied);
  void WriteBeamSetHeader(Beam& beam);
  // Kicks the crossing rows by the steerer at lattice index `code`, acting
  // over `length`. The time code clears entry 4 of each row; inside a
  // hard-edge element it holds the first half's flight time and is kept.
  void ApplySteerer(Lattice& lattice, Beam& beam, CrossingTable& rows, int code, double length, bool clearEntry4);
  void ApplyApertures(Beam& beam, Lattice& lattice, Boundary& boundaryList, PreviousTable& previous, double time,
                      double dt);
  // Columns 14 to 17 of the line record: frame state, plane, steps in the
  // bending plane and in z of the reference.
  void FrameColumns(Beam& beam, std::vector<double>& lineRecord, const std::array<double, 6>& previousReference,
                    const double* referenceCurveRow, double startPlane, double time, double dt);
  // The frame of the statistics follows the reference through a curved set.
  void FrameOfReference(Beam& beam, Lattice& lattice, double* referenceCoordinate);
  // Puts a particle back from its crossing row r to the common time, behind
  // the plane z; momenta from the row.
  static void RestoreFromRow(Particle& p, const double* r, double z, double commonTime);
  void WriteSimulationTime(const PIC& pic);
};
