// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "logger/sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <vector>

namespace zr::logging {
namespace {

using ::testing::ElementsAre;

/// Read before any test can have changed it.
const LogLevel kLevelAtStart = GetMinimumLoggingLevel();

/// Two handlers that record, and none that writes to stderr.
class Sink : public ::testing::Test {
 protected:
  Sink() {
    RemoveHandler("stderr");
    SetHandler("a", [this](const LogRecord& record) { m_a.push_back(record.msg); });
    SetHandler("b", [this](const LogRecord& record) { m_b.push_back(record.msg); });
  }
  ~Sink() override {
    for (const char* name : {"a", "b", "c"}) RemoveHandler(name);
    SetMinimumLoggingLevel(kLevelAtStart);
  }

  std::vector<zr::String> m_a;
  std::vector<zr::String> m_b;
};

TEST_F(Sink, ANameSelectsItsHandlerAndAnUnknownNameLosesNothing) {
  ZRLOG_TO(ZRLOG_ERROR, nullptr, "b") << "for b";
  ZRLOG_TO(ZRLOG_ERROR, nullptr, "nobody") << "for nobody";
  ZRLOG(ZRLOG_ERROR, nullptr) << "for all";
  RemoveHandler("b");
  RemoveHandler("b");
  ZRLOG_TO(ZRLOG_ERROR, nullptr, "b") << "after b";
  EXPECT_THAT(m_a, ElementsAre("for nobody", "for all", "after b"));
  EXPECT_THAT(m_b, ElementsAre("for b", "for nobody", "for all"));
}

TEST_F(Sink, AHandlerThatThrowsLosesTheLineForItselfOnly) {
  const auto before = LostLines();
  SetHandler("a", [](const LogRecord&) { throw std::runtime_error("disk full"); });
  SetHandler("c", nullptr);
  ZRLOG(ZRLOG_ERROR, nullptr) << "line";
  EXPECT_THAT(m_b, ElementsAre("line"));
  EXPECT_EQ(LostLines(), before + 2);
}

TEST_F(Sink, TheStderrHandlerWritesOneLineWithTimeLevelSourceAndPlace) {
  ::testing::internal::CaptureStderr();
  SetHandler("c", MakeStderrHandler());
  ZRLOG_TO(ZRLOG_WARNING, MakeSource("leaf", MakeSource("root")), "c") << "odd {} %v text, key=" << 1;
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              ::testing::MatchesRegex("20[0-9]+-[-:T+0-9.]+ warning \\[root\\.leaf\\] "
                                      "odd \\{\\} %v text, key=1 \\(.*sink_test\\.cpp:[0-9]+\\)\n"));
}

TEST(SourcePathText, JoinsTheNamesFromTheRootAndHasOneForNoSource) {
  EXPECT_EQ(SourcePath(MakeSource("leaf", MakeSource("middle", MakeSource("root")))), "root.middle.leaf");
  EXPECT_EQ(SourcePath(nullptr), "-");
}

}  // namespace
}  // namespace zr::logging
