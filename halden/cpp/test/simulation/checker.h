// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "halden/event_queue.h"
#include "halden/service_watcher.h"
#include "simulation/ensemble.h"

namespace zr::halden::simulation {

using Key = std::pair<zr::String, ServiceId>;   ///< data centre and instance
using View = std::map<ServiceId, std::string>;  ///< hosts of instances

/// Of one data centre.
inline View ViewOf(const std::map<Key, std::string>& hosts, const zr::String& dcName) {
  View view;
  for (const auto& [key, host] : hosts) {
    if (key.first == dcName) view[key.second] = host;
  }
  return view;
}

/// An observer that holds each event against the rules and against the committed history of the ensembles:
/// added, modified any number of times, removed, each once; what is added or modified to was once so, and not before
/// what was told already; what is removed was deleted, or its ensemble was set up anew. An instance's hosts tell its
/// incarnations apart; where several fit the earliest counts, which was deleted first.
struct Checker : ServiceWatcherObserver {
  using HistoryFunction = std::function<const std::vector<Incarnation>&(const Key& key)>;
  Checker(std::string itsName, HistoryFunction itsHistory)
      : name(std::move(itsName)), historyOf(std::move(itsHistory)) {}

  void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& id,
                       const ServiceInstanceData& data) override {
    const Key key = Begin("added", watcher, id, false, data.host());
    const auto& history = historyOf(key);
    auto& i = incarnations[key];
    while (i < history.size() && !history[i].hosts.contains(data.host())) ++i;
    if (i >= history.size()) Object("added, although it was never so since the last removal", key);
    hosts[key] = data.host();
    if (!watcher.AwaitSynchronized(0ms)) ofFirstRead.insert(key);
  }

  void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& id,
                          const ServiceInstanceData& data) override {
    const Key key = Begin("modified", watcher, id, true, data.host());
    const auto& history = historyOf(key);
    const bool mayMerge = world->faults[Fault::Guard] || world->faults[Fault::Anew];  // pass over a deletion
    bool merged = false;  // from one incarnation to another
    auto& i = incarnations[key];
    for (; i < history.size(); ++i) {
      if (!history[i].hosts.contains(data.host())) continue;
      if (mayMerge || history[i].hosts.contains(hosts[key])) break;
      merged = true;
    }
    if (i >= history.size())
      Object(merged ? "modified, although it was deleted between" : "modified to what it never was", key);
    hosts[key] = data.host();
  }

  void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& id) override {
    const Key key = Begin("removed", watcher, id, true, "");
    const auto& history = historyOf(key);
    const auto i = incarnations[key]++;
    if (i < history.size() && !history[i].deleted) Object("removed, and nobody deleted it", key);
    hosts.erase(key);
    ofFirstRead.erase(key);
  }

  /// What comes next is told by a new watcher, of which nothing is known.
  void Forget(const zr::String& dcName) {
    std::erase_if(hosts, [&](const auto& entry) { return entry.first.first == dcName; });
    std::erase_if(incarnations, [&](const auto& entry) { return entry.first.first == dcName; });
    std::erase_if(ofFirstRead, [&](const auto& key) { return key.first == dcName; });
  }

  Key Begin(const char* what, ServiceWatcher& watcher, const ServiceId& id, bool known,
            const zr::String& host) {
    const Key key(watcher.DataCenterName(), id);
    world->Note("%s: %s %s %s", name.c_str(), what, ToString(id).substr(0, 8).c_str(), host.c_str());
    if (watcher.AwaitDelivered(0ms)) Object("is told, although all is said to have been", key);
    if (hosts.contains(key) != known) Object(known ? "not known, and not added" : "added twice", key);
    return key;
  }

  void Object(const char* why, const Key& key) const {
    world->Violation(name + ": " + key.first + "/" + ToString(key.second) + ": " + why);
  }

  const std::string name;
  const HistoryFunction historyOf;
  std::map<Key, std::string> hosts;         ///< as told
  std::map<Key, std::size_t> incarnations;  ///< the earliest that it can be, or that can come next
  std::set<Key> ofFirstRead;                ///< told before all was read
};

/// What a consumer of an EventQueue knows.
struct Consumer {
  const std::map<Key, std::string>& Drain() {
    using Kind = ServiceEvent::Kind;
    for (const auto& event : queue->Drain()) {
      const Key key(event.dcName, event.id);
      if (!event.IsInstance()) freshness[event.dcName] = event.status.watcher.freshness;
      if (event.kind == Kind::Synchronized) synchronized.insert(event.dcName);
      if (!event.IsInstance()) continue;
      const bool late = synchronized.contains(event.dcName) && checker->ofFirstRead.contains(key);
      if (hosts.contains(key) == (event.kind == Kind::Added) || (event.kind == Kind::Added && late))
        world->Violation("event queue: " + std::string(ToString(event.kind)) + " " + ToString(event.id));
      hosts[key] = event.data.host();
      if (event.kind == Kind::Removed) hosts.erase(key);
    }
    return hosts;
  }

  std::shared_ptr<EventQueue> queue = std::make_shared<EventQueue>();
  std::shared_ptr<Checker> checker;
  std::map<Key, std::string> hosts;
  std::set<zr::String> synchronized;
  std::map<zr::String, Freshness> freshness;
};

/// Those who observe a watcher, and tell all there is of it.
struct Audience {
  Audience(const std::string& name, Checker::HistoryFunction history)
      : checker(std::make_shared<Checker>(name, std::move(history))) {
    consumer.checker = checker;
  }

  /// The data centre's next watcher knows nothing of the one before.
  void Forget(const zr::String& dcName) {
    consumer.Drain();
    consumer.synchronized.erase(dcName);
    checker->Forget(dcName);
  }

  void Observe(auto& watcher, const std::shared_ptr<ServiceWatcherObserver>& first,
               const std::shared_ptr<ServiceWatcherObserver>& last) {
    watcher.RegisterShared(checker);
    if (world->faults[Fault::ThrowFirst] && first) watcher.RegisterShared(first);
    watcher.RegisterShared(consumer.queue);
    watcher.RegisterShared(last);
  }

  static void Equip(auto& watcher, std::chrono::milliseconds guardFor) {
    watcher.SetAudit({20s, 40s});  // within the time that a view has to come right
    if (world->faults[Fault::Guard]) watcher.SetMassRemovalGuard(MassRemovalGuard{0.3, guardFor});
  }

  std::shared_ptr<Checker> checker;
  Consumer consumer;
};

}  // namespace zr::halden::simulation
