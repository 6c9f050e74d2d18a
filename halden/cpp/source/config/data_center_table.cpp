// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "config/data_center_table.h"

#include <filesystem>
#include <system_error>

#include "model/access_list.h"
#include "model/config_text.h"
#include "model/connect_string.h"

namespace zr::halden::details {

namespace {

constexpr std::string_view kHosts = "hosts";

class TableReader {
 public:
  TableReader(const toml::table& table, std::string_view name, const std::string& path, Cursor& cursor)
      : m_table(table), m_name(name), m_path(path), m_cursor(cursor) {}

  DataCenterTable Read() {
    for (const auto& [key, node] : InOrder(m_table)) ReadKey(*key, *node);
    if (m_table.get(kHosts) == nullptr && m_read.faults.empty()) {
      AddFault(m_table.source().begin,
               Subject() + " has no hosts: expected hosts = \"host:port[,host:port...][/chroot]\"");
    }
    if (m_read.faults.empty()) Compose();
    return std::move(m_read);
  }

 private:
  zr::String Subject() const { return "data centre " + Quoted(m_name); }
  void AddFault(const Place& place, zr::String message) {
    m_read.faults.emplace_back(place, std::move(message));
  }

  void ReadKey(const toml::key& key, const toml::node& node) {
    const auto place = node.source().begin;
    const bool isKnown = key == kHosts || key == kAuthFileOption || key == kAclOption;
    if (!isKnown) return AddFault(key.source().begin, WhyUnknown(key));
    const auto* value = node.as_string();
    if (value == nullptr) {
      return AddFault(place,
                      Quoted(key.str()) + " of " + Subject() + " is " + TypeOf(node) + ": expected a string");
    }
    if (key == kHosts) return ReadHosts(place, value->get());
    if (key == kAclOption) return ReadAcl(place, value->get());
    ReadAuthFile(place, value->get());
  }

  zr::String WhyUnknown(const toml::key& key) const {
    zr::String why =
        "unknown key " + Quoted(key.str()) + " of " + Subject() + ": expected hosts, auth_file or acl";
    // Of a name with a dot the part before it is taken for the table's.
    if (m_table.get(kHosts) == nullptr) why += ", and a name with a dot in quotes";
    return why;
  }

  void ReadHosts(const Place& place, const std::string& text) {
    const auto parsed = ParseConnectString(text);
    m_ensemble = parsed.value;
    m_read.connectString = text;
    m_read.credentialPlace = place;
    if (parsed.error.empty()) return;
    AddFault(PlaceInString(place, text, parsed.offset, m_cursor),
             "hosts of " + Subject() + ": " + parsed.error);
  }

  void ReadAcl(const Place& place, const std::string& text) {
    const auto parsed = ParseAccessList(text);
    m_acl = text;
    m_aclPlace = place;
    if (parsed.error.empty()) return;
    AddFault(PlaceInString(place, text, parsed.offset, m_cursor),
             "acl of " + Subject() + ": " + parsed.error);
  }

  /// The text is not repeated where it may be a credential.
  void ReadAuthFile(const Place& place, const std::string& text) {
    const bool isFile = !text.empty() && text.substr(0, text.find('/')).find(':') == std::string::npos &&
                        text.find('\0') == std::string::npos;
    if (!isFile) {
      return AddFault(place, "auth_file of " + Subject() +
                                 ": expected the name of a file, which holds scheme:credential");
    }
    m_authFile = text;
    m_authFilePlace = place;
  }

  void Compose() {
    if (!m_authFile.empty() && !m_ensemble.authFile.empty())
      return AddFault(m_authFilePlace,
                      "auth_file of " + Subject() + " is given twice: expected it here or in hosts");
    if (!m_acl.empty() && !m_ensemble.acl.empty())
      return AddFault(m_aclPlace, "acl of " + Subject() + " is given twice: expected it here or in hosts");
    if (!m_authFile.empty()) {
      m_read.connectString = WithOption(m_read.connectString, kAuthFileOption, InFolder(m_authFile));
      m_read.credentialPlace = m_authFilePlace;
    } else if (!m_acl.empty()) {
      m_read.credentialPlace = m_aclPlace;
    }
    if (!m_acl.empty()) m_read.connectString = WithOption(m_read.connectString, kAclOption, m_acl);
    const auto parsed = ParseConnectString(m_read.connectString);
    if (!parsed.error.empty())
      AddFault(m_read.credentialPlace, "auth_file of " + Subject() + ": " + parsed.error);
  }

  /// Absolute: a process may go to another folder before it connects.
  zr::String InFolder(const std::string& file) const {
    std::error_code ignored;
    const auto folder = std::filesystem::absolute(m_path, ignored).parent_path();
    return (folder / file).lexically_normal().string();
  }

  const toml::table& m_table;
  const std::string_view m_name;
  const std::string& m_path;
  Cursor& m_cursor;
  ConnectString m_ensemble;
  zr::String m_authFile;
  zr::String m_acl;
  Place m_authFilePlace{};
  Place m_aclPlace{};
  DataCenterTable m_read;
};

}  // namespace

DataCenterTable ReadDataCenterTable(const toml::table& table, std::string_view name, const std::string& path,
                                    Cursor& cursor) {
  return TableReader(table, name, path, cursor).Read();
}

}  // namespace zr::halden::details
