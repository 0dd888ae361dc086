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

// Restricts the samples of the next error study that main_agent runs: to
// first..last (numbered from 0, both included), or to slice `rank` of
// `ranks` nearly equal slices. The sets are drawn for the whole study all the
// same, so a sample gives the same result in whichever process it runs; its
// results go to output_<i> as in a whole study. Both return 0.
int sample_range(int first, int last);
int sample_slice(int rank, int ranks);

// Seeds the random generator with `seed` for every bunch that main_agent
// generates from now on, so that runs repeat bit for bit; without a call each
// bunch is seeded from the clock. The error sets of a study do not depend on
// it: they are drawn before any seed, the same in every process. Returns 0.
int random_seed(unsigned int seed);
}

// The seed of a bunch about to be generated: the one random_seed set, or the
// clock.
unsigned int BunchSeed();
