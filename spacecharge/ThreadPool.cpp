#include "spacecharge/ThreadPool.h"

ThreadPool::ThreadPool(std::size_t threads)
    : pool_size(threads), max_queue_size(100000), stop(false), in_flight(0) {
  std::unique_lock<std::mutex> lock(queue_mutex);
  for (std::size_t id = 0; id < threads; ++id) start_worker(id, lock);
}

ThreadPool::~ThreadPool() {
  std::unique_lock<std::mutex> lock(queue_mutex);
  stop = true;
  pool_size = 0;
  condition_producers.notify_all();
  condition_consumers.notify_all();
  // Workers drain the queue, detach themselves and remove their slots.
  condition_producers.wait(lock, [this] { return workers.empty(); });
}

void ThreadPool::wait_until_empty() {
  std::unique_lock<std::mutex> lock(queue_mutex);
  condition_consumers.wait(lock, [this] { return tasks.empty(); });
}

void ThreadPool::wait_until_nothing_in_flight() {
  std::unique_lock<std::mutex> lock(in_flight_mutex);
  in_flight_condition.wait(lock, [this] { return in_flight == 0; });
}

ThreadPool::handle_in_flight_decrement::~handle_in_flight_decrement() {
  // Only the transition to zero takes the lock.
  if (tp.in_flight.fetch_sub(1) == 1) {
    std::unique_lock<std::mutex> lock(tp.in_flight_mutex);
    tp.in_flight_condition.notify_all();
  }
}

void ThreadPool::start_worker(std::size_t worker_number, const std::unique_lock<std::mutex>&) {
  auto worker = [this, worker_number] {
    for (;;) {
      std::function<void()> task;
      bool notify;
      {
        std::unique_lock<std::mutex> lock(queue_mutex);
        condition_producers.wait(lock, [this, worker_number] {
          return stop || !tasks.empty() || pool_size < worker_number + 1;
        });
        // After stop the queue is drained first; a smaller pool_size without
        // stop takes effect at once.
        if ((stop && tasks.empty()) || (!stop && pool_size < worker_number + 1)) {
          workers[worker_number].detach();
          while (pool_size < workers.size() && !workers.back().joinable()) workers.pop_back();
          if (workers.empty()) condition_producers.notify_all();
          return;
        }
        if (tasks.empty()) continue;
        task = std::move(tasks.front());
        tasks.pop_front();
        notify = tasks.size() + 1 == max_queue_size || tasks.empty();
      }
      if (notify) {
        // Taking the mutex closes the race with a waiter between its
        // predicate test and its sleep.
        std::unique_lock<std::mutex> lock(queue_mutex);
        condition_consumers.notify_all();
      }
      handle_in_flight_decrement guard(*this);
      task();
    }
  };

  if (worker_number >= workers.size()) {
    workers.emplace_back(worker);
  } else if (!workers[worker_number].joinable()) {
    workers[worker_number] = std::thread(worker);
  }
}
