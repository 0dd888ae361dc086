// The RFQ's cell tables: rfqinputAnn.txt (multipole coefficients) and
// rfqinputV.txt (geometry and voltage), one line per cell, merged into the
// cell table rfqinput.txt that the RFQ reads, and the profile E0-z.txt. The
// values pass through 32-bit floats and the merged table keeps six
// significant digits of lengths, voltages and apertures and six decimals of
// the coefficients.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "run/HelperFunc.h"
#include "run/Initial.h"

namespace {

// Every line of a table, its first `columns` tokens narrowed to float. False
// when the file does not open.
bool ReadTable(const std::string& path, std::size_t columns, std::vector<std::vector<float>>& rows) {
  std::ifstream in(path);
  if (!in.is_open()) return false;
  std::string line;
  std::vector<std::string> token;
  while (in.peek() != EOF) {
    std::getline(in, line);
    StringSplit(line, token);
    std::vector<float> row(columns);
    for (std::size_t k = 0; k < columns; ++k) row[k] = static_cast<float>(std::stod(token.at(k)));
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
  if (!ReadTable(inputFolder + "rfqinputAnn.txt", 13, ann)) std::cout << "RFQ Structure path Ann ERROR!" << std::endl;
  if (!ReadTable(inputFolder + "rfqinputV.txt", 14, cell)) std::cout << "RFQ Structure path V ERROR!" << std::endl;
  // Line i of both tables is cell i: a shorter coefficient table would leave
  // cells without coefficients.
  if (!ann.empty() && ann.size() != cell.size())
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
