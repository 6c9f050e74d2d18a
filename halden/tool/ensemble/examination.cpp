// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/examination.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>
#include <vector>

#include "client/watch_budget.h"
#include "ensemble/reachability.h"
#include "halden/instance_data.h"
#include "model/access_list.h"
#include "model/connect_string.h"
#include "model/layout.h"
#include "model/node_codec.h"

namespace zr::halden::tool {

namespace {

using details::Request;

/// Reads a service's nodes, and what a client's watches on them come to.
class ServiceExamination {
 public:
  ServiceExamination(EnsembleReader& reader, const std::string& service, const zr::String& chroot)
      : m_reader(reader), m_service(service), m_path(details::ServicePath(service)), m_chroot(chroot) {}

  ServiceFacts Run() {
    const auto service = m_reader.Ask({Request::Kind::GetChildren, m_path});
    m_facts.code = service.code;
    if (service.code != ZOK) return m_facts;
    CountWatch(m_path);
    std::vector<Question> partitions;
    for (const auto& name : service.children) {
      const zr::String path = m_path + '/' + name;
      if (details::ParsePartition(name)) partitions.push_back({Request::Kind::GetChildren, path});
      if (!details::ParsePartition(name)) CountOdd(path);
    }
    const auto lists = m_reader.Ask(partitions);
    for (std::size_t i = 0; i < lists.size(); ++i) ExaminePartition(partitions[i].path, lists[i]);
    ExamineAccess(std::move(partitions));
    return m_facts;
  }

 private:
  void ExaminePartition(const zr::String& path, const details::Reply& list) {
    if (!Readable(path, list.code)) return;
    CountWatch(path);
    std::vector<Question> questions;
    for (const auto& name : list.children) {
      const zr::String node = fmt::format("{}/{}", path, name);
      const auto id = ParseServiceId(name);
      const bool inPlace = id && details::InstancePath(m_path, *id) == node;
      if (inPlace) questions.push_back({Request::Kind::Get, node});
      if (!inPlace) CountOdd(node);
    }
    const auto nodes = m_reader.Ask(questions);
    for (std::size_t i = 0; i < nodes.size(); ++i) ExamineNode(questions[i].path, nodes[i]);
  }

  void ExamineAccess(std::vector<Question> partitions) {
    auto& exposure = m_facts.exposure;
    exposure.service = AnyoneAt({{Request::Kind::GetAccess, m_path}}).at(0);
    for (const auto permissions : AnyoneAt(std::move(partitions))) exposure.partitions |= permissions;
    for (const auto permissions : AnyoneAt(std::move(m_instances))) {
      exposure.instances |= permissions;
      if ((permissions & details::kWrite) != 0) ++exposure.writable;
    }
  }

  /// What everybody may do at each of these nodes.
  std::vector<std::int32_t> AnyoneAt(std::vector<Question> nodes) {
    for (auto& node : nodes) node.kind = Request::Kind::GetAccess;
    std::vector<std::int32_t> permissions;
    for (const auto& reply : m_reader.Ask(nodes)) {
      permissions.push_back(details::PermissionsOfAnyone(reply.access));
      const bool failed = reply.code != ZOK && reply.code != ZNONODE;
      if (failed && m_facts.exposure.code == ZOK) m_facts.exposure.code = reply.code;
    }
    return permissions;
  }

  void ExamineNode(const zr::String& path, const details::Reply& node) {
    if (!Readable(path, node.code)) return;
    CountWatch(path);
    ++m_facts.instances;
    m_instances.push_back({Request::Kind::GetAccess, path});
    m_facts.total += node.value.size();
    if (node.value.size() > m_facts.largest) {
      m_facts.largest = node.value.size();
      m_facts.largestPath = path;
    }
    if (node.stat.ephemeralOwner == 0 && m_facts.sessionless++ == 0) m_facts.sessionlessExample = path;
    const auto decoded = details::DecodeNode(node.value);
    if (!decoded.payload && m_facts.unreadable++ == 0) {
      m_facts.unreadableExample =
          path + ": " + decoded.error + ", written by " + details::WriterOf(node.value);
    }
    const auto why = decoded.payload ? WhyUnfit(details::ParsePayload(*decoded.payload), m_service) : "";
    if (!why.empty() && m_facts.unfit++ == 0) {
      m_facts.unfitExample = path + ": " + why + ", written by " + details::WriterOf(node.value);
    }
  }

  /// What has gone since it was listed is not there; other errors are kept.
  bool Readable(const zr::String& path, int code) {
    if (code == ZNOAUTH && m_facts.refused++ == 0) m_facts.refusedExample = path;
    if (code != ZOK && code != ZNONODE && code != ZNOAUTH) m_facts.code = code;
    return code == ZOK;
  }
  void CountOdd(const zr::String& path) {
    if (m_facts.oddNodes++ == 0) m_facts.oddExample = path;
  }
  void CountWatch(const zr::String& path) {
    m_facts.watchBytes += details::WatchBudget::BytesOf(m_chroot + path);
  }

  EnsembleReader& m_reader;
  const std::string m_service;
  const zr::String m_path;
  const zr::String m_chroot;
  std::vector<Question> m_instances;  // for their access lists
  ServiceFacts m_facts;
};

}  // namespace

EnsembleFacts Examine(EnsembleReader& reader, const zr::String& ensemble, const std::string& service) {
  constexpr std::chrono::seconds serversLimit{3};
  const auto parsed = details::ParseConnectString(ensemble).value;
  EnsembleFacts facts;
  facts.dataCenter = reader.DataCenter();
  facts.chroot = parsed.chroot;
  facts.hasCredential = !parsed.authFile.empty();
  facts.servers = ExamineServers(parsed.hosts, serversLimit);
  facts.session = reader.AwaitSession();
  facts.status = reader.Status();
  if (!facts.session) return facts;
  if (!facts.chroot.empty()) {
    facts.chrootCode = reader.Ask({Request::Kind::Exists, facts.chroot, true}).code;
  }
  const auto services = reader.Ask({Request::Kind::GetChildren, zr::String(details::kServicesPath)});
  facts.servicesCode = services.code;
  facts.services.assign(services.children.begin(), services.children.end());
  if (!service.empty()) facts.service = ServiceExamination(reader, service, facts.chroot).Run();
  return facts;
}

}  // namespace zr::halden::tool
