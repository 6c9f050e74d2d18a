// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "snapshot/snapshot_keeper.h"

#include <algorithm>
#include <filesystem>
#include <future>
#include <system_error>
#include <utility>

#include "base/log_sources.h"
#include "base/wait_limit.h"
#include "snapshot/snapshot_file.h"

namespace zr::halden::details {

namespace {

constexpr std::chrono::seconds kFirstAfter{1};
constexpr std::chrono::seconds kEvery{5};
// While nothing changes a file says that its list was true at most so long ago.
constexpr std::chrono::minutes kConfirmEvery{5};
constexpr std::chrono::minutes kAfterFailure{1};

/// Programs change their working directory.
std::string Absolute(const std::string& folder) {
  std::error_code error;
  auto path = std::filesystem::absolute(folder, error);
  return error ? folder : path.string();
}

}  // namespace

SnapshotKeeper::SnapshotKeeper(const std::string& folder, zr::String service, std::chrono::seconds maxAge)
    : m_place(std::make_shared<const Place>(Place{Absolute(folder), std::move(service), maxAge})) {}

SnapshotKeeper::~SnapshotKeeper() {
  TaskThread::RunGuarded([this] { Retain({}); });
}

void SnapshotKeeper::ReadAhead(const std::vector<zr::String>& dcNames) {
  for (const auto& dcName : dcNames) {
    auto snapshot = m_place->Read(dcName);
    const zr::MutexLock lock(m_mtx);
    m_readAhead.insert_or_assign(dcName, std::move(snapshot));
  }
}

void SnapshotKeeper::Add(const std::shared_ptr<ServiceWatcher>& watcher,
                         std::shared_ptr<WatcherDelivery> delivery) {
  const zr::String& dcName = watcher->DataCenterName();
  if (dcName.empty()) return;  // all connections without one would share a file
  std::optional<ServiceSnapshot> snapshot;
  bool wasRead = false;
  {
    const zr::MutexLock lock(m_mtx);
    const bool isThere = std::any_of(m_kept.begin(), m_kept.end(),
                                     [&](const auto& kept) { return kept->delivery == delivery; });
    if (isThere) return;
    m_kept.push_back(std::make_shared<Kept>(Kept{dcName, watcher, delivery}));
    if (auto ahead = m_readAhead.extract(dcName)) {
      snapshot = std::move(ahead.mapped());
      wasRead = true;
    }
  }
  if (!wasRead && !delivery->ToKeep()) snapshot = m_place->Read(dcName);
  if (snapshot) {
    const auto count = snapshot->instances.size();
    const auto asOf = snapshot->asOf;
    if (delivery->Restore({snapshot->serviceCzxid, asOf}, std::move(snapshot->instances))) {
      const auto age = std::chrono::duration_cast<std::chrono::seconds>(TimeOfDay() - asOf);
      ZRLOG(ZRLOG_INFO, SnapshotLog())
          << "instances restored, dc_name=" << dcName << ", instances=" << count << ", age_s=" << age.count();
    }
  }
  TaskThread::RunGuarded([this] { LookAfter(kFirstAfter); });
}

void SnapshotKeeper::Retain(const std::vector<std::shared_ptr<ServiceWatcher>>& watchers) {
  std::vector<KeptPtr> gone;
  {
    const zr::MutexLock lock(m_mtx);
    const auto stays = [&](const KeptPtr& kept) {
      return std::find(watchers.begin(), watchers.end(), kept->watcher.lock()) != watchers.end();
    };
    const auto end = std::partition(m_kept.begin(), m_kept.end(), stays);
    gone.assign(end, m_kept.end());
    m_kept.erase(end, m_kept.end());
  }
  if (gone.empty()) return;
  m_thread.Post([place = m_place, gone] { WriteAll(*place, gone, true); });
}

bool SnapshotKeeper::Flush(std::chrono::milliseconds limit) {
  std::vector<KeptPtr> all;
  {
    const zr::MutexLock lock(m_mtx);
    all = m_kept;
  }
  const auto done = std::make_shared<std::promise<void>>();
  m_thread.Post([place = m_place, all, done] {
    WriteAll(*place, all, true);
    done->set_value();
  });
  return done->get_future().wait_for(WaitLimit(limit)) == std::future_status::ready;
}

void SnapshotKeeper::WriteAll(const Place& place, const std::vector<KeptPtr>& all, bool atEnd) {
  for (const auto& kept : all) TaskThread::RunGuarded([&] { place.WriteIfDue(*kept, atEnd); });
}

void SnapshotKeeper::LookAfter(Clock::duration delay) {
  {
    const zr::MutexLock lock(m_mtx);
    if (std::exchange(m_looking, true)) return;
  }
  try {
    m_thread.PostAfter(delay, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->Look();
    });
  } catch (...) {
    const zr::MutexLock lock(m_mtx);
    m_looking = false;
    throw;
  }
}

void SnapshotKeeper::Look() {
  std::vector<KeptPtr> all;
  {
    const zr::MutexLock lock(m_mtx);
    m_looking = false;
    all = m_kept;
  }
  LookAfter(kEvery);  // first: whatever fails below is looked at again
  WriteAll(*m_place, all, false);
}

std::optional<ServiceSnapshot> SnapshotKeeper::Place::Read(const zr::String& dcName) const {
  if (dcName.empty()) return std::nullopt;
  auto read = ReadSnapshotFile(folder, service, dcName, {TimeOfDay(), maxAge});
  if (!read.error.empty()) {
    ZRLOG(ZRLOG_WARNING, SnapshotLog())
        << "snapshot not used: " << read.error << ", dc_name=" << dcName << ", folder=" << folder
        << ", file=" << SnapshotFileName(service, dcName);
  }
  return std::move(read.snapshot);
}

void SnapshotKeeper::Place::WriteIfDue(Kept& kept, bool atEnd) const {
  const auto now = kept.delivery->ToKeep();
  if (!now) return;
  const bool changed = !kept.written || kept.written->revision != now->revision ||
                       kept.written->service.serviceCzxid != now->service.serviceCzxid;
  if (!changed) {  // less than nothing: the clock was set back, and the file says a time that is yet to come
    const auto unconfirmed = now->service.asOf - kept.written->service.asOf;
    const std::chrono::seconds allowed = atEnd ? std::chrono::seconds(1) : kConfirmEvery;
    if (unconfirmed >= std::chrono::seconds(0) && unconfirmed < allowed) return;
  }
  if (!atEnd && kept.retryAt && Clock::now() < *kept.retryAt) return;
  Write(kept, *now);
}

void SnapshotKeeper::Place::Write(Kept& kept, const WatcherDelivery::Keepable& now) const {
  auto instances = kept.delivery->CopyInstances();
  const auto after = kept.delivery->ToKeep();  // it may have been lost, and read anew, while they were copied
  if (!after || after->service.serviceCzxid != now.service.serviceCzxid) return;
  const auto result = WriteSnapshotFile(
      folder, {service, kept.dcName, now.service.serviceCzxid, now.service.asOf, std::move(instances)});
  if (result.outcome == SnapshotWritten::Outcome::Busy) return;
  if (result.outcome != SnapshotWritten::Outcome::Failed) {
    kept.written = now;
    kept.retryAt.reset();
    if (!std::exchange(kept.failing, false)) return;
    ZRLOG(ZRLOG_INFO, SnapshotLog()) << "snapshot written again, dc_name=" << kept.dcName
                                     << ", folder=" << folder;
    return;
  }
  kept.delivery->CountSnapshotError();
  kept.retryAt = Clock::now() + kAfterFailure;
  if (std::exchange(kept.failing, true)) return;
  ZRLOG(ZRLOG_WARNING, SnapshotLog())
      << "snapshot not written: " << result.error << ", dc_name=" << kept.dcName << ", folder=" << folder
      << ", file=" << SnapshotFileName(service, kept.dcName);
}

}  // namespace zr::halden::details
