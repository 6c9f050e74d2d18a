// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "line_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "failure.h"
#include "signals.h"

namespace zr::halden::tool {
namespace {

using std::chrono::milliseconds;
constexpr milliseconds kLimit{20'000};

class Pipe {
 public:
  Pipe() {
    EXPECT_EQ(pipe2(m_ends.data(), O_CLOEXEC), 0);
    IgnoreBrokenPipes();
  }
  ~Pipe() {
    close(m_ends[0]);
    close(m_ends[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int Reader() const { return m_ends[0]; }
  int Writer() const { return m_ends[1]; }
  void CloseReader() { close(std::exchange(m_ends[0], -1)); }

 private:
  std::array<int, 2> m_ends{};
};

TEST(LineWriter, DoesNotMixLinesOfSeveralThreads) {
  const Pipe output;
  const Pipe stop;
  LineWriter writer(output.Writer(), stop.Reader());
  constexpr std::size_t lines = 50;
  constexpr std::size_t length = 10'000;  // more than a pipe takes at once
  std::vector<std::jthread> threads;
  for (const char c : {'a', 'b', 'c', 'd'}) {
    threads.emplace_back([&writer, c] {
      for (std::size_t i = 0; i < lines; ++i) writer.Write(std::string(length, c) + '\n');
    });
  }
  std::string text;
  std::array<char, 4096> buffer{};
  while (text.size() < threads.size() * lines * (length + 1)) {
    const ssize_t got = read(output.Reader(), buffer.data(), buffer.size());
    ASSERT_GT(got, 0);
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  for (std::size_t at = 0; at < text.size(); at += length + 1) {
    ASSERT_EQ(text.substr(at, length + 1), std::string(length, text[at]) + '\n');
  }
}

TEST(LineWriter, EndsQuietlyWhenItsReaderHasGoneEvenWithNothingToWrite) {
  Pipe output;
  const Pipe stop;
  LineWriter writer(output.Writer(), stop.Reader());
  EXPECT_FALSE(writer.AwaitEnd(milliseconds(0)));
  output.CloseReader();
  EXPECT_TRUE(writer.AwaitEnd(kLimit));
  writer.Write("dropped\n");
  EXPECT_NO_THROW(writer.ThrowIfFailed());
}

TEST(LineWriter, TellsOfAFullDisk) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  const Pipe stop;
  LineWriter writer(full, stop.Reader());
  writer.Write("lost\n");
  EXPECT_TRUE(writer.AwaitEnd(kLimit));
  EXPECT_THROW(writer.ThrowIfFailed(), Failure);
  close(full);
}

TEST(LineWriter, IsNotHeldUpByAReaderThatCeasedToReadOnceAStopIsAskedFor) {
  const Pipe output;
  const Pipe stop;
  LineWriter writer(output.Writer(), stop.Reader());
  auto blocked = std::async(std::launch::async, [&] { writer.Write(std::string(1'000'000, 'x')); });
  EXPECT_EQ(write(stop.Writer(), "s", 1), 1);
  EXPECT_EQ(blocked.wait_for(kLimit), std::future_status::ready);
  EXPECT_TRUE(writer.AwaitEnd(milliseconds(0)));
}

}  // namespace
}  // namespace zr::halden::tool
