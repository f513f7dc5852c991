#include "report/sondex_probe.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "tests/support/files.h"

using namespace sondex::test;

namespace {

// Describes a file by the length of its name and notes the thread it ran on.
struct FakeDescriber {
  std::mutex mutex;
  std::set<pid_t> threads;  // kernel thread ids, which are not reused soon

  MovieDescriber describer() {
    return [this](const std::wstring& path, MovieDescription& out) {
      std::lock_guard<std::mutex> lock(mutex);
      threads.insert(gettid());
      out.width = static_cast<int32_t>(path.size());
      out.height = 1;
      return true;
    };
  }
};

}  // namespace

// Every probe, from any probe object, is described on the one background
// thread, and each gets the description of its own file, also when the
// file before it could not be opened and its description was never taken.
TEST(SondexProbe, DescriptionsRunOnOneThreadAndAnswerTheirOwnFile) {
  TempDir dir;
  const std::string shortName = dir.write("a.mp4", Bytes(16, 0));
  const std::string longName = dir.write("longer-name.mp4", Bytes(16, 0));
  FakeDescriber fake;
  Sondex first, second;
  first.describe = second.describe = fake.describer();

  ASSERT_TRUE(first.probe(std::wstring(shortName.begin(), shortName.end())));
  EXPECT_EQ(first.width, static_cast<int32_t>(shortName.size()));
  EXPECT_FALSE(first.start(dir.wfile("missing.mp4")));
  ASSERT_TRUE(first.probe(std::wstring(longName.begin(), longName.end())));
  EXPECT_EQ(first.width, static_cast<int32_t>(longName.size()));
  ASSERT_TRUE(second.probe(std::wstring(shortName.begin(), shortName.end())));
  EXPECT_EQ(second.width, static_cast<int32_t>(shortName.size()));

  std::lock_guard<std::mutex> lock(fake.mutex);
  ASSERT_EQ(fake.threads.size(), 1u);
  EXPECT_NE(*fake.threads.begin(), gettid());
}

// A probe that goes while its description is still running waits for it,
// so that the describer never outlives what it was given.
TEST(SondexProbe, AProbeWaitsForItsDescriptionWhenItGoes) {
  TempDir dir;
  std::atomic<bool> finished = false;
  {
    Sondex probe;
    probe.describe = [&finished](const std::wstring&, MovieDescription&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      finished = true;
      return false;
    };
    EXPECT_FALSE(probe.start(dir.wfile("missing.mp4")));
  }
  EXPECT_TRUE(finished);
}
