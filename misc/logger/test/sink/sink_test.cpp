// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "logger/sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <iomanip>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace zr::logging {
namespace {

using ::testing::ElementsAre;
using namespace std::chrono_literals;

/// Read before any test can have changed it.
const LogLevel kLevelAtStart = GetMinimumLoggingLevel();

/// Two handlers that record, and none that writes to stderr.
class Sink : public ::testing::Test {
 protected:
  struct Lines {
    std::mutex mtx;
    std::vector<zr::String> texts;  // guarded by mtx
  };

  Sink() {
    RemoveHandler("stderr");
    for (const char* name : {"a", "b"}) SetHandler(name, Recorder(name));
  }
  ~Sink() override {
    for (const auto& [name, counters] : GetHandlerCounters()) RemoveHandler(name);
    SetMinimumLoggingLevel(kLevelAtStart);
  }

  Handler Recorder(const zr::String& name) {
    return [lines = m_lines[name] = std::make_shared<Lines>()](const LogRecord& record) {
      const std::lock_guard lock(lines->mtx);
      lines->texts.push_back(record.msg);
    };
  }

  std::vector<zr::String> Texts(const zr::String& name) {
    const std::lock_guard lock(m_lines[name]->mtx);
    return m_lines[name]->texts;
  }

  static HandlerCounters Counters(const zr::String& name) { return GetHandlerCounters()[name]; }

  std::map<zr::String, std::shared_ptr<Lines>> m_lines;  // shared with handlers, which end on their threads
};

TEST_F(Sink, ANameSelectsItsHandlerAndAnUnknownNameLosesNothing) {
  const auto unknown = LinesForUnknownHandlers();
  ZRLOG_TO(ZRLOG_ERROR, nullptr, "b") << "for b";
  ZRLOG_TO(ZRLOG_ERROR, nullptr, "nobody") << "for nobody";
  ZRLOG(ZRLOG_ERROR, nullptr) << "for all";
  RemoveHandler("b");
  RemoveHandler("b");
  ZRLOG_TO(ZRLOG_ERROR, nullptr, "b") << "after b";
  EXPECT_THAT(Texts("a"), ElementsAre("for nobody", "for all", "after b"));
  EXPECT_THAT(Texts("b"), ElementsAre("for b", "for nobody", "for all"));
  EXPECT_EQ(LinesForUnknownHandlers(), unknown + 2);
}

TEST_F(Sink, AHandlersLevelHoldsForItAloneAndChangesWhileItRuns) {
  EXPECT_EQ(kLevelAtStart, ZRLOG_WARNING);
  SetHandler("b", Recorder("b"), {ZRLOG_ERROR, 0});
  ZRLOG(ZRLOG_WARNING, nullptr) << "1";
  ZRLOG_TO(ZRLOG_WARNING, nullptr, "b") << "2";
  EXPECT_TRUE(SetHandlerLevel("b", ZRLOG_DEBUG));
  EXPECT_FALSE(SetHandlerLevel("nobody", ZRLOG_DEBUG));
  ZRLOG(ZRLOG_WARNING, nullptr) << "3";
  ZRLOG(ZRLOG_INFO, nullptr) << "below the process's level";
  EXPECT_THAT(Texts("a"), ElementsAre("1", "3"));
  EXPECT_THAT(Texts("b"), ElementsAre("3"));
  EXPECT_EQ(Counters("b").written, 1u);
}

TEST_F(Sink, AHandlerThatThrowsLosesTheLineForItselfOnly) {
  const auto before = LostLines();
  SetHandler("a", [](const LogRecord&) { throw std::runtime_error("gone"); });
  SetHandler("c", nullptr);
  SetHandler("d", [](const LogRecord&) { throw 1; }, {ZRLOG_DEBUG, 5});
  ZRLOG(ZRLOG_ERROR, nullptr) << "line";
  EXPECT_TRUE(Flush(10s));
  EXPECT_THAT(Texts("b"), ElementsAre("line"));
  EXPECT_EQ(LostLines(), before + 3);
  for (const char* name : {"a", "c", "d"}) EXPECT_EQ(Counters(name).lost, 1u) << name;
}

TEST_F(Sink, AHandlerThatLogsReachesTheOthersOnceAndNeverItself) {
  const auto echo = [](const LogRecord& record) {
    ZRLOG(ZRLOG_ERROR, nullptr) << "echo of " << 16 << " " << record.msg;
  };
  for (const std::size_t queueLines : {0U, 5U}) {
    SetHandler("a", Recorder("a"));
    for (const char* name : {"x", "y"}) SetHandler(name, echo, {ZRLOG_DEBUG, queueLines});
    ZRLOG(ZRLOG_ERROR, nullptr) << std::hex << std::setprecision(1) << "line";
    for (int hop = 0; hop < 3; ++hop) EXPECT_TRUE(Flush(10s));
    EXPECT_THAT(Texts("a"), ::testing::UnorderedElementsAre("line", "echo of 16 line", "echo of 16 line"));
    for (const char* name : {"x", "y"}) {
      EXPECT_EQ(Counters(name).written, 2u);  // the line, and the other's echo, whose own echo goes nowhere
      EXPECT_EQ(Counters(name).dropped, 3u);
    }
  }
}

TEST_F(Sink, AFullQueueDropsAndCountsAndHoldsNobodyUp) {
  std::promise<void> entered;
  std::promise<void> opened;
  const auto record = Recorder("c");
  const auto wait = [&, gate = opened.get_future().share(), first = true](const LogRecord& line) mutable {
    if (std::exchange(first, false)) entered.set_value();
    gate.wait();
    record(line);
    EXPECT_FALSE(Flush(10s)) << "it would wait for itself";
  };
  SetHandler("c", wait, {ZRLOG_DEBUG, 2});
  const auto log = [](int number) { ZRLOG(ZRLOG_ERROR, MakeSource("s")) << "line " << number; };
  log(1);
  entered.get_future().wait();
  for (int number = 2; number <= 5; ++number) log(number);
  EXPECT_FALSE(Flush(1ms));
  EXPECT_EQ(Counters("c").dropped, 2u);
  opened.set_value();
  EXPECT_TRUE(Flush(10s));
  EXPECT_THAT(Texts("c"), ElementsAre("line 1", "line 2", "line 3"));
  EXPECT_EQ(Texts("a").size(), 5u);
}

TEST_F(Sink, AHandlerThatRemovesItselfWritesWhatWaitsAndThenEnds) {
  std::promise<void> opened;
  std::promise<void> ended;
  std::shared_ptr<void> owner(nullptr, [&ended](void*) { ended.set_value(); });
  auto removing = [owner = std::move(owner), record = Recorder("c"),
                   gate = opened.get_future().share()](const auto& line) {
    gate.wait();
    RemoveHandler("c");
    record(line);
  };
  SetHandler("c", std::move(removing), {ZRLOG_DEBUG, 5});
  for (const char* text : {"1", "2", "3"}) {
    ZRLOG_TO(ZRLOG_ERROR, nullptr, "c") << text;
  }
  opened.set_value();
  EXPECT_EQ(ended.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_THAT(Texts("c"), ElementsAre("1", "2", "3"));
}

struct LogsWhenDestroyed {
  ~LogsWhenDestroyed() { ZRLOG(ZRLOG_ERROR, nullptr) << "key=" << 16; }
};

TEST_F(Sink, StaticObjectsMayLogAfterTheMainThreadsOwnStreamIsGone) {
  const auto end = [] {
    static const LogsWhenDestroyed last;
    SetHandler("c", MakeStderrHandler());
    ZRLOG_TO(ZRLOG_ERROR, nullptr, "a") << std::hex << "makes the stream";
    std::exit(0);
  };
  EXPECT_EXIT(end(), ::testing::ExitedWithCode(0), "error [0-9]+ \\[-\\] key=16 \\(sink_test");
}

}  // namespace
}  // namespace zr::logging
