#include "spacecharge/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

// The only worker is held while a producer fills the queue: it stops at the
// limit; once released, every task runs, and the destructor drains the rest.
TEST(ThreadPoolQueue, TasksBeyondTheLimitAllRunAndDestructionDrainsTheQueue) {
  const int kTasks = 100000 + 50;
  std::atomic<int> queued{0}, ran{0};
  {
    ThreadPool pool(1);
    std::promise<void> gate;
    pool.enqueue([open = gate.get_future().share()] { open.wait(); });
    std::thread producer([&] {
      for (int i = 0; i < kTasks; ++i, ++queued) pool.enqueue([&] { ++ran; });
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_LE(queued.load(), 100000);
    EXPECT_EQ(ran.load(), 0);
    gate.set_value();
    producer.join();
  }
  EXPECT_EQ(ran.load(), kTasks);
}

// The queue empties once the workers have taken the tasks; only the in-flight
// wait says that they have finished and written their results.
TEST(ThreadPoolWaits, ReturnOnlyWhenTheWorkIsDone) {
  ThreadPool pool(2);
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  std::vector<int> written(2, 0);  // plain ints: the waits must order them
  for (int k = 0; k < 2; ++k) pool.enqueue([&written, open](int slot) { open.wait(), written[slot] = 1; }, k);
  pool.wait_until_empty();
  std::atomic<bool> returned{false};
  std::thread waiter([&] { pool.wait_until_nothing_in_flight(), returned = true; });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(returned.load());
  gate.set_value();
  waiter.join();
  EXPECT_EQ(written, std::vector<int>({1, 1}));
}

// Throwing tasks still lower the in-flight count; their futures keep the
// error. A pool without workers has nothing to wait for and ends at once.
TEST(ThreadPoolTasks, ThrowingTasksEndThePhaseAndZeroWorkersIsHarmless) {
  ThreadPool idle(0);
  idle.wait_until_empty();
  idle.wait_until_nothing_in_flight();
  ThreadPool pool(2);
  std::future<void> failed = pool.enqueue([] { throw std::runtime_error("task failed"); });
  for (int k = 0; k < 3; ++k) pool.enqueue([] { throw 7; });
  pool.wait_until_empty();
  pool.wait_until_nothing_in_flight();
  EXPECT_THROW(failed.get(), std::runtime_error);
}
