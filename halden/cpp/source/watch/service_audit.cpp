// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// How a reader finds events that were lost: by a bug, by a proxy, or by a server that does not tell them to a client that
// may not read the node just then, and uses up the watch. All on the connection's thread.
#include <utility>

#include "base/log_sources.h"
#include "model/error_policy.h"
#include "watch/service_reader.h"

namespace zr::halden::details {

void ServiceReader::SetAudit(const AuditIntervals& intervals) {
  m_core->Post([self = shared_from_this(), intervals] {
    self->m_audit.Set(intervals);
    self->AuditAfter(std::chrono::milliseconds(1));
  });
}

/// Runs for as long as the reader does, whatever is going on.
void ServiceReader::AuditAfter(Clock::duration delay) {
  m_core->PostAfter(delay, [weak = weak_from_this(), run = ++m_auditCursor.run] {
    const auto self = weak.lock();
    if (!self || self->m_auditCursor.run != run) return;
    constexpr std::chrono::seconds whileOthersRead{1};
    Clock::duration next = whileOthersRead;
    TaskThread::RunGuarded([&] {
      self->Guarded([&] {
        if (self->RunAudit()) next = self->m_audit.Wait(Clock::now());
      });
    });
    self->AuditAfter(next);
  });
}

/// False while anything else is read: what comes of that is newer than what the audit would compare with.
bool ServiceReader::RunAudit() {
  if (!IsAtRest()) return false;
  std::size_t lists = 1;
  std::size_t instances = 0;
  for (const auto& partition : m_partitions) {
    lists += partition.listed ? 1 : 0;
    instances += partition.instances.size();
  }
  const auto due = m_audit.Take(Clock::now(), lists, instances);
  for (std::size_t i = 0; i < due.lists; ++i) AuditList();
  for (std::size_t i = 0; i < due.instances; ++i) AuditInstance();
  return true;
}

/// The same read as after an event, watch included.
void ServiceReader::AuditList() {
  auto& at = m_auditCursor.list;
  for (at = (at + 1) % (kPartitions + 1); at < kPartitions && !m_partitions[at].listed;) ++at;
  if (at == kPartitions) {
    m_service.read.audit = true;
    return ReadService();
  }
  m_partitions[at].list.read.audit = true;
  ReadPartition(static_cast<std::uint8_t>(at), Haste::Now);
}

void ServiceReader::AuditInstance() {
  auto& partition = m_auditCursor.partition;
  auto& ids = m_auditCursor.instances;
  for (std::size_t i = 0; ids.empty() && i < kPartitions; ++i) {
    partition = (partition + 1) % kPartitions;
    for (const auto& [id, instance] : m_partitions[partition].instances) ids.push_back(id);
  }
  if (ids.empty()) return;
  const ServiceId id = ids.back();
  ids.pop_back();
  if (!m_partitions[PartitionOf(id)].instances.contains(id)) return;
  Submit(Request::Kind::Exists, InstancePath(m_path, id), true,
         [id](ServiceReader& self, const Reply& reply) { self.OnInstanceAudited(id, reply); });
}

/// A server tells the events of a session before it answers with what they are about: so nothing that is only on its
/// way passes for lost.
void ServiceReader::OnInstanceAudited(const ServiceId& id, const Reply& reply) {
  auto& instances = m_partitions[PartitionOf(id)].instances;
  const auto instance = instances.find(id);
  if (instance == instances.end() || instance->second.read.reading || instance->second.read.dirty) return;
  const ErrorAction action = ActionFor(reply.code);
  if (action == ErrorAction::Absent) {
    ReportDrift(InstancePath(m_path, id));
    RemoveInstance(id);
  } else if (action == ErrorAction::Done &&
             m_delivery->Seen(id) != NodeVersion{reply.stat.czxid, reply.stat.mzxid}) {
    ReportDrift(InstancePath(m_path, id));
    ReadInstance(id, Haste::Now);
  }
}

/// `list` has been read, and for the audit, if that has asked for it.
void ServiceReader::TakeListing(List& list, const Reply& reply, const zr::String& path) {
  const bool absent = reply.code != ZOK;
  const bool same = absent ? list.absent : !list.absent && reply.stat.pzxid == list.pzxid;
  if (std::exchange(list.read.audit, false) && !same) ReportDrift(path);
  list.read.toldRefused = false;
  list.absent = absent;
  if (!absent) list.pzxid = reply.stat.pzxid;
}

void ServiceReader::ReportDrift(const zr::String& path) {
  ZRLOG(ZRLOG_WARNING, WatcherLog()) << "a change was missed and found by the audit, dc_name="
                                     << m_core->DataCenterName() << ", path=" << path;
  m_delivery->CountDrift();
}

}  // namespace zr::halden::details
