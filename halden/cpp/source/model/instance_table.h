// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "halden/instance_change.h"
#include "halden/service_id.h"

namespace zr::halden::details {

/// A node's identity and age: another czxid is another node of the same name, a higher mzxid a newer value.
/// (A node's version number starts anew with each node and says nothing here.)
struct NodeVersion {
  std::int64_t czxid = 0;
  std::int64_t mzxid = 0;

  bool operator==(const NodeVersion&) const = default;
};

/// An instance as a snapshot keeps it.
struct KeptInstance {
  ServiceId id{};
  NodeVersion version;  ///< that the payload is of
  std::string payload;
};

/// From what was announced to what is known; `announced` null, `known` null: there was, there is no instance.
/// At most two: a node that was deleted and created again is removed, then added.
std::vector<InstanceChange> Diff(const NodeVersion* announced, const NodeVersion* known);

/// One service's instances in one data centre, in two views: what is known, and what has been announced to
/// observers. Changes wait, once for each instance, until they are taken; what overtakes itself is merged, so
/// that memory is bounded by the number of instances. Data is kept as the bytes it was read as: parsed it
/// takes three times the memory. Not thread-safe: its owner locks.
class InstanceTable {
 public:
  enum class Outcome : std::uint8_t { Changed, Unchanged, Older };

  struct Change {
    ServiceId id{};
    std::vector<InstanceChange> kinds;
    std::string payload;   ///< empty when the last kind is Removed
    NodeVersion before{};  ///< what was announced until then; zero for nothing
  };

  /// A node was read. `Older` and nothing done when something newer is known already, unless `force`.
  Outcome Put(const ServiceId& id, const NodeVersion& version, std::string payload, bool force);
  /// A node was read and its payload is bad: the last good value of the same node stays. `Changed` when this
  /// version of it is new.
  Outcome Quarantine(const ServiceId& id, const NodeVersion& version, bool force);
  void Remove(const ServiceId& id);
  /// Was known to an earlier process; from here on as if it had been read. Nothing is done where the instance was read.
  void Restore(KeptInstance instance);
  /// What was restored and created before `czxid` is of nodes that are gone, or of another ensemble: whatever is read is
  /// then another node, and newer. What was read since stays as it is.
  void Disown(std::int64_t czxid);
  /// The node is gone and the instance stays for now, marked as held, until `Remove`, or a `Put` of any node
  /// of its name, which is then a modification or nothing new. False, and nothing done, for what is not known
  /// or has not been announced: there is nothing to keep then.
  bool Hold(const ServiceId& id);

  struct Instance {
    ServiceId id{};
    std::string payload;
    bool held = false;
  };
  std::vector<Instance> Copy() const;
  std::vector<ServiceId> List() const;
  std::vector<ServiceId> ListHeld() const;
  /// Null when the instance is not known.
  std::optional<std::string> Find(const ServiceId& id) const;
  /// Null when the instance is not known.
  std::optional<KeptInstance> Keep(const ServiceId& id) const;
  bool IsHeld(const ServiceId& id) const;
  /// The newest version read; zero when there is none.
  NodeVersion Seen(const ServiceId& id) const;
  std::size_t Size() const { return m_known.size(); }  ///< those held included
  std::size_t Held() const { return m_held; }
  std::size_t Quarantined() const { return m_quarantined; }
  /// Grows with each change of what is known.
  std::uint64_t Revision() const { return m_revision; }

  bool HasChanges() const { return !m_queue.empty(); }
  std::size_t Changes() const { return m_queue.size(); }  ///< each `Take` is one less
  /// Takes the oldest change and marks it announced; its kinds are empty when it undid itself meanwhile.
  Change Take();
  /// It could not be told after all: it waits again.
  void TakeBack(const Change& change);

 private:
  struct Entry {
    NodeVersion seen;            // newest version read, good or bad
    NodeVersion good;            // the version that `payload` is of
    NodeVersion announced;       // zero: not announced
    std::string payload;         // empty: not known
    std::uint32_t position = 0;  // in m_known, if known
    bool queued = false;
    bool quarantined = false;
    bool held = false;
    bool restored = false;  // and not read since
  };
  using EntryMap = std::unordered_map<ServiceId, Entry, ServiceIdHash>;

  static bool IsOlder(const Entry& entry, const NodeVersion& version);
  static void Rejoin(Entry& entry, const NodeVersion& version, const std::string& payload);
  void SetPayload(const ServiceId& id, Entry& entry, std::string payload);
  void SetHeld(Entry& entry, bool held);
  void SetQuarantined(Entry& entry, bool quarantined);
  void Queue(const ServiceId& id, Entry& entry);

  EntryMap m_entries;
  std::vector<ServiceId> m_known;  // side by side: to gather them from the entries takes twenty times as long
  std::deque<ServiceId> m_queue;   // of entries with `queued` set
  std::size_t m_quarantined = 0;
  std::size_t m_held = 0;
  std::uint64_t m_revision = 0;
};

}  // namespace zr::halden::details
