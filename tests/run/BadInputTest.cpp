// Bad and borderline input to every reader: a deck, a field map, a boundary list, the RFQ tables, a loaded bunch
// or a secondary list. Each case stops at set-up naming file, line and value (status 1, the ErrorLog.txt line,
// nothing half-written), or, where the value is legal but odd, warns and runs.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/BadDecks.h"

using namespace keldtest;

namespace {

// A text map of one cell, 0.1 m long and 4 cm wide, with the eight node values given.
std::string CellMap(const std::string& nodes, const std::string& length = "0.1") {
  return "1 " + length + "\n1 -0.02 0.02\n1 -0.02 0.02\n1\n" + nodes + "\n";
}
const std::string kZeros = "0 0 0 0 0 0 0 0";

// The 0.6 m line of 300 protons of 3 MeV without current, and two maps: "quad" of 10 T/m (Bx = 10 y, By = 10 x)
// and "cav", a cell of uniform Ez of 1 MV/m.
DeckSet Base() {
  return {{"input.txt", "spacecharge 0\nsteppercycle 50\n"},
          {"beam.txt", "numofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\ncurrent 0\nparticlenumber 300\n"
                       "twissx -0.5 0.3 0.2\ntwissy 0.5 0.3 0.2\ntwissz 0.0 3.2 0.1\n"},
          {"lattice.txt", "start\ndrift 0.3 0.02 0\ndrift 0.3 0.02 0\nend\n"},
          {"quad.bsx", CellMap("-0.2 -0.2 0.2 0.2 -0.2 -0.2 0.2 0.2")},
          {"quad.bsy", CellMap("-0.2 0.2 -0.2 0.2 -0.2 0.2 -0.2 0.2")},
          {"quad.bsz", CellMap(kZeros)},
          {"cav.edx", CellMap(kZeros)}, {"cav.edy", CellMap(kZeros)}, {"cav.edz", CellMap("1 1 1 1 1 1 1 1")},
          {"cav.bdx", CellMap(kZeros)}, {"cav.bdy", CellMap(kZeros)}, {"cav.bdz", CellMap(kZeros)}};
}

// Edits of the base: a line added to input.txt, the first drift of the lattice replaced.
DeckEdit Setting(const std::string& line) { return {"input.txt", "steppercycle 50\n", "steppercycle 50\n" + line}; }
DeckEdit FirstElement(const std::string& lines) { return {"lattice.txt", "drift 0.3 0.02 0\ndrift", lines + "\ndrift"}; }
// A static magnetic map set `name` whose x component is `bsx`.
std::vector<DeckEdit> MagnetMap(const std::string& name, const std::string& bsx) {
  return {{name + ".bsx", "", bsx}, {name + ".bsy", "", CellMap(kZeros)}, {name + ".bsz", "", CellMap(kZeros)},
          FirstElement("field 0.1 0.02 0 3 0 0 0 1 " + name)};
}
// A binary distribution of particles given as x (cm), x', y (cm), y', phase, energy (MeV) at 352.2 MHz.
std::string Distribution(const std::vector<std::vector<double>>& rows) {
  std::string bytes = "}d";
  auto put = [&](const auto& v) { bytes.append(reinterpret_cast<const char*>(&v), sizeof v); };
  put(static_cast<int>(rows.size()));
  put(0.0);
  put(352.2);
  bytes += '}';
  for (const auto& row : rows)
    for (double v : row) put(v);
  put(938.272029);
  return bytes;
}
std::vector<DeckEdit> Loaded(const std::string& bytes) {
  return {{"beam.txt", "current 0\n", "current 0\nreadparticledistribution b.dst\n"}, {"b.dst", "", bytes}};
}
std::vector<DeckEdit> Secondary(const std::string& list) {
  return {Setting("secondarybeam 1\n"), {"beam.txt", "current 0\n", "readparticledistribution s.txt\n"},
          {"s.txt", "", list}};
}
std::vector<DeckEdit> Pipes(const std::string& boundary) {
  return {Setting("boundary 1\n"), {"boundary.txt", "", boundary}};
}
const std::string kCell = "field 0.02 0.02 0 1 352.2e6 -30 1 0 cav";
const std::string kAnn = "1 0 0 0 0 1 0.5 0 0 0 0 0 0\n";
const std::string kCellLine = "1 80 0 0 1 0 0 0.3 1 0 0 0 2 1\n";
std::vector<DeckEdit> Rfq(const std::string& ann, const std::string& cells, const std::string& line) {
  return {{"rfqinputAnn.txt", "", ann}, {"rfqinputV.txt", "", cells}, FirstElement(line)};
}
std::string WindowsLineEnds(std::string text) {
  for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2) text.insert(at, "\r");
  return text;
}
}  // namespace

TEST(BadInput, EveryFamilyStopsCleanlyAndNamesFileLineAndValue) {
  const std::string notFinite = R"( is not a finite number in ")";
  ExpectRefused(Base(), {
      // Settings that made the run hang or stall.
      {{Setting("scantstep 0")}, R"(input.txt line 3: scantstep must be above 0 and at most 1 \(a fraction of a )"
                                 R"(time step\), got 0)"},
      {{Setting("integralgrid 1e6")}, "input.txt line 3: integralgrid must lie between 1 and 32 points per axis, "
                                      "got 1e6"},
      {{{"lattice.txt", "start\n", "start\nautomaticoutput 0.1\noutputplane inf\n"}},
       "lattice.txt line 3: \"inf\"" + notFinite + "outputplane inf\""},
      {{{"lattice.txt", "start\n", "start\nautomaticoutput 0.1\noutputplane 1e300\n"}},
       R"(automaticoutput 0.1 would make about 1e\+301 output planes over 1e\+300 m; at most 100000 are allowed, )"
       R"(choose a larger step)"},
      {{FirstElement("field 0.02 0.02 0 1 nan -30 1 0 cav")},
       "lattice.txt line 2: \"nan\"" + notFinite + "field 0.02 0.02 0 1 nan -30 1 0 cav\""},
      {{{"input.txt", "steppercycle 50", "steppercycle 1e6"}, FirstElement(kCell)},
       R"(The phase scan would take about 1\.\d+e\+09 steps with steppercycle 1e\+06 and scantstep 0\.01; at most )"
       R"(1e\+09 are allowed, raise scantstep or lower steppercycle)",
       {"inData.dst"}},
      {{FirstElement("field 0.02 0.02 0 1 352.2e6 -30 5000 0 cav")},
       "The synchronous particle does not leave cavity 1 within 1000 times its flight time at the entry speed; its "
       "field stops or turns it back",
       {"Phase.txt", "inData.dst", "scanPhaseData.txt"}},
      // The phase scan skipped.
      {{Setting("scantstep 1e9")}, R"(input.txt line 3: scantstep must be above 0 and at most 1 \(a fraction of a )"
                                   R"(time step\), got 1e9)"},
      {{Setting("runperiod 0")}, R"(input.txt line 3: runperiod must be 1 or more periods \(the step limit of the )"
                                 R"(phase scan\), got 0)"},
      {{Setting("runperiod 1"), {"lattice.txt", "0\ndrift 0.3 0.02 0\nend", "0\n" + kCell + "\ndrift 0.3 0.02 0\nend"}},
       R"(The phase scan stops at z = 0\.06\d+ m when runperiod 1 periods have passed, before the cavity at 0\.3 m; )"
       R"(raise runperiod)",
       {"Phase.txt", "inData.dst", "scanPhaseData.txt"}},
      // Nothing to run.
      {{FirstElement("err_step 0 0")}, "lattice.txt line 2: err_step asks for 0 x 0 samples; both numbers must be "
                                       "1 or more"},
      {{FirstElement("err_step 46341 46341")}, "lattice.txt line 2: err_step asks for 46341 x 46341 samples, more "
                                               "than the 2147483647 a study can count"},
      {Secondary(""), "s.txt holds no particle line"},
      {Secondary(kFolder), "s.txt in the input folder is a folder, not a file"},
      // Values that are not finite, or absurd.
      {{FirstElement("err_quad_ncpl_stat 1 0 nan")}, "lattice.txt line 2: \"nan\"" + notFinite +
                                                         "err_quad_ncpl_stat 1 0 nan\""},
      {MagnetMap("bad", CellMap("0 0 0 0\n0 nan 0 0")),
       R"(Field map file /tmp/keld_test_\w+/in/bad\.bsx: line 6: "nan" is not a finite number)"},
      {{FirstElement("field 0.1 0.02 0 3 0 0 0 1e300 quad")},
       R"(lattice.txt line 2: the magnetic factor 1e300 gives map quad a peak field of 2e\+299 T; no magnet reaches )"
       R"(1000 T)"},
      {{Setting("meshrms 1e300")}, "input.txt line 3: meshrms must lie between 1 and 1000 rms sizes, got 1e300"},
      {Loaded(Distribution({{0, 0, 0, 0, 0, 3}, {0, 0, 0, 0, 0.1, 0}})),
       "b.dst: particle 1 of the distribution file has a kinetic energy of 0 MeV; it must be above 0"},
      {Loaded(Distribution({{1e300, 0, 0, 0, 0, 3}})),
       R"(b.dst: particle 0 of the distribution file stands at x = 1e\+300 cm, y = 0 cm; a particle of the beam )"
       R"(lies within 100 cm of the axis)"},
      {Pipes("start\n1 pipe 0.6 0\nend\n"),
       "boundary.txt line 2: the radius of a circular pipe must be a positive number of metres, got 0"},
      // Geometry without meaning.
      {MagnetMap("flat", CellMap(kZeros, "0")),
       R"(Field map file /tmp/keld_test_\w+/in/flat\.bsx: szmax, the length of the map, must be above 0 m, the )"
       R"(header gives 0)"},
      {MagnetMap("long", CellMap(kZeros + " 0")),
       R"(Field map file /tmp/keld_test_\w+/in/long\.bsx: line 5: the data hold more values than the 8 the header )"
       R"(promises)"},
      {{{"lattice.txt", "drift 0.3 0.02 0\ndrift", "drift 0.3 nan 0\ndrift"}},
       "lattice.txt line 2: \"nan\"" + notFinite + "drift 0.3 nan 0\""},
      {{{"lattice.txt", "drift 0.3 0.02 0\ndrift", "drift 0.3 0 0\ndrift"}},
       "lattice.txt line 2: the aperture of a drift must be a positive number of metres, got 0 in \"drift 0.3 0 0\""},
      {Pipes("start\n1 pipe 0.6 0.02 RLP 0 nan 0 0 0 0\n"),
       "boundary.txt line 2: \"nan\"" + notFinite + "1 pipe 0.6 0.02 RLP 0 nan 0 0 0 0\""},
      {Pipes(kFolder), "boundary.txt in the input folder is a folder, not a file"},
      {Pipes(""), "boundary.txt has no start line, so no aperture section was read; boundary 1 needs them"},
      {Pipes("start\nend\n"), "boundary.txt holds no aperture section after its start line; boundary 1 needs them"},
      // Unknown types.
      {{FirstElement("field 0.1 0.02 0 7 0 0 0 1 quad")},
       R"(lattice.txt line 2: field type 7 is none of 0 \(no field\), 1 \(radio-frequency\), 2 \(static electric\), )"
       R"(3 \(static magnetic\))"},
      {{FirstElement("superpose 0\nquad 0.1 0.02 0 5 0 0\nstart")},
       "lattice.txt line 3: a member of a set of superimposed fields is a field or a drift line, not quad"},
      // Solver, thread and scan settings.
      {{Setting("negligibleratio nan")}, "input.txt line 3: \"nan\"" + notFinite + "negligibleratio nan\""},
      {{Setting("lpboundary 2")}, R"(input.txt line 3: lpboundary must be 0 \(open mesh\) or 1 \(periodic along z\), )"
                                  R"(got 2)"},
      {{Setting("scutoffdistance -5")}, "input.txt line 3: scutoffdistance must be 1 or more cells, got -5"},
      {{Setting("meshrms 4 1e-300")}, "input.txt line 3: meshrms must lie between 1 and 1000 rms sizes, got 1e-300"},
      {{Setting("setnumberofcores -1 1 1 0 1 1 1 1 1 1")},
       R"(input.txt line 3: setnumberofcores needs 1 or more threads in each place \(or -1 first, to choose by )"
       R"(bunch size\), got 0)"},
      {{FirstElement("field 0.02 0.02 0 1 -352.2e6 -30 1 0 cav")},
       R"(lattice.txt line 2: a radio-frequency field \(type 1\) needs a frequency above 0 Hz, got -352.2e6)"},
      // The RFQ line and its tables; a blank last line of a table is no cell.
      {Rfq(kAnn, kCellLine, "rfq -0.1 0.02 0 0 352.2e6 0 rfqinput.txt"),
       "lattice.txt line 2: the length of an rfq must be a positive number of metres, got -0.1"},
      {Rfq("", kCellLine, "rfq 0.01 0.02 0 0 352.2e6 0 rfqinput.txt"),
       "rfqinputAnn.txt has 0 lines but rfqinputV.txt has 1; the two RFQ tables must describe the same cells"},
      {Rfq(kAnn, "1 80 0 0 1 0 0 nan 1 0 0 0 2 1\n", "rfq 0.01 0.02 0 0 352.2e6 0 rfqinput.txt"),
       "rfqinputV.txt line 1: \"nan\"" + notFinite + "1 80 0 0 1 0 0 nan 1 0 0 0 2 1\""},
      {[] {
         std::vector<DeckEdit> e = Rfq(kAnn + "\n", kCellLine + "\r\n\n", "rfq 0.01 0.02 0 0 352.2e6 0 rfqinput.txt");
         e.push_back({"lattice.txt", "end\n", ""});
         return e;
       }(),
       "lattice.txt has no end line, the lattice is not closed"},
      // Numbers that are no numbers, and lines too short for what reads them.
      {{{"lattice.txt", "drift 0.3 0.02 0\ndrift", "drift 0.3 abc 0\ndrift"}},
       R"(lattice.txt line 2: "abc" is not a number in "drift 0.3 abc 0")"},
      {{FirstElement("field 0.02 0.02 0 1 0 -30 1 0 cav")},
       R"(lattice.txt line 2: a radio-frequency field \(type 1\) needs a frequency above 0 Hz, got 0)"},
      {{FirstElement("quad 0.3 0.02 0 5 0")}, R"(lattice.txt line 2: too few values in "quad 0.3 0.02 0 5 0")"},
      // Messages that blamed the wrong thing.
      {{{"lattice.txt", "drift 0.3 0.02 0\nend", "superpose 0\nfield 0.1 0.02 0 3 0 0 0 1 quad\nend"}},
       R"(lattice.txt line 5: this end line closes the set of superimposed fields above it and is used up by it, so )"
       R"(the lattice has no end line; put another line \(a second start will do\) between the set and end)"},
      {Loaded(Distribution({{0, 0, 0, 0, 0, 3}, {0, 0, 0, 0, 1e12, 3}})),
       R"(b\.dst: the loaded bunch takes 451\.8\d* s to pass a plane, which would need about \d\.\d+e\+12 time steps; )"
       R"(at most 1e\+08 are allowed; check the phases of its particles)"},
      // Keywords and switches of the run and beam decks.
      {{{"beam.txt", "twissz", "twiss"}}, "beam.txt Contains unknown keywords, check beam.txt: line 8 holds 'twiss'"},
      {{Setting("boundary 2")}, R"(input.txt line 3: boundary must be 0 \(apertures of the elements\) or 1 )"
                                R"(\(apertures from boundary.txt\), got 2)"},
  });
}

// Legal but odd input runs, with a warning where something is probably not meant. Decks saved with Windows line
// ends read as any other, a boundary list up to its end line included; a negative ion is a charge state like any
// other.
TEST(BadInput, OddButLegalInputWarnsAndRuns) {
  const DeckSet base = Base();
  std::vector<DeckEdit> windows;
  for (const char* name : {"input.txt", "beam.txt", "lattice.txt"})
    windows.push_back({name, "", WindowsLineEnds(base.at(name))});
  std::vector<DeckEdit> pipes = windows;
  pipes[0] = {"input.txt", "", WindowsLineEnds("spacecharge 0\nsteppercycle 50\nboundary 1\n")};
  pipes.push_back({"boundary.txt", "", WindowsLineEnds("start\n1 pipe 0.6 0.02\nend\n")});
  ExpectGoesOn(base, {
      {{{"beam.txt", "numofcharge 1", "numofcharge -1"}}, "Synchron particle addition completed"},
      {windows, "Lattice initialisation complete, total length 0.6 m"},
      {pipes, "Boundary loaded, total length: 0.6 m,  Lattice length: 0.6 m."},
      {{FirstElement("Quad 0.1 0.02 0 5 0 0")}, "lattice.txt line 2: unknown keyword 'Quad' ignored"},
      {{FirstElement("err_quad_ncpl_stat 1 0 0.1")},
       "Warning! lattice.txt line 2: err_quad_ncpl reaches no element: element errors act on field maps only, "
       "err_quad_ on static magnetic ones (type 3), err_cav_ on cavities (type 1)"},
      {Pipes("start\n1 pipe 0.5 0.02\nend\n"),
       "Warning! boundary.txt ends at 0.5 m, before the end of the lattice at 0.6 m: no aperture is checked beyond it"},
      {{Setting("scanphase 0"), FirstElement("field 0.02 0.02 0 1 352.2 -30 1 0 cav")},
       "Warning! lattice.txt line 2: the frequency 352.2 of this radio-frequency field is below 1 MHz; field lines "
       "give it in Hz"},
      {{FirstElement("drift 0.3 0.02 0 7")}, "Warning! lattice.txt line 2: a drift line takes 4 tokens, this one holds 5"},
  });
}
