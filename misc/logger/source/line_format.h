// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <spdlog/pattern_formatter.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "logger/logger.h"

/// A record to one line, with its end. Threads: one at a time for each format.
namespace zr::logging::details {

/// "2026-01-31T12:00:00.123456+01:00", in the local zone.
class TimeStamp {
 public:
  void Append(const timespec& time, std::string& line);

 private:
  spdlog::pattern_formatter m_formatter{"%Y-%m-%dT%H:%M:%S.%f%z", spdlog::pattern_time_type::local, ""};
};

/// "time level thread [source] text (file:line)"
class TextFormat {
 public:
  explicit TextFormat(bool coloured) : m_coloured(coloured) {}

  void Append(const LogRecord& record, std::string& line);

 private:
  TimeStamp m_time;
  bool m_coloured;
};

/// One JSON object, valid whatever bytes the record holds. Written by hand: it is one flat object of texts,
/// for which the lowest layer need not depend on a JSON library.
class JsonFormat {
 public:
  void Append(const LogRecord& record, std::string& line);

 private:
  TimeStamp m_time;
};

/// "[source] text (file:line)", on one line.
void AppendWhatAndWhere(const LogRecord& record, std::string& line);

/// A text that is to be read as ZRLOG_DECODE_AS_KV, taken apart.
struct KeyValues {
  std::string_view phrase;
  std::vector<std::pair<std::string_view, std::string_view>> fields;
};

/// "a phrase, key=value, other=value" in its parts. Values are not quoted: each reaches to the next ",
/// key=". A text with a key twice, or with more than 32, is no such text: it stays whole, as the phrase.
KeyValues SplitKeyValues(std::string_view text);

}  // namespace zr::logging::details
