// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "logger/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <iomanip>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

struct Message {
  zr::logging::LogLevel level;
  unsigned int id;
  zr::logging::DecodeType decodeType;
  zr::logging::ConstSourcePtr source;
  zr::String file;
  int line;
  zr::String text;
  zr::String handlerName;
};

std::mutex g_mtx;
std::vector<Message> g_messages;  // guarded by g_mtx
thread_local int t_lockCalls = 0;

}  // namespace

// The sink these tests record with, in place of the real one.
namespace zr::logging {

std::atomic<LogLevel> g_minLogLevel{ZRLOG_DEBUG};
bool g_toggleableDebugControl = false;
const int g_defaultConfigFlags = 95;

void ForceLockHandlers() {
  ++t_lockCalls;
}

void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType, const ConstSourcePtr& source,
                const char* file, int line, const zr::String& msg, const zr::String& handlerName) {
  EXPECT_EQ(std::exchange(t_lockCalls, 0), 1) << "one lock call before each message";
  const std::lock_guard lock(g_mtx);
  g_messages.push_back({level, id, decodeType, source, file, line, msg, handlerName});
}

namespace {

using ::testing::ElementsAre;

class LogStatement : public ::testing::Test {
 protected:
  LogStatement() {
    g_minLogLevel = ZRLOG_DEBUG;
    g_messages.clear();
  }
  ~LogStatement() override { EXPECT_EQ(t_lockCalls, 0) << "a lock call without a message"; }

  static std::vector<zr::String> Texts() {
    std::vector<zr::String> texts;
    for (const auto& message : g_messages) texts.push_back(message.text);
    return texts;
  }
};

TEST_F(LogStatement, ASuppressedOneNeitherEvaluatesItsOperandsNorTakesTheElseAroundIt) {
  int evaluated = 0;
  g_minLogLevel = ZRLOG_INFO;
  if (g_messages.empty())
    ZRLOG(ZRLOG_DEBUG, nullptr) << ++evaluated;
  else
    evaluated = 100;
  EXPECT_EQ(evaluated, 0);
  ZRLOG(ZRLOG_INFO, nullptr) << ++evaluated;
  EXPECT_THAT(Texts(), ElementsAre("1"));
}

TEST_F(LogStatement, HandsOverItsOwnPlaceSourceAndHandler) {
  const ConstSourcePtr source = MakeSource("test");
  ZRLOG(ZRLOG_WARNING, source) << "key=" << 1;
  const int line = __LINE__ - 1;
  ZRLOG_TO(ZRLOG_ERROR, nullptr, "file") << "key=" << 2;
  EXPECT_THAT(Texts(), ElementsAre("key=1", "key=2"));
  const Message& first = g_messages[0];
  EXPECT_EQ(first.level, ZRLOG_WARNING);
  EXPECT_EQ(first.id, 0u);
  EXPECT_EQ(first.decodeType, ZRLOG_DECODE_AS_KV);
  EXPECT_EQ(first.source, source);
  EXPECT_EQ(first.file, __FILE__);
  EXPECT_EQ(first.line, line);
  EXPECT_EQ(first.handlerName, "");
  EXPECT_EQ(g_messages[1].source, nullptr);
  EXPECT_EQ(g_messages[1].handlerName, "file");
}

TEST_F(LogStatement, FormattingDoesNotLeakIntoTheNextOne) {
  const std::string huge(100000, 'x');  // so long that the stream's buffer is given up
  ZRLOG(ZRLOG_INFO, nullptr) << std::hex << std::showbase << std::boolalpha << 255;
  ZRLOG(ZRLOG_INFO, nullptr) << 255 << true;
  ZRLOG(ZRLOG_INFO, nullptr) << huge << std::hex << std::setprecision(2) << std::setw(8);
  ZRLOG(ZRLOG_INFO, nullptr) << 254;
  ZRLOG(ZRLOG_INFO, nullptr) << std::setprecision(2) << std::setw(8);
  ZRLOG(ZRLOG_INFO, nullptr) << 3.14159;
  EXPECT_THAT(Texts(), ElementsAre("0xff", "2551", huge, "254", "", "3.14159"));
}

TEST_F(LogStatement, OneThatFailsIsCompletedAndDoesNotSilenceTheNextOne) {
  const auto fail = []() -> int { throw std::out_of_range("operand"); };
  EXPECT_THROW((ZRLOG(ZRLOG_INFO, nullptr) << "so far, " << std::hex << fail()), std::out_of_range);
  ZRLOG(ZRLOG_INFO, nullptr) << "name=" << static_cast<const char*>(nullptr) << "lost";
  ZRLOG(ZRLOG_INFO, nullptr) << "next=" << 16;
  EXPECT_THAT(Texts(), ElementsAre("so far, ", "name=", "next=16"));
}

TEST(LogSource, ReverseReadsFromTheRootAndLeavesTheOriginal) {
  const ConstSourcePtr root = MakeSource("root");
  const ConstSourcePtr middle = MakeSource(zr::String("middle"), root);
  const ConstSourcePtr leaf = MakeSource("leaf", middle);
  std::vector<zr::String> names;
  for (ConstSourcePtr node = leaf->Reverse(); node != nullptr; node = node->Parent()) {
    names.push_back(node->Name());
  }
  EXPECT_THAT(names, ElementsAre("root", "middle", "leaf"));
}

}  // namespace
}  // namespace zr::logging
