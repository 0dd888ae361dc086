// libKeld.so carries the whole core library; the symbols it exports are
// listed in exports.map: path, main_agent, sample_range, sample_slice, random_seed,
// inputFilePath, outputFilePath.
#include "run/Keld.h"
