// The RFQ's cell tables: rfqinputAnn.txt (multipole coefficients) and
// rfqinputV.txt (geometry and voltage), one line per cell, merged into the
// cell table rfqinput.txt that the RFQ reads, and the profile E0-z.txt. The
// values pass through 32-bit floats and the merged table keeps six
// significant digits of lengths, voltages and apertures and six decimals of
// the coefficients.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "run/DeckValue.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"

namespace {

// Every cell line of a table, its first `columns` tokens narrowed to float;
// blank lines carry no cell. False when the file does not open.
bool ReadTable(const std::string& folder, const std::string& name, std::size_t columns,
               std::vector<std::vector<float>>& rows) {
  if (IsFolder(folder + name)) Initial::errorOut(name + " in the input folder is a folder, not a file");
  std::ifstream in(folder + name);
  if (!in.is_open()) return false;
  std::string line;
  std::vector<std::string> token;
  for (int lineNumber = 1; GetDeckLine(in, line); ++lineNumber) {
    StringSplit(line, token);
    if (token.empty()) continue;
    const std::string where = name + " line " + std::to_string(lineNumber) + ": ";
    if (token.size() < columns)
      Initial::errorOut(where + "a cell line needs " + std::to_string(columns) + " values, this one holds " +
                        std::to_string(token.size()));
    std::vector<float> row(columns);
    for (std::size_t k = 0; k < columns; ++k) {
      try {
        row[k] = static_cast<float>(DeckReal(token[k]));
      } catch (const DeckValueError& e) {
        Initial::errorOut(where + e.what() + " in \"" + line + "\"");
      }
      if (!std::isfinite(row[k]))
        Initial::errorOut(where + "\"" + token[k] + "\" is out of range for the table's 32-bit values");
    }
    rows.push_back(row);
  }
  return true;
}

std::string Fixed(float value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%f", value);
  return buffer;
}

}  // namespace

void ReadRFQ(std::string& inputFolder, std::string& outputFolder) {
  (void)outputFolder;  // both files belong beside the tables they come from
  std::vector<std::vector<float>> ann, cell;
  if (!ReadTable(inputFolder, "rfqinputAnn.txt", 13, ann)) std::cout << "RFQ Structure path Ann ERROR!" << std::endl;
  if (!ReadTable(inputFolder, "rfqinputV.txt", 14, cell)) std::cout << "RFQ Structure path V ERROR!" << std::endl;
  // Line i of both tables is cell i: a shorter coefficient table, an empty
  // one included, would leave cells without coefficients.
  if (ann.size() != cell.size())
    Initial::errorOut("rfqinputAnn.txt has " + std::to_string(ann.size()) + " lines but rfqinputV.txt has " +
                      std::to_string(cell.size()) + "; the two RFQ tables must describe the same cells");

  // Columns of rfqinputAnn.txt that hold A0 ... A7.
  static const int kAnnColumn[8] = {6, 5, 8, 7, 10, 12, 9, 11};
  std::ofstream table(inputFolder + "rfqinput.txt", std::ios::trunc);
  if (!table.is_open()) std::cout << "output error" << std::endl;
  for (std::size_t i = 0; i < cell.size(); ++i) {
    const std::vector<float>& v = cell[i];
    table << v[0] << " " << v[12] << " " << v[1] << " " << v[7] << " " << v[8] << " " << v[6];
    for (int k = 0; k < 8; ++k) table << " " << (i < ann.size() ? Fixed(ann[i][kAnnColumn[k]]) : Fixed(0.0f));
    table << "\n";
  }
  table.close();

  std::ofstream profile(inputFolder + "E0-z.txt", std::ios::trunc);
  if (!profile.is_open()) std::cout << "output error" << std::endl;
  for (std::vector<float>& v : cell) {
    v[13] = static_cast<float>(v[13] / 100.0);
    profile << v[13] << " " << v[4] << "\n";
  }
}
