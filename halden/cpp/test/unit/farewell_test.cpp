// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/farewell.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <utility>

namespace zr::halden::details {
namespace {

using Result = Farewell::Result;

/// What a server says to the request with this number that ends a session, and to every other.
std::string Answer(char xid) {
  return {0, 0, 0, 16, 0, 0, 0, xid, 0, 0, 0, 0, 0, 0, 0, 99, 0, 0, 0, 0};
}

class FarewellTest : public ::testing::Test {
 protected:
  FarewellTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    m_server = FileDescriptor(ends[0]);
    m_farewell = std::make_unique<Farewell>(FileDescriptor(ends[1]), 7);
  }

  Result After(const std::string& bytes) {
    EXPECT_EQ(send(m_server.Get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return m_farewell->Read();
  }

  FileDescriptor m_server;
  std::unique_ptr<Farewell> m_farewell;
};

TEST_F(FarewellTest, OnlyTheAnswerToTheRequestItselfEndsTheSession) {
  EXPECT_EQ(After("the rest of an answer" + Answer(5)), Result::Waiting);
  EXPECT_EQ(After(std::string(40'000, 'x') + Answer(6) + Answer(7).substr(0, 11)), Result::Waiting);
  EXPECT_EQ(After(Answer(7).substr(11)), Result::Ended);
}

TEST_F(FarewellTest, AConnectionThatBreaksProvesNothing) {
  EXPECT_EQ(After(Answer(6)), Result::Waiting);
  m_server = {};
  EXPECT_EQ(m_farewell->Read(), Result::Unknown);
}

}  // namespace
}  // namespace zr::halden::details
