// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/zookeeper_config.h"

#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string_view>
#include <system_error>
#include <utility>

#include "connect_string.h"
#include "logger/logger.h"
#include "zrstl/sstream.h"

namespace zr::halden {

namespace {

constexpr std::size_t kMaxFileBytes = 10UL * 1024 * 1024;
constexpr std::string_view kDataCenters = "data_centers";
constexpr std::string_view kEntryForm = "name = \"host:port[,host:port...][/chroot]\"";

using Place = toml::source_position;  // counts lines and code points from 1

/// Never destroyed: a thread that outlives main() may still read a configuration.
const zr::logging::ConstSourcePtr& ConfigLog() {
  static const auto& source = *new zr::logging::ConstSourcePtr(zr::logging::MakeSource("halden.config"));
  return source;
}

/// On one line whatever `text` holds.
zr::String Printable(std::string_view text) {
  constexpr std::string_view digits = "0123456789abcdef";
  zr::String printable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      printable += c;
    } else {
      printable += {'\\', 'x', digits[byte >> 4U], digits[byte & 0xFU]};
    }
  }
  return printable;
}

zr::String Quoted(std::string_view text) {
  return '"' + Printable(text) + '"';
}

zr::String SystemError() {
  return std::error_code(errno, std::generic_category()).message();
}

/// The file's bytes in `text`; returns what is wrong, empty for nothing. Reads whatever can be read, a pipe
/// too.
zr::String ReadFile(const std::string& path, std::string& text) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) return "is a directory: expected a file";
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  if (!file) return "cannot be opened: " + SystemError();
  std::array<char, 16UL * 1024> block{};
  do {
    file.read(block.data(), block.size());
    text.append(block.data(), static_cast<std::size_t>(file.gcount()));
    if (text.size() > kMaxFileBytes) return "too large: expected at most 10 MiB";
  } while (file);
  return file.bad() ? "cannot be read: " + SystemError() : zr::String();
}

/// Past the string that begins with the quote at `pos`.
std::size_t SkipString(std::string_view text, std::size_t pos) {
  const char quote = text[pos];
  const zr::String triple(3, quote);
  const bool isLong = text.substr(pos, 3) == triple;
  const std::string_view end = isLong ? std::string_view(triple) : std::string_view(triple).substr(0, 1);
  pos += end.size();
  while (pos < text.size() && text.substr(pos, end.size()) != end) {
    if (text[pos] == '\n' && !isLong) return pos;
    pos += text[pos] == '\\' && quote == '"' ? 2U : 1U;
  }
  pos += end.size();
  // One or two quotes before the three that end it are text.
  for (int extra = 0; isLong && extra < 2 && pos < text.size() && text[pos] == quote; ++extra) ++pos;
  return std::min(pos, text.size());
}

/// Where `text` has a key of too many parts. "a.a.a..." makes as many nested tables, which the parser does
/// not limit (as it does nested values) and frees recursively: a long enough key would overflow the stack.
std::size_t FindOverlongKey(std::string_view text) {
  constexpr int maxDots = 15;
  int dots = 0;
  for (std::size_t pos = 0; pos < text.size();) {
    const char c = text[pos];
    if (c == '"' || c == '\'') {
      pos = SkipString(text, pos);
      continue;
    }
    if (c == '#') {
      pos = std::min(text.find('\n', pos), text.size());
      continue;
    }
    if (c == '.' && ++dots > maxDots) return pos;
    if (c == '\n' || c == '=' || c == ',' || c == '[' || c == '{') dots = 0;
    ++pos;
  }
  return std::string_view::npos;
}

/// How many characters to insert, remove or replace to get from one text to the other.
std::size_t EditDistance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

bool IsNearly(std::string_view key, std::string_view known) {
  constexpr std::size_t closeEnough = 3;
  return key.size() <= known.size() + closeEnough && EditDistance(key, known) <= closeEnough;
}

bool HasControlCharacter(std::string_view name) {
  while (!name.empty()) {
    const auto point = details::TakeCodePoint(name);
    if (!point || *point < 0x20 || (*point >= 0x7F && *point <= 0x9F)) return true;
  }
  return false;
}

/// Goes through a text once, from place to place, counting lines and columns as the parser does.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : m_text(text) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(byteOrderMark)) m_offset = byteOrderMark.size();
  }

  /// What stands at `place`, which is not before the one asked for last.
  std::string_view From(const Place& place) {
    while (m_place < place && Step()) {
    }
    return m_text.substr(m_offset);
  }

  Place PlaceOf(std::size_t offset) {
    while (m_offset < offset && Step()) {
    }
    return m_place;
  }

 private:
  bool Step() {
    if (m_offset == m_text.size()) return false;
    if (m_text[m_offset++] == '\n') {
      m_place = {m_place.line + 1, 1};
      return true;
    }
    while (m_offset < m_text.size() && (static_cast<unsigned char>(m_text[m_offset]) & 0xC0U) == 0x80)
      ++m_offset;
    ++m_place.column;
    return true;
  }

  std::string_view m_text;
  std::size_t m_offset = 0;
  Place m_place{1, 1};
};

class Reader {
 public:
  explicit Reader(const std::string& path) : m_path(path) {}

  ZooKeeperConfig Read() {
    if (auto error = ReadFile(m_path, m_text); !error.empty()) {
      AddFault({}, std::move(error));
    } else if (const auto key = FindOverlongKey(m_text); key != std::string_view::npos) {
      AddFault(Cursor(m_text).PlaceOf(key), "key of more than 16 parts: expected fewer dots");
    } else {
      Parse();
    }
    return std::move(m_config);
  }

 private:
  void AddFault(const Place& place, zr::String message) {
    m_config.faults.push_back({m_path, place.line, place.column, std::move(message)});
  }

  void Parse() {
    try {
      ReadRoot(toml::parse(std::string_view(m_text), m_path));
    } catch (const toml::parse_error& e) {
      AddFault(e.source().begin, "not valid TOML: " + Printable(e.description()));
    }
  }

  void ReadRoot(const toml::table& root) {
    const toml::node* dataCenters = nullptr;
    for (const auto& [key, node] : root) {
      if (key.str() == kDataCenters) {
        dataCenters = &node;
      } else {
        WarnOfUnknown(key);
      }
    }
    std::sort(m_config.warnings.begin(), m_config.warnings.end(), [](const auto& a, const auto& b) {
      return std::pair(a.line, a.column) < std::pair(b.line, b.column);
    });
    if (dataCenters == nullptr) {
      AddFault({}, "no table [data_centers]: expected it, with entries " + zr::String(kEntryForm));
    } else if (const auto* table = dataCenters->as_table()) {
      ReadDataCenters(*table);
    } else {
      AddFault(dataCenters->source().begin,
               "data_centers is " + TypeOf(*dataCenters) + ": expected a table [data_centers]");
    }
  }

  void WarnOfUnknown(const toml::key& key) {
    zr::String message = "unknown key " + Quoted(key.str()) + " is ignored";
    if (IsNearly(key.str(), kDataCenters)) message += ": did you mean " + Quoted(kDataCenters) + "?";
    const auto& place = key.source().begin;
    m_config.warnings.push_back({m_path, place.line, place.column, std::move(message)});
  }

  void ReadDataCenters(const toml::table& table) {
    if (table.empty()) {
      AddFault(table.source().begin, "[data_centers] is empty: expected entries " + zr::String(kEntryForm));
    }
    std::vector<std::pair<const toml::key*, const toml::node*>> entries;  // in the order of the file
    for (const auto& [key, node] : table) entries.emplace_back(&key, &node);
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.first->source().begin < b.first->source().begin; });
    Cursor cursor(m_text);
    for (const auto& [key, node] : entries) ReadEntry(*key, *node, cursor);
  }

  void ReadEntry(const toml::key& key, const toml::node& node, Cursor& cursor) {
    const std::string_view name = key.str();
    if (name.empty()) return AddFault(key.source().begin, "data centre without a name: expected one");
    if (HasControlCharacter(name)) {
      return AddFault(key.source().begin,
                      "control character in the name " + Quoted(name) + ": expected printable text");
    }
    const auto place = node.source().begin;
    const auto* value = node.as_string();
    if (value == nullptr) {
      return AddFault(place, "data centre " + Quoted(name) + " is " + TypeOf(node) +
                                 ": expected a string, \"host:port[,host:port...][/chroot]\"" +
                                 (node.is_table() ? ", and a name with a dot in quotes" : ""));
    }
    const zr::String& text = value->get();
    auto parsed = details::ParseConnectString(text);
    if (parsed.error.empty()) {
      m_config.ensembles.emplace(name, text);
    } else {
      AddFault(PlaceInString(place, text, parsed.offset, cursor),
               "connect string of data centre " + Quoted(name) + ": " + parsed.error);
    }
  }

  /// The place of byte `offset` of a string value; the value's own place when the file spells it differently
  /// (with escapes, or over several lines).
  static Place PlaceInString(Place place, std::string_view value, std::size_t offset, Cursor& cursor) {
    const auto source = cursor.From(place);
    if (source.empty() || !source.substr(1).starts_with(value)) return place;
    const auto before = value.substr(0, offset);
    const auto isFirstByte = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; };
    place.column +=
        1 + static_cast<toml::source_index>(std::count_if(before.begin(), before.end(), isFirstByte));
    return place;
  }

  static zr::String TypeOf(const toml::node& node) {
    zr::StringStream text;
    text << "of type " << node.type();
    return Finish(text);
  }

  const std::string& m_path;
  std::string m_text;
  ZooKeeperConfig m_config;
};

}  // namespace

zr::String ConfigFault::Text() const {
  if (line == 0) return file + ": " + message;
  return file + ':' + std::to_string(line) + ':' + std::to_string(column) + ": " + message;
}

ZooKeeperConfig ReadZooKeeperConfig(const std::string& path) {
  return Reader(path).Read();
}

std::tuple<bool, DataCenterEnsembleMapT> ParseZooKeeperConfig(const std::string& path) {
  auto config = ReadZooKeeperConfig(path);
  for (const auto& fault : config.faults) {
    ZRLOG(ZRLOG_ERROR, ConfigLog()) << "fault in the ZooKeeper configuration, fault=" << fault.Text();
  }
  for (const auto& warning : config.warnings) {
    ZRLOG(ZRLOG_WARNING, ConfigLog())
        << "doubt about the ZooKeeper configuration, warning=" << warning.Text();
  }
  return {config.faults.empty(), std::move(config.ensembles)};
}

}  // namespace zr::halden
