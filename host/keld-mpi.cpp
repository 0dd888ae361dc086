// keld-mpi: an error study spread over MPI ranks. Every rank reads the same
// decks and draws the same error sets, then runs its own slice of the
// samples into OUTPUT_DIR/output_<i>, with threads inside the rank as keld
// uses them. Start it with mpirun, e.g.
//   mpirun -n 8 keld-mpi INPUT_DIR OUTPUT_DIR
#include <mpi.h>

#include <iostream>
#include <string>

#include "host/Arguments.h"
#include "host/HostRun.h"

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int rank = 0, ranks = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &ranks);
  const bool seeded = argc == 5 && std::string(argv[3]) == "--seed";
  if (argc != 3 && !seeded) {
    if (rank == 0)
      std::cout << "Usage: mpirun -n RANKS keld-mpi INPUT_DIR OUTPUT_DIR [--seed N]\n"
                   "Runs the samples of the error study in INPUT_DIR, slice by slice over the ranks,\n"
                   "into OUTPUT_DIR/output_<i> (OUTPUT_DIR must exist). With --seed every rank seeds\n"
                   "its bunches with N, as keld --seed does.\n";
    MPI_Finalize();
    return 1;
  }
  if (seeded) {
    // Every rank reads the same value; rank 0 alone says why it is refused.
    unsigned long long value = 0;
    if (!host::ParseWhole(argv[4], 4294967295ULL, value)) {
      if (rank == 0) std::cout << host::kSeedRefusal << argv[4] << std::endl;
      MPI_Finalize();
      return 1;
    }
    random_seed(static_cast<unsigned int>(value));
  }
  sample_slice(rank, ranks);
  path(argv[1], argv[2]);
  const int status = host::RunSimulation();
  // A rank that failed ends here with its status; the others finish their
  // slices first.
  MPI_Finalize();
  return status;
}
