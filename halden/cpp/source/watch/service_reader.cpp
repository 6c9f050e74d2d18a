// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "watch/service_reader.h"

#include <utility>

#include "base/log_sources.h"
#include "error_policy.h"
#include "node_codec.h"

namespace zr::halden::details {

namespace {

// Refilled when half of it is answered: enough to keep a server busy meanwhile. What other watchers of the
// connection ask for waits behind it in line.
constexpr std::size_t kInstanceWindow = 480;
constexpr std::size_t kMaxOddNames = 1000;

}  // namespace

ServiceReader::ServiceReader(std::shared_ptr<ConnectionCore> core, const zr::String& service,
                             std::shared_ptr<WatcherDelivery> delivery)
    : m_core(std::move(core)), m_delivery(std::move(delivery)), m_path(ServicePath(service)) {}

void ServiceReader::Start(const Connection& conn) {
  m_watch = std::make_shared<Connection::WatchContext>(
      conn, [weak = weak_from_this()](int type, int /*state*/, const zr::String& path) {
        if (const auto self = weak.lock()) self->OnWatch(type, path);
      });
  m_core->Post([self = shared_from_this()] { self->m_core->AddListener(self); });
}

void ServiceReader::Stop() {
  if (m_watch) m_watch->Invalidate({});
}

void ServiceReader::OnConnected(bool newEpoch) {
  m_connected = true;
  if (newEpoch) {
    m_readAll = true;
    m_syncedOnce = false;
    m_trusting = false;
  }
  // Also after a reconnect: its answer comes behind the events of all that was missed meanwhile.
  Sync();
}

void ServiceReader::OnDisconnected(bool epochOver) {
  m_connected = false;
  m_delivery->MarkStale();
  if (epochOver) ForgetReads();
}

void ServiceReader::OnStateChanged() {
  m_delivery->ReportStatus();
}

void ServiceReader::OnSessionError(int code) {
  m_delivery->ReportError(code);
}

/// No answer and no event of the ended epoch will come; the next epoch reads everything.
void ServiceReader::ForgetReads() {
  m_service = {};
  for (Partition& partition : m_partitions) {
    partition.read = {};
    partition.listed = false;
    for (auto& [id, instance] : partition.instances) instance.read = {};
  }
  m_toRead.clear();
  m_instanceReads = 0;
  m_pending = 0;
  m_dirty = 0;
  m_refused = 0;
  m_syncing = false;
  m_fullRead = false;
}

void ServiceReader::OnWatch(int type, const zr::String& path) {
  if (!path.starts_with(m_path)) return;
  const std::string_view rest = std::string_view(path).substr(m_path.size());
  if (rest.empty()) return ReadService();
  const auto partition = ParsePartition(rest.substr(1, 2));
  if (!partition) return;
  if (rest.size() == 3) return ReadPartition(*partition);
  const auto id = ParseServiceId(rest.substr(4));
  if (!id) return;
  auto& instances = m_partitions[*partition].instances;
  const auto instance = instances.find(*id);
  if (instance == instances.end()) return;
  if (type == ZOO_DELETED_EVENT && !instance->second.read.reading) {
    RemoveInstance(*id);
    FinishIfComplete();
  } else {
    ReadInstance(*id);
  }
}

void ServiceReader::Sync() {
  if (m_syncing || !m_connected) return;
  m_syncing = true;
  Submit(Request::Kind::Sync, m_path, false,
         [](ServiceReader& self, const Reply& reply) { self.OnSync(reply); });
}

void ServiceReader::OnSync(const Reply& reply) {
  m_syncing = false;
  const ErrorAction action = ActionFor(reply.code);
  if (action == ErrorAction::AwaitSession || action == ErrorAction::Retry) return ScheduleRetry();
  m_trusting = m_syncedOnce;
  m_syncedOnce = true;
  if (m_readAll) {
    m_readAll = false;
    m_fullRead = true;
    ReadService();
  }
  ReadDirty();
  SendInstanceReads();  // what waited through a lost connection
  FinishIfComplete();
}

void ServiceReader::ReadDirty() {
  if (m_dirty == 0) return;
  if (m_service.dirty) ReadService();
  for (std::size_t i = 0; i < kPartitions && m_dirty != 0; ++i) {
    Partition& partition = m_partitions[i];
    if (partition.read.dirty) ReadPartition(static_cast<std::uint8_t>(i));
    for (const auto& [id, instance] : partition.instances) {
      if (instance.read.dirty) ReadInstance(id);
    }
  }
}

void ServiceReader::ReadService() {
  if (!Begin(m_service)) return;
  Submit(Request::Kind::GetChildren, m_path, true,
         [](ServiceReader& self, Reply& reply) { self.OnService(reply); });
}

void ServiceReader::OnService(Reply& reply) {
  if (!End(m_service)) return ReadService();
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      OnServiceListed(reply);
      break;
    case ErrorAction::Absent:
      for (std::size_t i = 0; i < kPartitions; ++i) OnPartitionAbsent(static_cast<std::uint8_t>(i));
      AwaitService();
      break;
    default:
      Fail(m_service, reply.code, m_path);
  }
  FinishIfComplete();
}

void ServiceReader::OnServiceListed(const Reply& reply) {
  if (reply.stat.pzxid < m_servicePzxid && !m_trusting) {
    return Fail(m_service, ZRUNTIMEINCONSISTENCY, m_path);
  }
  m_servicePzxid = reply.stat.pzxid;
  std::array<bool, kPartitions> present{};
  for (const auto& name : reply.children) {
    if (const auto number = ParsePartition(name)) {
      present[*number] = true;
    } else {
      LogOddName(m_path + "/" + name);
    }
  }
  for (std::size_t i = 0; i < kPartitions; ++i) {
    const auto number = static_cast<std::uint8_t>(i);
    if (!present[i]) {
      // One that is being read answers for itself: it may have been created since.
      if (!m_partitions[i].read.reading) OnPartitionAbsent(number);
    } else if (!m_partitions[i].listed) {
      ReadPartition(number);
    }
  }
}

/// A list leaves no watch on a node that is absent; a check for existence does.
void ServiceReader::AwaitService() {
  if (!Begin(m_service)) return;
  Submit(Request::Kind::Exists, m_path, true,
         [](ServiceReader& self, const Reply& reply) { self.OnServiceAwaited(reply); });
}

void ServiceReader::OnServiceAwaited(const Reply& reply) {
  const bool changed = !End(m_service);
  const ErrorAction action = ActionFor(reply.code);
  if (changed || action == ErrorAction::Done) return ReadService();
  if (action != ErrorAction::Absent) Fail(m_service, reply.code, m_path);
  FinishIfComplete();
}

void ServiceReader::ReadPartition(std::uint8_t number) {
  if (!Begin(m_partitions[number].read)) return;
  Submit(Request::Kind::GetChildren, PartitionPath(m_path, number), true,
         [number](ServiceReader& self, Reply& reply) { self.OnPartition(number, reply); });
}

void ServiceReader::OnPartition(std::uint8_t number, Reply& reply) {
  Partition& partition = m_partitions[number];
  if (!End(partition.read)) return ReadPartition(number);
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      OnPartitionListed(number, reply);
      break;
    case ErrorAction::Absent:  // the service's own child watch tells when it comes back
      OnPartitionAbsent(number);
      break;
    default:
      Fail(partition.read, reply.code, PartitionPath(m_path, number));
  }
  FinishIfComplete();
}

void ServiceReader::OnPartitionListed(std::uint8_t number, const Reply& reply) {
  Partition& partition = m_partitions[number];
  if (reply.stat.pzxid < partition.pzxid && !m_trusting) {
    return Fail(partition.read, ZRUNTIMEINCONSISTENCY, PartitionPath(m_path, number));
  }
  const bool firstInEpoch = !std::exchange(partition.listed, true);
  partition.pzxid = reply.stat.pzxid;
  ++partition.listing;
  for (const auto& name : reply.children) {
    const auto id = ParseServiceId(name);
    if (!id || PartitionOf(*id) != number) {
      LogOddName(PartitionPath(m_path, number) + "/" + name);
      continue;
    }
    const auto [entry, isNew] = partition.instances.try_emplace(*id);
    entry->second.listing = partition.listing;
    if (isNew || firstInEpoch) ReadInstance(*id);
  }
  std::vector<ServiceId> gone;
  for (const auto& [id, instance] : partition.instances) {
    // One that is being read answers for itself.
    if (instance.listing != partition.listing && !instance.read.reading) gone.push_back(id);
  }
  for (const auto& id : gone) RemoveInstance(id);
}

void ServiceReader::OnPartitionAbsent(std::uint8_t number) {
  Partition& partition = m_partitions[number];
  partition.listed = false;
  std::vector<ServiceId> gone;
  for (const auto& [id, instance] : partition.instances) {
    if (!instance.read.reading) gone.push_back(id);
  }
  for (const auto& id : gone) RemoveInstance(id);
}

void ServiceReader::ReadInstance(const ServiceId& id) {
  if (!Begin(m_partitions[PartitionOf(id)].instances[id].read)) return;
  m_toRead.push_back(id);
  SendInstanceReads();
}

/// By the half window, so that requests, answers and the threads' waking up come in batches too.
void ServiceReader::SendInstanceReads() {
  if (m_instanceReads > kInstanceWindow / 2) return;
  while (m_connected && !m_toRead.empty() && m_instanceReads < kInstanceWindow) {
    const ServiceId id = m_toRead.front();
    m_toRead.pop_front();
    ++m_instanceReads;
    Submit(Request::Kind::Get, InstancePath(m_path, id), true,
           [id](ServiceReader& self, Reply& reply) { self.OnInstance(id, reply); });
  }
}

void ServiceReader::OnInstance(const ServiceId& id, Reply& reply) {
  --m_instanceReads;
  ReadState& state = m_partitions[PartitionOf(id)].instances[id].read;
  if (!End(state)) return ReadInstance(id);
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      OnInstanceData(id, reply);
      break;
    case ErrorAction::Absent:
      RemoveInstance(id);
      break;
    case ErrorAction::Report:
      state.refused = true;
      ++m_refused;
      [[fallthrough]];
    default:
      Fail(state, reply.code, InstancePath(m_path, id));
  }
  SendInstanceReads();
  FinishIfComplete();
}

void ServiceReader::OnInstanceData(const ServiceId& id, const Reply& reply) {
  const NodeVersion version{reply.stat.czxid, reply.stat.mzxid};
  DecodedNode decoded = DecodeNode(reply.value);
  const bool good = decoded.payload.has_value();
  const auto outcome = good ? m_delivery->Put(id, version, std::move(*decoded.payload), m_trusting)
                            : m_delivery->Quarantine(id, version, m_trusting);
  if (outcome == InstanceTable::Outcome::Older) {
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
    Clean(instance->second.read);
    instances.erase(instance);
  }
  m_delivery->Remove(id);
}

/// True when the node is to be read now; a read under way is told to be followed by another.
bool ServiceReader::Begin(ReadState& state) {
  if (state.reading) {
    state.again = true;
    return false;
  }
  Clean(state);
  state.reading = true;
  ++m_pending;
  return true;
}

/// False when the node has changed since the read began: the answer may be outdated.
bool ServiceReader::End(ReadState& state) {
  state.reading = false;
  --m_pending;
  return !std::exchange(state.again, false);
}

void ServiceReader::Clean(ReadState& state) {
  if (std::exchange(state.dirty, false)) --m_dirty;
  if (std::exchange(state.refused, false)) --m_refused;
}

/// The node stays dirty until it is read again: after a reconnect, or a back-off.
void ServiceReader::Fail(ReadState& state, int code, const zr::String& path) {
  if (!std::exchange(state.dirty, true)) ++m_dirty;
  if (ActionFor(code) != ErrorAction::AwaitSession) {
    ZRLOG(ZRLOG_WARNING, WatcherLog()) << "read failed, error=" << zerror(code)
                                       << ", dc_name=" << m_core->DataCenterName() << ", path=" << path;
  }
  if (ActionFor(code) == ErrorAction::Report) {
    m_delivery->ReportError(code);
    ScheduleRetry(m_refusedBackoff, m_refusedRetryScheduled);
  } else {
    ScheduleRetry();
  }
}

/// `backoff` and `scheduled` are members.
void ServiceReader::ScheduleRetry(Backoff& backoff, bool& scheduled) {
  if (std::exchange(scheduled, true)) return;
  m_core->PostAfter(backoff.Next(), [weak = weak_from_this(), &scheduled] {
    const auto self = weak.lock();
    if (!self) return;
    scheduled = false;
    self->Sync();  // reads the dirty nodes; without a connection, the next reconnect does
  });
}

void ServiceReader::FinishIfComplete() {
  if (!m_connected || m_syncing || m_readAll || m_pending != 0) return;
  if (m_dirty != m_refused) return;
  m_backoff.Reset();
  if (m_dirty == 0) m_refusedBackoff.Reset();
  m_delivery->MarkLive(std::exchange(m_fullRead, false));
}

void ServiceReader::LogOddName(const zr::String& path) {
  if (m_oddNames.size() >= kMaxOddNames || !m_oddNames.insert(path).second) return;
  ZRLOG(ZRLOG_WARNING, WatcherLog()) << "node ignored, it is no instance, dc_name="
                                     << m_core->DataCenterName() << ", path=" << path;
}

}  // namespace zr::halden::details
