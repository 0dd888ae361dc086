// The IGF solver: Poisson's equation in free space by Hockney's doubled-grid
// convolution with the Green's function integrated over a cell, which stays
// exact for cells and bunches of any aspect ratio. The kernel depends on the
// cell sizes alone and is made again only when they change; the transforms
// and the kernel are split into planes and columns run as pool tasks.
#include <algorithm>
#include <chrono>

#include "run/HelperFunc.h"
#include "spacecharge/PIC.h"

namespace {

// Runs work(task, first, end) over `count` units cut into at most `tasks`
// contiguous blocks, on the pool, and waits for all of them; one block runs
// on the calling thread.
template <class F>
void RunBlocks(ThreadPool& pool, int count, int tasks, F work) {
  const int blocks = std::max(std::min(tasks, count), 1);
  if (blocks == 1) {
    work(0, 0, count);
    return;
  }
  for (int t = 0; t < blocks; ++t)
    pool.enqueue(work, t, static_cast<int>(static_cast<long>(count) * t / blocks),
                 static_cast<int>(static_cast<long>(count) * (t + 1) / blocks));
  pool.wait_until_empty();
  pool.wait_until_nothing_in_flight();
}

}  // namespace

void PIC::IGF(Mesh& mesh) {
  if (!igf.Ready()) igf.Make(nx, ny, nz, threadPlan[6]);  // a solver set up for another method asked once

  // Kernel: the integrated Green's function on one octant of offsets and its
  // transform, for these cell sizes.
  const auto tableStart = std::chrono::system_clock::now();
  if (!igf.KernelFits(hx, hy, hz)) {
    RunBlocks(pool, nx + 1, threadPlan[6],
              [this](int task, int first, int end) { igf.KernelPlanes(hx, hy, hz, task, first, end); });
    RunBlocks(pool, ny + 1, threadPlan[6], [this](int, int first, int end) { igf.KernelColumns(first, end); });
    igf.kernelCell[0] = hx, igf.kernelCell[1] = hy, igf.kernelCell[2] = hz;
  }
  timeTable += ElapsedMicroseconds(tableStart);

  // Convolution: forward along z and y by planes, along x, the product and
  // back by columns, back along y and z by planes.
  const auto start = std::chrono::system_clock::now();
  const double* rho = mesh.rho.data();
  RunBlocks(pool, nx, threadPlan[7], [this, rho](int, int first, int end) { igf.ForwardPlanes(rho, first, end); });
  RunBlocks(pool, 2 * ny, threadPlan[7], [this](int, int first, int end) { igf.ConvolveColumns(first, end); });
  RunBlocks(pool, nx + 2, threadPlan[7], [this](int, int first, int end) { igf.BackwardPlanes(first, end); });
  timeConvolution += ElapsedMicroseconds(start);

  // Field by central differences; the ghost layer of the potential is the
  // free-space one, so the edge needs no one-sided differences.
  const auto gradientStart = std::chrono::system_clock::now();
  RunBlocks(pool, nx, threadPlan[8],
            [this, &mesh](int, int first, int end) { igf.FieldPlanes(mesh, hx, hy, hz, first, end); });
  timeGradient += ElapsedMicroseconds(gradientStart);
}
