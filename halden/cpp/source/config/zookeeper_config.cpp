// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/zookeeper_config.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "config/data_center_table.h"
#include "config/toml_place.h"
#include "logger/logger.h"
#include "model/access_list.h"
#include "model/config_text.h"
#include "model/connect_string.h"
#include "model/credential.h"
#include "zrstl/sstream.h"
#include "zrstl/utf8.h"

namespace zr::halden {

namespace {

using details::Cursor;
using details::InOrder;
using details::Place;
using details::PlaceInString;
using details::Quoted;
using details::TypeOf;

// What a person can act on, of a file that is something else altogether.
constexpr std::size_t kMaxListed = 100;
constexpr std::string_view kDataCenters = "data_centers";
constexpr std::string_view kLocal = "local";
constexpr std::string_view kSnapshotFolder = "snapshot_folder";
constexpr std::string_view kServe = "serve";  // the agent's, which reads it itself
constexpr std::string_view kEntryForm = "name = \"host:port[,host:port...][/chroot]\"";

/// Never destroyed: a thread that outlives main() may still read a configuration.
const zr::logging::ConstSourcePtr& ConfigLog() {
  static const auto& source = *new zr::logging::ConstSourcePtr(zr::logging::MakeSource("halden.config"));
  return source;
}

zr::String Spelled(const toml::source_position& place) {
  zr::StringStream text;
  text << "line " << place.line << ", column " << place.column;
  return Finish(text);
}

bool HasControlCharacter(std::string_view name) {
  while (!name.empty()) {
    const auto point = TakeCodePoint(name);
    if (!point || IsControl(*point)) return true;
  }
  return false;
}

/// The key of `table` that a line with the one key of `line` gives again; null for none.
const toml::key* FindRepeated(const toml::table& table, const toml::table& line) {
  const auto [key, node] = *line.begin();  // a pair of references, which lives in the iterator
  const auto found = table.find(key.str());
  if (found == table.end()) return nullptr;
  const auto* below = node.as_table();
  const auto* belowFound = found->second.as_table();
  if (below == nullptr || below->empty() || belowFound == nullptr) return &found->first;
  return FindRepeated(*belowFound, *below);
}

/// Into `last`, if it is of a later header: the last table in `table` that has a header.
void FindLastHeader(const toml::table& table, const toml::table*& last) {
  for (const auto& [key, node] : table) {
    const auto* below = node.as_table();
    if (below == nullptr || below->is_inline()) continue;
    // A header's bracket stands before its key; a table that a key with dots makes begins with the key.
    const auto begin = below->source().begin;
    const bool hasHeader = begin < key.source().begin;
    if (hasHeader && (last == nullptr || last->source().begin < begin)) last = below;
    FindLastHeader(*below, last);
  }
}

std::optional<toml::table> TryParse(std::string_view text) {
  try {
    return toml::parse(text);
  } catch (const toml::parse_error&) {
    return std::nullopt;
  }
}

class Reader {
 public:
  explicit Reader(const std::string& path) : m_path(path) {}

  ZooKeeperConfig Read() {
    if (auto error = details::ReadFile(m_path, m_text); !error.empty()) {
      AddFault({}, std::move(error));
    } else if (const auto key = details::FindOverlongKey(m_text); key != std::string_view::npos) {
      AddFault(Cursor(m_text).PlaceOf(key), "key of more than 16 parts: expected fewer dots");
    } else {
      Parse();
    }
    return std::move(m_config);
  }

 private:
  void AddFault(const Place& place, zr::String message) {
    Add(m_config.faults, "faults", place, std::move(message));
  }

  void Add(std::vector<ConfigFault>& list, const char* what, const Place& place, zr::String message) const {
    if (list.size() == kMaxListed) {
      message = "more than " + std::to_string(kMaxListed) + ' ' + what + ": the others are not listed";
    }
    if (list.size() <= kMaxListed) {
      list.push_back({m_path, place.line, place.column, std::move(message)});
    }
  }

  /// The fault that ended the reading is listed behind however many others.
  void AddLastFault(const Place& place, zr::String message) {
    m_config.faults.push_back({m_path, place.line, place.column, std::move(message)});
  }

  void Parse() {
    try {
      ReadRoot(toml::parse(std::string_view(m_text), m_path));
    } catch (const toml::parse_error& e) {
      ReadBefore(e);
    }
  }

  /// The parser gives nothing with a syntax error; the lines before the error's are good even so.
  void ReadBefore(const toml::parse_error& error) {
    const Place place = error.source().begin;
    const auto fromLine = Cursor(m_text).From({place.line, 1});
    const auto before = std::string_view(m_text).substr(0, m_text.size() - fromLine.size());
    const auto good = TryParse(before);  // nothing where the error's cause stands on an earlier line
    m_isCutOff = true;
    if (good) ReadRoot(*good);
    if (!good || !AddRepeated(error, *good, fromLine)) {
      AddLastFault(place,
                   "not valid TOML, and not read from this line on: " + EscapeControls(error.description()));
    }
  }

  /// The fault, if it is that the line at the front of `text` gives a key again.
  bool AddRepeated(const toml::parse_error& error, const toml::table& good, std::string_view text) {
    if (error.description().find("redefine") == std::string_view::npos) return false;
    const Place place = error.source().begin;
    const auto line = text.substr(0, text.find('\n'));
    auto key = TryParse(zr::String(line.substr(0, line.find('='))) + "=0");
    const bool isHeader = !key;
    if (isHeader) key = TryParse(line);
    if (!key || key->empty()) return false;
    const toml::table* last = nullptr;
    if (!isHeader) FindLastHeader(good, last);
    const auto* first = FindRepeated(last == nullptr ? good : *last, *key);
    if (first == nullptr) return false;
    AddLastFault({place.line, key->begin()->first.source().begin.column},
                 Quoted(first->str()) +
                     " is given again, and the file not read from this line on: expected once, it is in " +
                     Spelled(first->source().begin));
    const auto* entries = good[kDataCenters].as_table();
    const bool isEntry = entries != nullptr && entries->find(first->str()) != entries->end() &&
                         &entries->find(first->str())->first == first;
    if (isEntry) m_config.ensembles.erase(zr::String(first->str()));  // which of the two is meant?
    return true;
  }

  void ReadRoot(const toml::table& root) {
    FindLastHeader(root, m_lastHeader);
    const toml::node* dataCenters = root.get(kDataCenters);
    for (const auto& [key, node] : InOrder(root)) {
      if (key->str() == kLocal) {
        ReadLocal(*node, dataCenters == nullptr ? nullptr : dataCenters->as_table());
      } else if (key->str() == kSnapshotFolder) {
        ReadSnapshotFolder(*node);
      } else if (key->str() != kDataCenters && key->str() != kServe) {
        WarnOfUnknown(*key);
      }
    }
    if (dataCenters == nullptr) {
      if (m_isCutOff) return;  // it may come later
      AddFault({}, "no table [data_centers]: expected it, with entries " + zr::String(kEntryForm));
    } else if (const auto* table = dataCenters->as_table()) {
      ReadDataCenters(*table);
    } else {
      AddFault(dataCenters->source().begin,
               "data_centers is " + TypeOf(*dataCenters) + ": expected a table [data_centers]");
    }
  }

  void ReadLocal(const toml::node& node, const toml::table* dataCenters) {
    const auto* value = node.as_string();
    if (value == nullptr) {
      return AddFault(node.source().begin,
                      "local is " + TypeOf(node) + ": expected the name of a data centre");
    }
    const bool isNamed = dataCenters != nullptr && dataCenters->contains(value->get());
    if (!isNamed && m_isCutOff) return;  // it may come later
    if (!isNamed) {
      return AddFault(node.source().begin,
                      "local is " + Quoted(value->get()) + ": expected the name of one of [data_centers]");
    }
    m_config.local = value->get();
  }

  /// Not relative: to what, would depend on who reads it.
  void ReadSnapshotFolder(const toml::node& node) {
    const auto* value = node.as_string();
    const bool isPath =
        value != nullptr && value->get().starts_with('/') && !HasControlCharacter(value->get());
    if (isPath) {
      m_config.snapshotFolder = value->get();
    } else {
      AddFault(node.source().begin, zr::String(kSnapshotFolder) + " is " +
                                        (value != nullptr ? Quoted(value->get()) : TypeOf(node)) +
                                        ": expected a folder's path that begins with \"/\"");
    }
  }

  void WarnOfUnknown(const toml::key& key) {
    zr::String message = "unknown key " + Quoted(key.str()) + " is ignored";
    for (const auto known : {kDataCenters, kSnapshotFolder}) {
      if (details::IsNearly(key.str(), known)) message += ": did you mean " + Quoted(known) + "?";
    }
    AddWarning(key, std::move(message));
  }

  void AddWarning(const toml::key& key, zr::String message) {
    Add(m_config.warnings, "doubts", key.source().begin, std::move(message));
  }

  void ReadDataCenters(const toml::table& table) {
    if (table.empty() && !m_isCutOff) {
      AddFault(table.source().begin, "[data_centers] is empty: expected entries " + zr::String(kEntryForm));
    }
    Cursor cursor(m_text);
    for (const auto& [key, node] : InOrder(table)) ReadEntry(*key, *node, cursor);
  }

  void ReadEntry(const toml::key& key, const toml::node& node, Cursor& cursor) {
    const std::string_view name = key.str();
    if (name.empty()) return AddFault(key.source().begin, "data centre without a name: expected one");
    if (HasControlCharacter(name)) {
      return AddFault(key.source().begin,
                      "control character in the name " + Quoted(name) + ": expected printable text");
    }
    if (const auto* table = node.as_table()) return ReadTable(key, *table, cursor);
    const auto place = node.source().begin;
    const auto* value = node.as_string();
    if (value == nullptr) {
      return AddFault(place, "data centre " + Quoted(name) + " is " + TypeOf(node) +
                                 ": expected a string, \"host:port[,host:port...][/chroot]\", or a table");
    }
    const zr::String& text = value->get();
    const auto parsed = details::ParseConnectString(text);
    if (!parsed.error.empty()) {
      return AddFault(PlaceInString(place, text, parsed.offset, cursor),
                      "connect string of data centre " + Quoted(name) + ": " + parsed.error);
    }
    AddEnsemble(key, text, place);
  }

  /// What follows may belong to it, and be what was to protect the data centre.
  bool IsCutOff(const toml::key& key, const toml::table& table) const {
    if (!m_isCutOff || table.is_inline()) return false;
    const bool hasHeader = table.source().begin < key.source().begin;
    return !hasHeader || m_lastHeader == &table;
  }

  void ReadTable(const toml::key& key, const toml::table& table, Cursor& cursor) {
    if (IsCutOff(key, table)) return;
    const auto entry = details::ReadDataCenterTable(table, key.str(), m_path, cursor);
    for (const auto& [place, message] : entry.faults) AddFault(place, message);
    if (entry.faults.empty()) AddEnsemble(key, entry.connectString, entry.credentialPlace);
  }

  /// `text` is in order. A credential that cannot be read costs nothing but itself: it may be there when it is needed.
  void AddEnsemble(const toml::key& key, const zr::String& text, const Place& credentialPlace) {
    const auto ensemble = details::ParseConnectString(text).value;
    if (ensemble.authFile.empty() && details::NeedsCredential(details::ParseAccessList(ensemble.acl).value)) {
      return AddFault(credentialPlace,
                      "acl of data centre " + Quoted(key.str()) +
                          " without auth_file: expected one, since it gives rights to who has "
                          "authenticated");
    }
    WarnOfSame(key, details::WithoutOptions(text));
    m_config.ensembles.emplace(key.str(), text);
    if (ensemble.authFile.empty()) return;
    const auto why = details::ReadCredentialFile(ensemble.authFile).error;
    if (why.empty()) return;
    Add(m_config.authFaults, "faulty credentials", credentialPlace,
        "credential of data centre " + Quoted(key.str()) + ": " + why);
  }

  void WarnOfSame(const toml::key& key, const zr::String& ensemble) {
    const auto [first, isNew] = m_firstKeys.emplace(ensemble, &key);
    if (isNew) return;
    AddWarning(key, "data centre " + Quoted(key.str()) + " has the ensemble of " +
                        Quoted(first->second->str()) + " in " + Spelled(first->second->source().begin) +
                        ": expected its own, or every instance is there twice");
  }

  const std::string& m_path;
  std::string m_text;
  bool m_isCutOff = false;                             // read only up to a syntax error
  const toml::table* m_lastHeader = nullptr;           // the table of the last one that was read
  std::map<zr::String, const toml::key*> m_firstKeys;  // by ensemble
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
    ZRLOG(ZRLOG_WARNING, ConfigLog()) << "fault in the ZooKeeper configuration, fault=" << fault.Text();
  }
  for (const auto& fault : config.authFaults) {
    ZRLOG(ZRLOG_WARNING, ConfigLog()) << "no credential yet, fault=" << fault.Text();
  }
  for (const auto& warning : config.warnings) {
    ZRLOG(ZRLOG_WARNING, ConfigLog())
        << "doubt about the ZooKeeper configuration, warning=" << warning.Text();
  }
  return {config.faults.empty(), std::move(config.ensembles)};
}

}  // namespace zr::halden
