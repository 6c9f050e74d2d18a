// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "watch/service_reader.h"

#include <algorithm>
#include <utility>

#include "base/log_sources.h"
#include "model/error_policy.h"
#include "model/node_codec.h"

namespace zr::halden::details {

namespace {

constexpr std::size_t kMaxOddNames = 1000;

}  // namespace

ServiceReader::ServiceReader(std::shared_ptr<ConnectionCore> core, const zr::String& service,
                             std::shared_ptr<WatcherDelivery> delivery)
    : m_core(std::move(core)), m_delivery(std::move(delivery)), m_path(ServicePath(service)) {}

void ServiceReader::Start(const Connection& conn) {
  m_watch = std::make_shared<Connection::WatchContext>(
      conn, [weak = weak_from_this()](int type, int /*state*/, const zr::String& path) {
        if (const auto self = weak.lock()) self->Guarded([&] { self->OnWatch(type, path); });
      });
  m_core->Post([self = shared_from_this()] {
    self->m_core->AddWatcher(self->m_path, self->m_watch);
    self->m_core->AddListener(self);
    self->AuditAfter(std::chrono::seconds(1));
  });
}

void ServiceReader::Stop() {
  if (!m_watch) return;
  m_watch->Invalidate({});
  m_core->Post([self = shared_from_this()] {
    std::size_t watches = 1;
    for (const auto& partition : self->m_partitions) {
      watches += partition.listed ? 1 + partition.instances.size() : 0;
    }
    self->m_core->RemoveWatcher(self->m_path, self->m_watch, watches);
  });
}

void ServiceReader::OnDisconnected(bool epochOver) {
  m_phase = Phase::Away;
  m_upToDate = false;
  m_delivery->MarkStale();
  if (epochOver) ForgetReads();
}

void ServiceReader::OnStateChanged() {
  m_delivery->ReportStatus();
}

void ServiceReader::OnSessionError(int code) {
  m_delivery->ReportError(code);
}

/// No answer and no event of what was asked so far will come; everything is to be read.
void ServiceReader::ForgetReads() {
  const auto forget = [](ReadState& state) { state = {.toldRefused = state.toldRefused}; };
  ++m_generation;
  m_ledger = {};
  forget(m_service.read);
  for (Partition& partition : m_partitions) {
    forget(partition.list.read);
    partition.listed = false;
    for (auto& [id, instance] : partition.instances) forget(instance.read);
  }
  m_toRead.lists.clear();
  m_toRead.instances.clear();
  m_fullRead = false;
  m_readAll = true;
}

/// Something was left half done. What may fail comes last.
void ServiceReader::StartOver() noexcept {
  ForgetReads();
  if (m_phase != Phase::Away) m_phase = Phase::Waiting;
  TaskThread::RunGuarded([this] { ScheduleRetry(m_retry); });
  TaskThread::RunGuarded([this] { m_delivery->MarkStale(); });
}

void ServiceReader::OnWatch(int type, const zr::String& path) {
  const std::string_view rest = std::string_view(path).substr(m_path.size());
  if (rest.empty()) {
    if (type == ZOO_DELETED_EVENT) m_delivery->ForgetServiceNode();
    return ReadService();
  }
  const auto partition = ParsePartition(rest.substr(1, 2));
  if (!partition) return;
  if (rest.size() == 3) return ReadPartition(*partition, Haste::Now);
  const auto id = ParseServiceId(rest.substr(4));
  if (!id) return;
  auto& instances = m_partitions[*partition].instances;
  const auto instance = instances.find(*id);
  if (instance == instances.end()) return;
  if (type == ZOO_DELETED_EVENT && !instance->second.read.reading) {
    RemoveInstance(*id);
    FinishIfComplete();
  } else {
    ReadInstance(*id, Haste::Now);
  }
}

void ServiceReader::ReadService() {
  if (!m_ledger.Begin(m_service.read)) return;
  Submit(Request::Kind::GetChildren, m_path, true,
         [](ServiceReader& self, Reply& reply) { self.OnService(reply); });
}

void ServiceReader::OnService(Reply& reply) {
  if (!m_ledger.End(m_service.read)) return ReadService();
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      OnServiceListed(reply);
      break;
    case ErrorAction::Absent:
      TakeListing(m_service, reply, m_path);
      m_delivery->SetServiceNode(0);
      LeaveOutAbsent({});
      for (std::size_t i = 0; i < kPartitions; ++i) OnPartitionAbsent(static_cast<std::uint8_t>(i));
      AwaitService();
      break;
    default:
      Fail(m_service.read, reply.code, m_path);
  }
  FinishIfComplete();
}

void ServiceReader::OnServiceListed(const Reply& reply) {
  if (IsOlder(m_service, reply)) return Fail(m_service.read, ZRUNTIMEINCONSISTENCY, m_path);
  TakeListing(m_service, reply, m_path);
  m_delivery->SetServiceNode(reply.stat.czxid);
  std::array<bool, kPartitions> present{};
  for (const auto& name : reply.children) {
    if (const auto number = ParsePartition(name)) {
      present[*number] = true;
    } else {
      LogOddName(m_path, name);
    }
  }
  LeaveOutAbsent(present);
  for (std::size_t i = 0; i < kPartitions; ++i) {
    const auto number = static_cast<std::uint8_t>(i);
    if (!present[i]) {
      // One that is being read answers for itself: it may have been created since.
      if (!m_partitions[i].list.read.reading) OnPartitionAbsent(number);
    } else if (!m_partitions[i].listed && !m_partitions[i].list.read.reading) {  // its answer will be newer
      ReadPartition(number, UsualHaste());
    }
  }
}

/// What was to be asked for before it was known what there is, and has not had its turn.
void ServiceReader::LeaveOutAbsent(const std::array<bool, kPartitions>& present) {
  for (const auto number : m_toRead.lists) {
    if (!present[number]) m_ledger.End(m_partitions[number].list.read);
  }
  std::erase_if(m_toRead.lists, [&present](std::uint8_t number) { return !present[number]; });
}

/// A list leaves no watch on a node that is absent; a check for existence does.
void ServiceReader::AwaitService() {
  if (!m_ledger.Begin(m_service.read)) return;
  Submit(Request::Kind::Exists, m_path, true,
         [](ServiceReader& self, const Reply& reply) { self.OnServiceAwaited(reply); });
}

void ServiceReader::OnServiceAwaited(const Reply& reply) {
  const bool changed = !m_ledger.End(m_service.read);
  const ErrorAction action = ActionFor(reply.code);
  if (changed || action == ErrorAction::Done) return ReadService();
  if (action != ErrorAction::Absent) Fail(m_service.read, reply.code, m_path);
  FinishIfComplete();
}

void ServiceReader::ReadPartition(std::uint8_t number, Haste haste) {
  if (!m_ledger.Begin(m_partitions[number].list.read)) return;
  if (haste == Haste::Now) return SendPartitionRead(number);
  if (m_toRead.Empty()) m_core->AskTurn(weak_from_this());
  m_toRead.lists.push_back(number);
}

void ServiceReader::SendPartitionRead(std::uint8_t number) {
  Submit({.kind = Request::Kind::GetChildren,
          .path = PartitionPath(m_path, number),
          .watch = true,
          .alike = true},
         [number](ServiceReader& self, Reply& reply) { self.OnPartition(number, reply); });
  AskForNewest(number);
}

void ServiceReader::OnPartition(std::uint8_t number, Reply& reply) {
  Partition& partition = m_partitions[number];
  if (!m_ledger.End(partition.list.read)) return ReadPartition(number, Haste::Now);
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      OnPartitionListed(number, reply);
      break;
    case ErrorAction::Absent:  // the service's own child watch tells when it comes back
      TakeListing(partition.list, reply, PartitionPath(m_path, number));
      OnPartitionAbsent(number);
      break;
    default:
      Fail(partition.list.read, reply.code, PartitionPath(m_path, number));
  }
  FinishIfComplete();
}

void ServiceReader::OnPartitionListed(std::uint8_t number, const Reply& reply) {
  Partition& partition = m_partitions[number];
  const zr::String path = PartitionPath(m_path, number);
  if (IsOlder(partition.list, reply)) return Fail(partition.list.read, ZRUNTIMEINCONSISTENCY, path);
  TakeListing(partition.list, reply, path);
  const bool firstInEpoch = !std::exchange(partition.listed, true);
  ++partition.listing;
  for (const auto& name : reply.children) {
    const auto id = ParseServiceId(name);
    if (!id || PartitionOf(*id) != number) {
      LogOddName(path, name);
      continue;
    }
    const auto [entry, isNew] = partition.instances.try_emplace(*id);
    entry->second.listing = partition.listing;
    if (isNew || firstInEpoch) ReadInstance(*id, UsualHaste());
  }
  RemoveUnread(partition, [&partition](const Instance& one) { return one.listing != partition.listing; });
}

void ServiceReader::OnPartitionAbsent(std::uint8_t number) {
  Partition& partition = m_partitions[number];
  m_ledger.Clean(partition.list.read);
  partition.listed = false;
  RemoveUnread(partition, [](const Instance&) { return true; });
}

/// One that is being read answers for itself.
void ServiceReader::RemoveUnread(Partition& partition, const std::function<bool(const Instance&)>& isGone) {
  std::vector<ServiceId> gone;
  for (const auto& [id, instance] : partition.instances) {
    if (!instance.read.reading && isGone(instance)) gone.push_back(id);
  }
  for (const auto& id : gone) RemoveInstance(id);
}

void ServiceReader::ReadInstance(const ServiceId& id, Haste haste) {
  if (!m_ledger.Begin(m_partitions[PartitionOf(id)].instances[id].read)) return;
  if (haste == Haste::Now) return SendInstanceRead(id);
  if (m_toRead.Empty()) m_core->AskTurn(weak_from_this());
  m_toRead.instances.push_back(id);
}

void ServiceReader::SendInstanceRead(const ServiceId& id) {
  Submit({.kind = Request::Kind::Get, .path = InstancePath(m_path, id), .watch = true, .alike = true},
         [id](ServiceReader& self, Reply& reply) { self.OnInstance(id, reply); });
}

void ServiceReader::OnInstance(const ServiceId& id, Reply& reply) {
  ReadState& state = m_partitions[PartitionOf(id)].instances[id].read;
  if (!m_ledger.End(state)) return ReadInstance(id, Haste::Now);
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      state.toldRefused = false;
      OnInstanceData(id, reply);
      break;
    case ErrorAction::Absent:
      RemoveInstance(id);
      break;
    default:
      Fail(state, reply.code, InstancePath(m_path, id), true);
  }
  FinishIfComplete();
}

void ServiceReader::OnInstanceData(const ServiceId& id, const Reply& reply) {
  const NodeVersion version{reply.stat.czxid, reply.stat.mzxid};
  DecodedNode decoded = DecodeNode(reply.value);
  const bool good = decoded.payload.has_value();
  const bool force = m_trust == Trust::Proven;
  const auto outcome = good ? m_delivery->Put(id, version, std::move(*decoded.payload), force)
                            : m_delivery->Quarantine(id, version, force);
  if (outcome == InstanceTable::Outcome::Older) {
    m_trust = Trust::Doubtful;
    return Fail(m_partitions[PartitionOf(id)].instances[id].read, ZRUNTIMEINCONSISTENCY,
                InstancePath(m_path, id));
  }
  if (!good && outcome == InstanceTable::Outcome::Changed) {
    ZRLOG(ZRLOG_WARNING, WatcherLog())
        << "node quarantined: " << decoded.error << ", dc_name=" << m_core->DataCenterName()
        << ", path=" << InstancePath(m_path, id);
    m_delivery->ReportError(ZMARSHALLINGERROR);
  }
}

/// Evidence is in that the node is gone.
void ServiceReader::RemoveInstance(const ServiceId& id) {
  auto& instances = m_partitions[PartitionOf(id)].instances;
  const auto instance = instances.find(id);
  if (instance != instances.end()) {
    m_ledger.Clean(instance->second.read);
    instances.erase(instance);
  }
  m_delivery->Remove(id);
}

bool ServiceReader::IsOlder(const List& list, const Reply& reply) {
  if (reply.stat.pzxid >= list.pzxid || m_trust == Trust::Proven) return false;
  m_trust = Trust::Doubtful;
  return true;
}

/// The node stays dirty until it is read again: after a reconnect, or a back-off. Single instances that are
/// refused hold nothing up; everything else that cannot be read does.
void ServiceReader::Fail(ReadState& state, int code, const zr::String& path, bool ofInstance) {
  const bool refused = ActionFor(code) == ErrorAction::Report;
  m_ledger.Fail(state, refused && ofInstance);
  if (!refused || !ofInstance) m_delivery->MarkStale();
  const bool told = refused && std::exchange(state.toldRefused, true);
  if (ActionFor(code) != ErrorAction::AwaitSession && !told) {
    ZRLOG(ZRLOG_WARNING, WatcherLog()) << "read failed, error=" << zerror(code)
                                       << ", dc_name=" << m_core->DataCenterName() << ", path=" << path;
  }
  if (refused) m_delivery->ReportError(code);
  ScheduleRetry(refused ? m_refusedRetry : m_retry);
}

/// `retry` is one of this object's own: the timer refers to it.
void ServiceReader::ScheduleRetry(Retry& retry) {
  if (retry.scheduled) return;
  m_core->PostAfter(
      std::max<Clock::duration>(retry.backoff.Next(), m_core->Trip()), [weak = weak_from_this(), &retry] {
        const auto self = weak.lock();
        if (!self) return;
        retry.scheduled = false;
        if (&retry == &self->m_refusedRetry && self->m_ledger.Dirty() != 0) {
          ZRLOG(ZRLOG_WARNING, WatcherLog())
              << "nodes that could not be read are asked for again, nodes=" << self->m_ledger.Dirty()
              << ", dc_name=" << self->m_core->DataCenterName() << ", path=" << self->m_path;
        }
        // Reads the dirty nodes; without a connection, the next reconnect does.
        self->Guarded([&] { self->Sync(); });
      });
  retry.scheduled = true;
}

void ServiceReader::FinishIfComplete() {
  if (!IsAtRest()) return;
  m_retry.backoff.Reset();
  if (m_ledger.Dirty() == 0) m_refusedRetry.backoff.Reset();
  m_delivery->DropUnlisted(
      [this](const ServiceId& id) { return m_partitions[PartitionOf(id)].instances.contains(id); });
  m_delivery->MarkLive(std::exchange(m_fullRead, false));
}

void ServiceReader::LogOddName(zr::String path, const zr::String& name) {
  path += '/';
  path += name;
  if (m_oddNames.size() >= kMaxOddNames || !m_oddNames.insert(path).second) return;
  ZRLOG(ZRLOG_WARNING, WatcherLog()) << "node ignored, it is no instance, dc_name="
                                     << m_core->DataCenterName() << ", path=" << path;
}

}  // namespace zr::halden::details
