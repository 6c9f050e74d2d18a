// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/view/cursor.h"
#include "agent/view/filter.h"
#include "halden/data_center_status.h"
#include "halden/instance_data.h"
#include "halden/service_id.h"

namespace zr::halden::agent {

/// What a reader is told next.
struct Change {
  enum class Kind : std::uint8_t { Added, Modified, Removed, State, DataCenterRemoved };

  Kind kind = Kind::Added;
  std::string object;  ///< as in docs/json.md, with the service's name as second key
  /// A reader that has been told this and nothing later knows exactly what the view held at this revision, and can go on
  /// from it. Null in the middle of changes that only make sense together.
  std::optional<Revision> resumable;
};

/// What is known of one service in all data centres, merged, for readers of all speeds.
///
/// Every change of an instance or of a data centre's state gets the next revision; each is held once, at the revision
/// of its last change. A reader is a Cursor: `Next` gives it the oldest change that lies behind it, so what it misses
/// while it does not read is merged, and it costs a bit for each instance. What it is told is legal: of an instance
/// added, modified any number of times, removed; nothing twice, and in the end nothing is missing.
///
/// What is gone leaves a tombstone, of which the last 10,000 of the last ten minutes are kept. A cursor that they do
/// not reach has to begin anew (`IsTooOld`).
///
/// Threads: one. Errors: none but lack of memory.
class ServiceView {
 public:
  using Clock = std::chrono::steady_clock;
  using DataCenters = std::map<std::string, DataCenterStatus, std::less<>>;

  static constexpr std::size_t kMostTombstones = 10'000;
  static constexpr std::chrono::minutes kTombstoneAge{10};

  /// `epoch`: a text that no other view of the service has had: revisions count anew with each.
  ServiceView(std::string service, std::string epoch);

  ServiceView(const ServiceView&) = delete;
  ServiceView& operator=(const ServiceView&) = delete;

  // What followers tell

  /// Added or changed; nothing when it is known as it is. `data` also lifts that it is held.
  void Put(std::string_view dataCenter, const ServiceId& id, const ServiceInstanceData& data);
  void Remove(std::string_view dataCenter, const ServiceId& id, Clock::time_point now);
  /// Of the data centre's instances these are held, and no others.
  void SetHeld(std::string_view dataCenter, const std::vector<ServiceId>& held);
  /// The count of instances is the view's own, whatever `status` says.
  void SetState(DataCenterStatus status);
  /// The data centre is not followed any more: its instances are removed, and then itself.
  void RemoveDataCenter(std::string_view dataCenter, Clock::time_point now);

  // What is there

  const std::string& Service() const { return m_service; }
  const std::string& Epoch() const { return m_epoch; }
  Revision Head() const { return m_head; }
  /// The last change of an instance, of whether it is held, or of a data centre's freshness: what a list depends on.
  Revision ListRevision() const { return m_listRevision; }
  /// "<epoch>-<revision>"
  std::string Tag(Revision revision) const;
  /// The revision that a tag names; null for one of another epoch, or that was not given yet.
  std::optional<Revision> FromTag(std::string_view tag) const;

  const DataCenters& States() const { return m_states; }
  std::size_t Instances() const { return m_instances; }
  /// Every data centre was read once, and there is one. What was restored was not.
  bool WasRead() const;

  /// `{"service":...,"revision":...,"data_centers":[...],"instances":[...]}`; the same for the same `ListRevision`.
  std::string List(const Filter& filter) const;
  std::string StatusObject() const;
  /// The object of one instance; null when it is not known.
  std::optional<std::string> Instance(std::string_view dataCenter, const ServiceId& id) const;

  // Readers

  using Visitor =
      std::function<void(std::string_view dataCenter, const ServiceId& id, bool held, std::string_view text)>;
  /// Every instance, by data centre and id; `text`: its object's keys behind "held".
  void Visit(const Filter& filter, const Visitor& visitor) const;

  /// Of a reader that knows nothing.
  Cursor Begin() const;
  /// Of a reader that knows what there was at `revision`; null when that is too old.
  std::optional<Cursor> Resume(Revision revision) const;
  bool IsTooOld(const Cursor& cursor) const {
    return m_horizon > cursor.m_begun && cursor.m_position < m_horizon;
  }
  bool IsBehind(const Cursor& cursor) const { return cursor.m_position < m_head; }
  /// The next change, and the cursor behind it. Null when it has been told all.
  std::optional<Change> Next(Cursor& cursor) const;

 private:
  struct Item {
    const std::string* dataCenter = nullptr;  // in m_names
    std::optional<ServiceId> id;              // null for the data centre's state
    bool held = false;
    std::uint32_t slot = 0;
    Revision added = 0;
    std::string text;  // the object's keys behind "held", or, of a state, behind "type"
  };
  struct Tombstone {
    const std::string* dataCenter = nullptr;
    std::optional<ServiceId> id;
    std::uint32_t slot = 0;
    Revision added = 0;
    Revision removed = 0;
    Clock::time_point at;
  };
  using Order = std::map<Revision, Item>;  // by last change
  using Key = std::pair<std::string_view, std::optional<ServiceId>>;
  struct ByKey {
    using is_transparent = void;
    static Key KeyOf(Order::iterator item) { return {*item->second.dataCenter, item->second.id}; }
    static const Key& KeyOf(const Key& key) { return key; }
    bool operator()(const auto& a, const auto& b) const { return KeyOf(a) < KeyOf(b); }
  };
  /// By data centre and id; a data centre's state stands before its instances.
  using Index = std::set<Order::iterator, ByKey>;

  void Add(std::string_view dataCenter, const std::optional<ServiceId>& id, std::string text);
  void Touch(Index::iterator entry);
  void Bury(Index::iterator entry, Clock::time_point now);
  void DropTombstones(Clock::time_point now);
  void MoveList();
  void KeepListStates() const;
  std::uint32_t TakeSlot();
  std::deque<Tombstone>::const_iterator FirstTombstone(Revision behind) const;
  std::optional<Change> Tell(Cursor& cursor, const Tombstone& tombstone) const;
  Change Tell(Cursor& cursor, Revision revision, const Item& item) const;
  bool IsResumable(const Cursor& cursor) const;
  std::string Object(const Item& item, std::string_view service) const;

  const std::string m_service;
  const std::string m_epoch;
  const std::string m_serviceKey;  // `"service":"...",`

  Revision m_head = 0;
  Revision m_listRevision = 0;
  std::size_t m_instances = 0;
  std::set<std::string, std::less<>> m_names;  // only grows: tombstones refer to them
  DataCenters m_states;
  mutable std::string m_listStates;  // as they were at the list's revision: what has one tag must be one text
  mutable bool m_listMoved = true;   // and m_listStates is to be made anew
  Order m_order;
  Index m_index;
  std::deque<Tombstone> m_tombstones;  // by revision
  Revision m_horizon = 0;              // of the newest tombstone that was dropped
  std::vector<std::uint32_t> m_freeSlots;
  std::uint32_t m_slots = 0;
};

}  // namespace zr::halden::agent
