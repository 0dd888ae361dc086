#include "spacecharge/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Runs `f` on the calling thread while a watchdog ends the process if it has
// not returned after `limit`. A pool that never wakes a waiter would otherwise
// stall the whole suite until the ctest timeout.
void WithinOrDie(const char* what, const std::function<void()>& f, std::chrono::seconds limit = 20s) {
  std::mutex m;
  std::condition_variable cv;
  bool done = false;
  std::thread watchdog([&] {
    std::unique_lock<std::mutex> lock(m);
    if (!cv.wait_for(lock, limit, [&] { return done; })) {
      std::fprintf(stderr, "%s did not return within %lld s\n", what, static_cast<long long>(limit.count()));
      std::_Exit(1);
    }
  });
  f();
  {
    std::lock_guard<std::mutex> lock(m);
    done = true;
  }
  cv.notify_all();
  watchdog.join();
}

// A one-shot gate that tasks block on until the test opens it.
class Gate {
 public:
  void Wait() {
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait(lock, [this] { return open_; });
  }
  void Open() {
    {
      std::lock_guard<std::mutex> lock(m_);
      open_ = true;
    }
    cv_.notify_all();
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  bool open_ = false;
};

}  // namespace

// One worker is held on a gate while 100000 tasks fill the queue to its
// limit. The next enqueue must block, and must go on as soon as the worker
// has taken one task off the full queue, not only once the queue is empty:
// that first task is itself held on a second gate. Every task then runs, in
// FIFO order.
TEST(ThreadPoolQueue, EnqueueBeyondLimitBlocksThenAllTasksRun) {
  ThreadPool pool(1);
  Gate first, second;
  std::promise<void> started;
  pool.enqueue([&] {
    started.set_value();
    first.Wait();
  });
  started.get_future().wait();  // the worker holds the gate task; the queue is empty

  constexpr int kLimit = 100000;
  std::atomic<int> next{0};
  std::atomic<int> outOfOrder{0};
  auto count = [&](int i) {
    if (i == 0) second.Wait();
    // A single worker runs the queue in order: each task must see its
    // predecessor's mark.
    if (next.load(std::memory_order_relaxed) != i) outOfOrder.fetch_add(1, std::memory_order_relaxed);
    next.store(i + 1, std::memory_order_relaxed);
  };
  for (int i = 0; i < kLimit; ++i) pool.enqueue(count, i);

  std::atomic<bool> returned{false};
  std::thread producer([&] {
    pool.enqueue(count, kLimit);
    returned = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(returned.load()) << "enqueue on a full queue returned without waiting";

  first.Open();  // the worker takes task 0 and holds there: one slot is free
  WithinOrDie("enqueue after one slot was freed", [&] { producer.join(); });
  EXPECT_TRUE(returned.load());
  EXPECT_EQ(next.load(), 0) << "no counting task may have finished yet";

  second.Open();
  WithinOrDie("waits after the full queue", [&] {
    pool.wait_until_empty();
    pool.wait_until_nothing_in_flight();
  });
  EXPECT_EQ(next.load(), kLimit + 1);
  EXPECT_EQ(outOfOrder.load(), 0);
}

// The queue empties as soon as the workers have taken the tasks, while the
// tasks still run: only the in-flight wait says that they have finished.
TEST(ThreadPoolWaits, EmptyQueueDoesNotMeanTasksFinished) {
  ThreadPool pool(2);
  Gate gate;
  std::atomic<int> finished{0};
  for (int k = 0; k < 2; ++k) pool.enqueue([&] {
    gate.Wait();
    finished.fetch_add(1);
  });

  WithinOrDie("wait_until_empty", [&] { pool.wait_until_empty(); });
  EXPECT_EQ(finished.load(), 0);  // both tasks were taken and are held at the gate

  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    pool.wait_until_nothing_in_flight();
    returned = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(returned.load()) << "wait_until_nothing_in_flight returned with tasks running";

  gate.Open();
  WithinOrDie("wait_until_nothing_in_flight", [&] { waiter.join(); });
  EXPECT_EQ(finished.load(), 2);
}

// The callers' sequence, enqueue then both waits, orders a phase: with slow
// tasks on several workers every task has finished and written its result.
TEST(ThreadPoolWaits, BothWaitsMeanEveryTaskFinished) {
  ThreadPool pool(4);
  constexpr int kTasks = 24;
  std::vector<int> written(kTasks, 0);  // plain ints: the waits must order them
  std::atomic<int> finished{0};
  for (int round = 1; round <= 2; ++round) {
    for (int k = 0; k < kTasks; ++k)
      pool.enqueue([&written, &finished, round](int slot) {
        std::this_thread::sleep_for(2ms);
        written[slot] = round;
        finished.fetch_add(1);
      }, k);
    WithinOrDie("the two waits", [&] {
      pool.wait_until_empty();
      pool.wait_until_nothing_in_flight();
    });
    EXPECT_EQ(finished.load(), round * kTasks);
    for (int k = 0; k < kTasks; ++k) EXPECT_EQ(written[k], round) << "slot " << k;
  }
}

// With nothing queued and nothing running, both waits return at once, on a
// pool with workers and on one without.
TEST(ThreadPoolWaits, IdlePoolWaitsReturnAtOnce) {
  for (std::size_t size : {std::size_t{0}, std::size_t{2}}) {
    ThreadPool pool(size);
    WithinOrDie("waits on an idle pool", [&] {
      pool.wait_until_empty();
      pool.wait_until_nothing_in_flight();
    }, 5s);
  }
  // Also after a phase has completed: the counter is back at zero.
  ThreadPool pool(2);
  pool.enqueue([] {}).get();
  WithinOrDie("waits after a finished phase", [&] {
    pool.wait_until_nothing_in_flight();
    pool.wait_until_empty();
    pool.wait_until_nothing_in_flight();
  }, 5s);
}

// A task that throws still lowers the in-flight counter, so the phase ends;
// the exception is kept in the task's future and the pool goes on working.
TEST(ThreadPoolTasks, ThrowingTaskEndsPhaseAndStoresException) {
  ThreadPool pool(2);
  std::atomic<int> ran{0};
  std::future<void> bad = pool.enqueue([] { throw std::runtime_error("task failed"); });
  std::vector<std::future<void>> good;
  for (int k = 0; k < 8; ++k) good.push_back(pool.enqueue([&] { ran.fetch_add(1); }));
  WithinOrDie("waits after a throwing task", [&] {
    pool.wait_until_empty();
    pool.wait_until_nothing_in_flight();
  });
  EXPECT_EQ(ran.load(), 8);
  try {
    bad.get();
    ADD_FAILURE() << "the exception did not reach the future";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "task failed");
  }
  for (std::future<void>& f : good) EXPECT_NO_THROW(f.get());

  // Every task of the next phase throws: the counter must still reach zero.
  for (int k = 0; k < 4; ++k) pool.enqueue([] { throw 7; });
  WithinOrDie("waits after throwing tasks only", [&] {
    pool.wait_until_empty();
    pool.wait_until_nothing_in_flight();
  });
}

// Futures carry the results; arguments are bound by value unless wrapped in
// std::ref, which is how callers hand over the large shared objects.
TEST(ThreadPoolTasks, FuturesCarryResultsAndRefArgumentsAreShared) {
  ThreadPool pool(2);
  std::future<int> product = pool.enqueue([](int a, int b) { return a * b; }, 6, 7);
  std::future<std::string> text = pool.enqueue([](const std::string& s) { return s + "!"; }, std::string("done"));
  std::vector<double> shared(3, 0.0);
  int copied = 5;
  pool.enqueue([](std::vector<double>& v, int value) { v[1] = value; }, std::ref(shared), copied);
  std::future<int> echo = pool.enqueue([](int value) { return value; }, copied);
  copied = 9;  // bound values are copied at enqueue
  pool.wait_until_empty();
  pool.wait_until_nothing_in_flight();
  EXPECT_EQ(product.get(), 42);
  EXPECT_EQ(text.get(), "done!");
  EXPECT_EQ(echo.get(), 5);
  EXPECT_EQ(shared[1], 5.0);
}

// A pool without workers has nothing to wait for on destruction.
TEST(ThreadPoolLifetime, ZeroWorkersDestroysAtOnce) {
  const auto start = std::chrono::steady_clock::now();
  WithinOrDie("ThreadPool(0) destructor", [] { ThreadPool pool(0); }, 5s);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

// The destructor stops the pool but waits for the workers to drain the
// queue: tasks queued before destruction all run. The gate task sees the
// stop from inside the pool (enqueue starts to throw), which proves that the
// queue was still full when the destructor set it.
TEST(ThreadPoolLifetime, DestructionDrainsQueuedTasks) {
  std::atomic<int> ran{0};
  std::atomic<int> addedLate{0};
  std::string stopMessage;
  auto pool = std::make_unique<ThreadPool>(1);
  ThreadPool* raw = pool.get();
  std::promise<void> started;
  raw->enqueue([&, raw] {
    started.set_value();
    for (;;) {
      try {
        raw->enqueue([&] { ran.fetch_add(1); });
        addedLate.fetch_add(1);
      } catch (const std::runtime_error& e) {
        stopMessage = e.what();
        return;
      }
      std::this_thread::sleep_for(1ms);
    }
  });
  started.get_future().wait();
  constexpr int kQueued = 1000;
  for (int k = 0; k < kQueued; ++k) raw->enqueue([&] { ran.fetch_add(1); });

  WithinOrDie("draining destructor", [&] { pool.reset(); });
  EXPECT_EQ(stopMessage, "enqueue on stopped ThreadPool");
  EXPECT_EQ(ran.load(), kQueued + addedLate.load());
}
