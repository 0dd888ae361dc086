#pragma once
#include <string>

extern "C" {
// Folders of all input decks and of all outputs. Both end in a separator and
// every reader and writer joins folder and file name by concatenation. C
// linkage gives them plain symbol names, so that a host finds them by dlsym.
extern std::string inputFilePath;
extern std::string outputFilePath;

// Sets both folders, appending "/" to each. Returns 0.
int path(const char* inputFolder, const char* outputFolder);
// One whole simulation from the decks in the input folder. Returns 0; every
// failure ends the process instead.
int main_agent();
}
