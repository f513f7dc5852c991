// Movie descriptions in a process of their own. Opening a damaged movie
// can keep FFmpeg busy for tens of seconds in loops that never look at an
// interrupt callback, and in a request stream every later answer would
// wait for it. A description that runs past its deadline is ended the one
// way that always works: its process is killed, and the next description
// starts a fresh one.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <future>
#include <string>

#include "report/movie_description.h"

class DescriberProcess {
 public:
  using Describe = bool (*)(const std::wstring& path, MovieDescription& out);

  // describe runs in the worker process, which the first description
  // starts. Nothing it prints reaches the console: the worker's standard
  // input and output are the null device.
  DescriberProcess(Describe describe, int deadlineMs);
  // Ends the worker and waits for it.
  ~DescriberProcess();
  DescriberProcess(const DescriberProcess&) = delete;
  DescriberProcess& operator=(const DescriberProcess&) = delete;

  // Hands the path to the worker, which describes it while this process
  // goes on; the deadline counts from here. One request at a time: an
  // earlier one that was not taken is dropped.
  void ask(const std::wstring& path);
  // The answer to the request. False when the worker cannot describe the
  // movie, when it ended without answering, or when the deadline passed:
  // then it is killed, and a line says so. When no process can be started
  // the movie is described here, without a deadline.
  bool take(MovieDescription& out);
  // Forgets the request without a word: a worker still busy with it is
  // killed, and the next request starts a fresh one.
  void drop();

  // From here on, describes on a thread of this process instead: for a
  // program that reads one file and ends, which saves the worker's start.
  // A description past its deadline is left running; it ends with the
  // program.
  void runOnThreads() { threads_ = true; }

  bool describe(const std::wstring& path, MovieDescription& out) {
    ask(path);
    return take(out);
  }

 private:
  struct Described {
    bool described = false;
    MovieDescription description;
  };

  bool start();
  void stop();
  bool send(const std::wstring& path);
  [[noreturn]] void serve(int channel, pid_t parent) const;

  Describe describe_;
  int deadlineMs_;
  pid_t pid_ = -1;
  int channel_ = -1;    // our end of the socket pair to the worker
  bool asked_ = false;  // a request is out and its answer not taken
  bool sent_ = false;   // ... and the worker has it
  std::wstring path_;
  std::chrono::steady_clock::time_point deadline_;
  bool threads_ = false;
  std::future<Described> onThread_;  // the answer of a description on a thread
};

// The program's one describer process, running describeMovie with a
// deadline of two seconds: far above what any sound movie takes.
DescriberProcess& describer();
