// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "io/live_screen.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>

namespace zr::halden::tool {
namespace {

TEST(LiveScreen, FitsAndGivesTheTerminalBackAsItWasWhenAStopIsAskedFor) {
  setenv("TERM", "xterm", 1);
  const int user = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  ASSERT_TRUE(user >= 0 && grantpt(user) == 0 && unlockpt(user) == 0);
  const int terminal = open(ptsname(user), O_RDWR | O_NOCTTY | O_CLOEXEC);
  const winsize size{2, 20, 0, 0};
  ioctl(terminal, TIOCSWINSZ, &size);
  const int stop = eventfd(1, EFD_CLOEXEC);
  LineWriter output(terminal, stop);
  LiveScreen(output).Run([](const Look& look, std::size_t rows) {
    EXPECT_TRUE(look.colour);
    EXPECT_EQ(look.width, 19U);  // a full line's last column would be erased again
    EXPECT_EQ(rows, 2U);
    return std::string("a\nb\nc\n");
  });
  const std::string expected =
      "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[Ha\x1b[K\r\nb\x1b[K\x1b[J\x1b[?7h\x1b[?25h\x1b[?1049l";
  std::string shown;
  pollfd readable{user, POLLIN, 0};  // the kernel passes on what was written, piece by piece
  while (shown.size() < expected.size() && poll(&readable, 1, 5000) > 0) {
    std::array<char, 256> part{};
    shown.append(part.data(),
                 static_cast<std::size_t>(std::max<ssize_t>(read(user, part.data(), part.size()), 0)));
  }
  EXPECT_EQ(shown, expected);
  for (const int descriptor : {user, terminal, stop}) close(descriptor);
}

}  // namespace
}  // namespace zr::halden::tool
