// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "line_format.h"

#include <algorithm>
#include <chrono>
#include <cstddef>

#include "logger/sink.h"
#include "zrstl/utf8.h"

namespace zr::logging::details {

namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

unsigned char Byte(char c) {
  return static_cast<unsigned char>(c);
}

std::string_view FileName(const char* path) {
  const std::string_view whole(path);
  return whole.substr(whole.rfind('/') + 1);
}

void AppendPrintable(std::string_view text, std::string& line) {
  for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    line += EscapeControls(text.substr(0, end)) + "\\n";
    text.remove_prefix(end + 1);
  }
  line += EscapeControls(text);
}

void AppendJsonCharacter(char c, std::string& line) {
  if (c == '"' || c == '\\') {
    line += {'\\', c};
  } else if (c == '\n') {
    line += "\\n";
  } else if (Byte(c) < 0x20 || Byte(c) == 0x7F) {
    line += "\\u00";
    line += {kHexDigits[Byte(c) >> 4U], kHexDigits[Byte(c) & 0xFU]};
  } else {
    line += c;
  }
}

/// With its quotes; a byte that is not part of UTF-8 becomes U+FFFD.
void AppendJsonText(std::string_view text, std::string& line) {
  line += '"';
  while (!text.empty()) {
    std::string_view rest = text;
    const std::size_t length = TakeCodePoint(rest) ? text.size() - rest.size() : 0;
    if (length == 0) line += "\\ufffd";
    if (length == 1) AppendJsonCharacter(text[0], line);
    if (length > 1) line += text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  line += '"';
}

void AppendJsonMember(std::string_view key, std::string_view value, std::string& line) {
  if (line.back() != '{') line += ',';
  AppendJsonText(key, line);
  line += ':';
  AppendJsonText(value, line);
}

void AppendJsonNumber(std::string_view key, std::uint64_t value, std::string& line) {
  line += ',';
  AppendJsonText(key, line);
  line += ':';
  line += std::to_string(value);
}

std::string_view ColourOf(LogLevel level) {
  if (level >= ZRLOG_ALERT) return "\033[1;41m";
  if (level >= ZRLOG_ERROR) return "\033[1;31m";
  if (level >= ZRLOG_WARNING) return "\033[1;33m";
  return level >= ZRLOG_INFO ? "\033[32m" : "\033[36m";
}

bool BeginsKey(char c) {
  return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsOfKey(char c) {
  return BeginsKey(c) || (c >= '0' && c <= '9') || c == '.' || c == '-';
}

/// Where the first "key=" begins; npos for none.
std::size_t FindFirstKey(std::string_view text) {
  for (auto equals = text.find('='); equals != std::string_view::npos; equals = text.find('=', equals + 1)) {
    auto begin = equals;
    while (begin > 0 && IsOfKey(text[begin - 1])) --begin;
    const bool isWord = begin == 0 || text[begin - 1] == ' ';
    if (isWord && begin < equals && BeginsKey(text[begin])) return begin;
  }
  return std::string_view::npos;
}

/// Where the ", key=" begins that ends the value at the front of `text`; the end of `text` for none.
std::size_t FindValueEnd(std::string_view text) {
  for (auto comma = text.find(", "); comma != std::string_view::npos; comma = text.find(", ", comma + 1)) {
    const auto key = text.substr(comma + 2);
    const auto end = std::find_if_not(key.begin(), key.end(), IsOfKey);
    if (end != key.begin() && end != key.end() && *end == '=' && BeginsKey(key.front())) return comma;
  }
  return text.size();
}

}  // namespace

void TimeStamp::Append(const timespec& time, std::string& line) {
  const auto since = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  const spdlog::log_clock::time_point point(std::chrono::duration_cast<spdlog::log_clock::duration>(since));
  spdlog::memory_buf_t text;
  m_formatter.format(spdlog::details::log_msg(point, {}, "", spdlog::level::info, ""), text);
  line.append(text.data(), text.size());
}

void AppendWhatAndWhere(const LogRecord& record, std::string& line) {
  line += '[';
  AppendPrintable(SourcePath(record.source), line);
  line += "] ";
  AppendPrintable(record.msg, line);
  line += " (";
  line += FileName(record.file);
  line += ':';
  line += std::to_string(record.line);
  line += ')';
}

void TextFormat::Append(const LogRecord& record, std::string& line) {
  m_time.Append(record.logTime, line);
  line += ' ';
  if (m_coloured) line += ColourOf(record.level);
  line += LogLevelName(record.level);
  if (m_coloured) line += "\033[0m";
  line += ' ';
  line += std::to_string(record.threadId);
  line += ' ';
  AppendWhatAndWhere(record, line);
  line += '\n';
}

void JsonFormat::Append(const LogRecord& record, std::string& line) {
  std::string time;
  m_time.Append(record.logTime, time);
  line += '{';
  AppendJsonMember("time", time, line);
  AppendJsonMember("level", LogLevelName(record.level), line);
  AppendJsonNumber("thread", record.threadId, line);
  if (record.source != nullptr) AppendJsonMember("source", SourcePath(record.source), line);
  const bool mayHaveFields = record.decodeType == ZRLOG_DECODE_AS_KV;
  const auto split = mayHaveFields ? SplitKeyValues(record.msg) : KeyValues{record.msg, {}};
  AppendJsonMember("message", split.phrase, line);
  if (!split.fields.empty()) {
    line += R"(,"fields":{)";
    for (const auto& [key, value] : split.fields) AppendJsonMember(key, value, line);
    line += '}';
  }
  if (record.id != 0) AppendJsonNumber("id", record.id, line);
  AppendJsonMember("file", FileName(record.file), line);
  AppendJsonNumber("line", static_cast<std::uint64_t>(std::max(record.line, 0)), line);
  line += "}\n";
}

KeyValues SplitKeyValues(std::string_view text) {
  constexpr std::size_t maxFields = 32;
  KeyValues split;
  const auto first = FindFirstKey(text);
  if (first == std::string_view::npos) return {text, {}};
  split.phrase = text.substr(0, first);
  for (const char end : {' ', ','}) {
    while (split.phrase.ends_with(end)) split.phrase.remove_suffix(1);
  }
  for (auto rest = text.substr(first);;) {
    const auto key = rest.substr(0, rest.find('='));
    const auto isKey = [key](const auto& field) { return field.first == key; };
    const bool isTwice = std::any_of(split.fields.begin(), split.fields.end(), isKey);
    if (isTwice || split.fields.size() == maxFields) return {text, {}};
    rest.remove_prefix(key.size() + 1);
    const auto end = FindValueEnd(rest);
    split.fields.emplace_back(key, rest.substr(0, end));
    if (end == rest.size()) return split;
    rest.remove_prefix(end + 2);
  }
}

}  // namespace zr::logging::details
