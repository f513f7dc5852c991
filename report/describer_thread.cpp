#include "report/describer_thread.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace DescriberThread {
namespace {

class Worker {
 public:
  Worker() : thread_([this] { loop(); }) {}

  std::future<Result> push(std::function<Result()> work) {
    std::packaged_task<Result()> task(std::move(work));
    std::future<Result> answer = task.get_future();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(std::move(task));
    }
    wake_.notify_one();
    return answer;
  }

 private:
  void loop() {
    for (;;) {
      std::packaged_task<Result()> task;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return !queue_.empty(); });
        task = std::move(queue_.front());
        queue_.pop_front();
      }
      task();  // an exception reaches the caller through the future
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::packaged_task<Result()>> queue_;
  std::thread thread_;  // last: starts once the rest is ready
};

}  // namespace

std::future<Result> run(std::function<Result()> work) {
  // Never destroyed: the thread waits for work until the process ends. Every
  // probe waits for its own description before it goes, so the thread is
  // idle at exit, and ending it there would only drop what the libraries it
  // loaded keep for it (which a leak checker then reports).
  static Worker* const worker = new Worker;
  return worker->push(std::move(work));
}

}  // namespace DescriberThread
