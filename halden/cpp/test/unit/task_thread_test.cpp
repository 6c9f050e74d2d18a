// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "base/task_thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "logger/sink.h"

namespace zr::halden::details {
namespace {

constexpr std::chrono::seconds kLimit{20};

TEST(TaskThreadTest, ItMayBeDestroyedByItsOwnTaskAndStillRunsWhatWasPosted) {
  auto thread = std::make_unique<TaskThread>("test");
  std::promise<void> posted;
  std::promise<void> last;
  std::shared_future<void> go = posted.get_future().share();
  thread->Post([&thread, go] {
    go.wait();
    thread.reset();
  });
  thread->Post([&last] { last.set_value(); });
  posted.set_value();
  EXPECT_EQ(last.get_future().wait_for(kLimit), std::future_status::ready);
}

class Pipe : public TaskThread::Sockets {
 public:
  Pipe() { EXPECT_EQ(pipe(m_ends.data()), 0); }
  ~Pipe() override { close(m_ends[0]), close(m_ends[1]); }

  void Write() const { EXPECT_EQ(write(m_ends[1], "x", 1), 1); }
  Clock::time_point Await(std::vector<pollfd>& sockets) override {
    ++waits;
    sockets.push_back({m_ends[0], POLLIN, 0});
    return waits == 1 ? Clock::now() + std::chrono::milliseconds(5) : Clock::time_point::max();
  }
  void Ready(const pollfd& socket) override {
    char byte = 0;
    EXPECT_EQ(read(socket.fd, &byte, 1), 1);
    ready.set_value();
    throw std::runtime_error("must not end the thread");
  }

  std::atomic<int> waits{0};
  std::promise<void> ready;

 private:
  std::array<int, 2> m_ends{};
};

TEST(TaskThreadTest, ItWaitsForSocketsTasksAndTimeAlike) {
  TaskThread thread("test");
  const auto pipe = std::make_shared<Pipe>();
  thread.Serve(pipe);
  thread.Post([] {});
  while (pipe->waits < 2) std::this_thread::yield();  // woken by the time it asked for
  pipe->Write();
  ASSERT_EQ(pipe->ready.get_future().wait_for(kLimit), std::future_status::ready);
  std::promise<void> ran;
  thread.Post([&ran] { ran.set_value(); });
  EXPECT_EQ(ran.get_future().wait_for(kLimit), std::future_status::ready);
}

}  // namespace
}  // namespace zr::halden::details
