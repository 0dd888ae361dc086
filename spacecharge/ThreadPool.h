#pragma once
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

// A small worker pool with a bounded FIFO queue and an in-flight counter.
// Callers enqueue all tasks of a phase, then wait_until_empty() and
// wait_until_nothing_in_flight(); the queue being empty alone does not mean
// that the tasks have finished. The two mutexes are never held together.
class ThreadPool {
 public:
  explicit ThreadPool(std::size_t threads);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  template <class F, class... Args>
  auto enqueue(F&& f, Args&&... args) -> std::future<std::invoke_result_t<F, Args...>>;

  void wait_until_empty();
  void wait_until_nothing_in_flight();

 private:
  std::vector<std::thread> workers;
  unsigned long pool_size;
  std::deque<std::function<void()>> tasks;
  unsigned long max_queue_size;
  bool stop;
  std::mutex queue_mutex;
  std::condition_variable condition_consumers;  // queue drained or no longer full
  std::condition_variable condition_producers;  // task queued, or stop to look at
  std::mutex in_flight_mutex;
  std::condition_variable in_flight_condition;
  std::atomic<unsigned long> in_flight;

  // Lowers in_flight however the task's call ends.
  struct handle_in_flight_decrement {
    ThreadPool& tp;
    explicit handle_in_flight_decrement(ThreadPool& pool) : tp(pool) {}
    ~handle_in_flight_decrement();
  };

  // queue_mutex must be held; the lock argument only documents that.
  void start_worker(std::size_t worker_number, const std::unique_lock<std::mutex>& lock);
};

// The processor count, at least 2: the size both pools of a run are made with.
inline std::size_t DefaultPoolSize() { return std::max<std::size_t>(std::thread::hardware_concurrency(), 2); }

template <class F, class... Args>
auto ThreadPool::enqueue(F&& f, Args&&... args) -> std::future<std::invoke_result_t<F, Args...>> {
  using Result = std::invoke_result_t<F, Args...>;
  auto task = std::make_shared<std::packaged_task<Result()>>(
      std::bind(std::forward<F>(f), std::forward<Args>(args)...));
  std::future<Result> result = task->get_future();

  std::unique_lock<std::mutex> lock(queue_mutex);
  condition_consumers.wait(lock, [this] { return tasks.size() < max_queue_size || stop; });
  if (stop) {
    lock.unlock();
    throw std::runtime_error("enqueue on stopped ThreadPool");
  }
  tasks.emplace_back([task]() { (*task)(); });
  // Raised before the lock is released, so that a wait after enqueue cannot
  // return early.
  in_flight.fetch_add(1);
  condition_producers.notify_one();
  lock.unlock();
  return result;
}
