// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "commands/commands.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "io/failure.h"
#include "io/live_screen.h"

namespace zr::halden::tool {
namespace {

/// What is written to a terminal, or to a pipe.
class Captured {
 public:
  explicit Captured(bool terminal) {
    if (terminal) {
      setenv("TERM", "xterm", 1);
      m_ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
      grantpt(m_ends[0]);
      unlockpt(m_ends[0]);
      m_ends[1] = open(ptsname(m_ends[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
      const winsize size{5, 20, 0, 0};
      ioctl(m_ends[1], TIOCSWINSZ, &size);
    } else {
      EXPECT_EQ(pipe2(m_ends.data(), O_CLOEXEC), 0);
    }
  }
  ~Captured() {
    for (const int end : m_ends) close(end);
    close(m_stop);
  }

  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

  /// `ending`: a stop has been asked for.
  LineWriter Writer(bool ending) {
    if (ending) eventfd_write(m_stop, 1);
    return {m_ends[1], m_stop};
  }

  std::string Text() const {
    std::array<char, 8192> text{};
    fcntl(m_ends[0], F_SETFL, O_NONBLOCK);
    const ssize_t length = read(m_ends[0], text.data(), text.size());
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
  }

 private:
  std::array<int, 2> m_ends{};
  int m_stop = eventfd(0, EFD_CLOEXEC);
};

TEST(LiveScreen, GivesTheTerminalBackAsItWasWhenAStopIsAskedFor) {
  Captured terminal(true);
  LineWriter output = terminal.Writer(true);
  LiveScreen(output).Run([](const Look& look, std::size_t rows) {
    EXPECT_EQ(look.width, 19U);
    EXPECT_EQ(rows, 5U);
    return std::string("a\nb\n");
  });
  const std::string text = terminal.Text();
  EXPECT_TRUE(text.starts_with("\x1b[?1049h")) << text;
  EXPECT_NE(text.find("\x1b[Ha\x1b[K\r\nb\x1b[K\x1b[J"), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("\x1b[?25h\x1b[?1049l")) << text;
}

TEST(LiveScreen, IsRefusedWithoutATerminal) {
  Captured pipe(false);
  LineWriter output = pipe.Writer(false);
  EXPECT_THROW(LiveScreen{output}, Failure);
}

/// A configuration whose one ensemble nobody serves.
class Unreachable : public testing::Test {
 protected:
  Unreachable() { std::ofstream(m_path) << "[data_centers]\ndown = \"127.0.0.1:1\"\n"; }
  ~Unreachable() override { std::filesystem::remove(m_path); }

  template <typename Options>
  std::string FailureOf(void (*command)(const Options&, LineWriter&), Options options, bool ending = false) {
    options.configPath = m_path;
    options.timeout = std::chrono::seconds(ending ? 60 : 0);
    options.json = true;
    LineWriter output = m_captured.Writer(ending);
    try {
      command(options, output);
    } catch (const Failure& e) {
      EXPECT_EQ(e.Code(), kFailed);
      return std::string("failed: ") + e.what();
    }
    return {};
  }

  Captured m_captured{false};

 private:
  const std::string m_path = testing::TempDir() + "halden-unreachable.toml";
};

TEST_F(Unreachable, DataCentresAreNamedAndNotTakenForEmptyOnes) {
  EXPECT_TRUE(FailureOf(ListServices, ServicesOptions()).starts_with("failed: down: not read within 0 s: "));
  GetOptions get;
  get.service = "orders";
  EXPECT_TRUE(FailureOf(ShowInstance, get).starts_with("failed: down: not read within 0 s: "));
  ListOptions list;
  list.service = "orders";
  EXPECT_TRUE(FailureOf(ListInstances, list).starts_with("failed: down: not read completely within 0 s: "));
  EXPECT_NE(m_captured.Text().find(R"("freshness":"never synchronised")"), std::string::npos);
}

TEST_F(Unreachable, ServersAreTheDoctorsFinding) {
  EXPECT_EQ(FailureOf(DiagnoseEnsembles, DoctorOptions()), "failed: ");
  const std::string text = m_captured.Text();
  EXPECT_NE(text.find(R"("check":"servers","verdict":"failure","finding":"0 of 1 take connections; )"
                      R"(127.0.0.1:1: Connection refused")"),
            std::string::npos)
      << text;
}

TEST_F(Unreachable, IsNotWaitedForOnceAStopIsAskedFor) {
  EXPECT_EQ(FailureOf(ListServices, ServicesOptions(), true), "");
  EXPECT_EQ(m_captured.Text(), "");
}

}  // namespace
}  // namespace zr::halden::tool
