// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "logger/logger.h"
#include "logger/sink.h"
#include "support/await.h"

namespace zr::halden::test {

/// Takes the place of the handler that writes to stderr, for as long as it lives, and keeps every line.
class CapturingLog {
 public:
  CapturingLog() : m_previousLevel(zr::logging::GetMinimumLoggingLevel()) {
    zr::logging::SetHandler("stderr", [captured = m_captured](const zr::logging::LogRecord& record) {
      const std::lock_guard lock(captured->mtx);
      captured->lines.push_back(zr::logging::SourcePath(record.source) + ": " + record.msg);
      captured->added.notify_all();
    });
    zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_DEBUG);
  }

  ~CapturingLog() {
    zr::logging::SetMinimumLoggingLevel(m_previousLevel);
    zr::logging::SetHandler("stderr", zr::logging::MakeStderrHandler());
  }

  CapturingLog(const CapturingLog&) = delete;
  CapturingLog& operator=(const CapturingLog&) = delete;

  /// Lines from `source` that contain `text`; from any where `source` is empty.
  std::ptrdiff_t Count(const std::string& source, const std::string& text) const {
    const std::lock_guard lock(m_captured->mtx);
    return m_captured->Count(source, text);
  }

  ::testing::AssertionResult Await(const std::string& source, const std::string& text) const {
    std::unique_lock lock(m_captured->mtx);
    if (m_captured->added.wait_for(lock, kLimit, [&] { return m_captured->Count(source, text) > 0; })) {
      return ::testing::AssertionSuccess();
    }
    auto failure = ::testing::AssertionFailure() << "no \"" << text << "\" from " << source << " in:";
    for (const auto& line : m_captured->lines) failure << "\n  " << line;
    return failure;
  }

 private:
  /// Shared with the handler: a statement may still be inside it after it was replaced.
  struct Captured {
    std::mutex mtx;
    std::condition_variable added;
    std::vector<std::string> lines;  // guarded by mtx, "source: text"

    std::ptrdiff_t Count(const std::string& source, const std::string& text) const {
      return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.starts_with(source) && line.find(text, source.size()) != std::string::npos;
      });
    }
  };

  const std::shared_ptr<Captured> m_captured = std::make_shared<Captured>();
  const zr::logging::LogLevel m_previousLevel;
};

}  // namespace zr::halden::test
