// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "commands/hints.h"
#include "ensemble/configuration.h"
#include "ensemble/reachability.h"
#include "halden/connection_v2.h"
#include "halden/service_publisher.h"
#include "io/failure.h"
#include "io/signals.h"
#include "logger/sink.h"
#include "model/access_list.h"
#include "model/connect_string.h"
#include "model/error_policy.h"
#include "model/layout.h"
#include "render/json.h"

namespace zr::halden::tool {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kSessionTimeout{30};
/// For removing instances and then for closing the session; past it the servers end that by themselves.
constexpr std::chrono::seconds kClosingLimit{3};

/// Where to publish.
struct Target {
  zr::String ensemble;
  std::shared_ptr<Connection> conn;
};

Target MakeTarget(const PublishOptions& options) {
  const auto ensembles = LoadEnsembles(options.configPath, options.quiet, options.dataCenters);
  const auto& [name, ensemble] = *ensembles.begin();
  if (details::NeedsCredential(details::ParseAccessList(options.acl).value) &&
      details::ParseConnectString(ensemble).value.authFile.empty()) {
    throw Failure(kWrongUsage, fmt::format("bad --acl '{}': {} gives data centre {} no auth_file",
                                           options.acl, options.configPath, name));
  }
  return {ensemble,
          std::make_shared<Connection>(std::vector{ensemble}, true, zr::String(), kSessionTimeout, name)};
}

/// The instances of one process, all through one connection, and what was told of them.
class Instances {
 public:
  Instances(const PublishOptions& options, const std::shared_ptr<Connection>& conn)
      : m_options(options), m_dataCenter(conn->DataCenterName()) {
    for (unsigned i = 0; i < options.count.value_or(1); ++i) {
      ServiceInstanceData data = options.instance;
      if (options.count) {
        auto& attribute = *data.add_attributes();
        attribute.set_key(std::string(kIndexAttribute));
        attribute.set_value(std::to_string(i));
      }
      const ServiceId id = options.id.value_or(MakeServiceId());
      auto publisher = std::make_unique<ServicePublisher>(conn, options.service, id, options.acl);
      publisher->Publish(data);
      m_instances.push_back({std::move(data), std::move(publisher)});
    }
  }

  bool AllPrinted() const { return m_printed == m_instances.size(); }

  /// Prints the ids of those that are published for sure, in the order of their index, and tells on stderr, once, what
  /// is in the way of the others.
  void Tell(LineWriter& output) {
    for (std::size_t i = 0; i < m_instances.size(); ++i) {
      TellRivals(m_instances[i], i < m_printed);
      TellError(m_instances[i]);
    }
    for (; !AllPrinted() && IsSure(m_instances[m_printed]); ++m_printed) {
      const ServiceId& id = m_instances[m_printed].publisher->Id();
      output.Write(m_options.json ? PublishedLine(m_dataCenter, id) : ToString(id) + '\n');
    }
    if (AllPrinted()) m_errors.clear();
  }

  /// Of the first that is not printed, while connected.
  std::string WhyNotPublished() const {
    const auto& publisher = *m_instances.at(m_printed).publisher;
    const PublisherStatus status = publisher.Status();
    const std::string id = ToString(publisher.Id());
    if (status.state == PublishState::Conflict) return fmt::format("{} is published by {}", id, status.rival);
    if (status.state == PublishState::Published)
      return fmt::format("{} took the place of a node of {}, who may live", id, status.replacedWriter);
    return status.lastError == 0 ? id + " is not confirmed yet" : ErrorText(publisher.Id(), status.lastError);
  }

  void SetStatus(messaging::halden::StatusExt status) {
    for (auto& instance : m_instances) {
      instance.data.set_status_ext(status);
      instance.publisher->Publish(instance.data);
    }
  }

  /// False when not all are confirmed to be gone by then.
  bool Remove(steady_clock::time_point deadline) {
    for (const auto& instance : m_instances) instance.publisher->Remove();
    return std::all_of(m_instances.begin(), m_instances.end(), [&](const Instance& instance) {
      const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
      return instance.publisher->AwaitAbsent(std::max(left, milliseconds(0)));
    });
  }

 private:
  struct Instance {
    ServiceInstanceData data;
    std::unique_ptr<ServicePublisher> publisher;
    PublisherStatus status{};                // at the last look
    PublisherStatus whole{};                 // when it was published last
    steady_clock::time_point standsSince{};  // in the place of the last node of others
    std::string rivalTold{};
  };

  /// Who has replaced a node knows only after a while whether somebody takes it back.
  static bool IsSure(const Instance& instance) {
    constexpr std::chrono::seconds takenBackBy{2};
    if (instance.status.state != PublishState::Published) return false;
    return instance.status.replaced == 0 || steady_clock::now() - instance.standsSince > takenBackBy;
  }

  /// Looks at it anew.
  static void TellRivals(Instance& instance, bool wasPrinted) {
    const std::uint64_t replacedBefore = instance.status.replaced;
    const bool wasConflict = instance.status.state == PublishState::Conflict;
    const PublisherStatus& status = instance.status = instance.publisher->Status();
    if (status.replaced != replacedBefore || status.state != PublishState::Published)
      instance.standsSince = steady_clock::now();
    if (wasConflict && status.state != PublishState::Conflict)
      instance.rivalTold.clear();  // the next is another one
    std::string told;
    if (status.state == PublishState::Conflict) {
      told = "published by another process, waiting for its end: " + status.rival;
    } else if (status.state == PublishState::Published) {  // again
      if (wasPrinted && status.undone != instance.whole.undone) {
        told = status.replaced == instance.whole.replaced
                   ? "another process has changed or deleted its node, published again"
                   : "another process publishes it too, and was replaced: " + status.replacedWriter;
      }
      instance.whole = status;
    }
    if (told.empty() || told == instance.rivalTold) return;
    instance.rivalTold = told;
    Complain(ToString(instance.publisher->Id()) + ": " + told);
  }

  /// Each kind once, of whichever instance it comes first.
  void TellError(const Instance& instance) {
    const int error = instance.status.lastError;
    if (instance.status.state == PublishState::Published) return;
    if (details::ActionFor(error) != details::ErrorAction::Report || !m_errors.insert(error).second) return;
    Complain(fmt::format("{}: {}, trying again", m_dataCenter, ErrorText(instance.publisher->Id(), error)));
  }

  std::string ErrorText(const ServiceId& id, int error) const {
    const auto path = details::InstancePath(details::ServicePath(m_options.service), id);
    const char* const where = error == ZNOAUTH ? " (its ACL, or that of a node above it, forbids it)" : "";
    return fmt::format("cannot write {}: {}{}", path, zerror(error), where);
  }

  const PublishOptions& m_options;
  const std::string m_dataCenter;
  std::vector<Instance> m_instances;
  std::size_t m_printed = 0;
  std::set<int> m_errors;  // told, since all were published last
};

/// Tells on stderr of each time without a connection, once it has lasted for longer than a change of servers takes.
class Outage {
 public:
  Outage(const Connection& conn, const zr::String& ensemble) : m_conn(conn), m_ensemble(ensemble) {}

  void Look() {
    constexpr std::chrono::seconds usual{3};
    const auto now = steady_clock::now();
    const ConnectionStatus status = m_conn.Status();
    if (status.state == ConnectionState::Connected) {
      m_since = now;
      if (std::exchange(m_told, false)) Complain(m_conn.DataCenterName() + ": connected again");
    } else if (!m_told && now - m_since >= usual) {
      m_told = true;
      Complain(fmt::format("{}: {}: {}", m_conn.DataCenterName(),
                           status.sessions == 0
                               ? "not published yet"
                               : "connection lost, the instances stay until the session times out",
                           WhyUnread({{}, status, {}}, m_ensemble)));
    }
  }

 private:
  const Connection& m_conn;
  const zr::String m_ensemble;
  steady_clock::time_point m_since = steady_clock::now();
  bool m_told = false;
};

/// Throws Failure when not all are published in the time that was given.
void ServeUntilEnd(Instances& instances, const PublishOptions& options, const Target& target,
                   const SignalSet& statusSignals, LineWriter& output) {
  constexpr milliseconds interval{50};  // until all are published
  constexpr milliseconds idle{500};     // then, for rivals and outages
  const auto failAt =
      options.timeout ? steady_clock::now() + *options.timeout : steady_clock::time_point::max();
  Outage outage(*target.conn, target.ensemble);
  while (!output.AwaitEnd(instances.AllPrinted() ? idle : interval, statusSignals.Descriptor())) {
    for (int signal = statusSignals.Take(); signal != 0; signal = statusSignals.Take()) {
      instances.SetStatus(signal == SIGUSR1 ? messaging::halden::STATUS_EXT_DEGRADED
                                            : messaging::halden::STATUS_EXT_NONE);
    }
    instances.Tell(output);
    if (!instances.AllPrinted() && steady_clock::now() >= failAt) {
      const ConnectionStatus status = target.conn->Status();
      const bool connected = status.state == ConnectionState::Connected;
      throw Failure(kFailed, fmt::format("{}: not published within {}: {}\n{}", target.conn->DataCenterName(),
                                         SecondsText(*options.timeout),
                                         connected ? instances.WhyNotPublished()
                                                   : WhyUnread({{}, status, {}}, target.ensemble),
                                         DoctorHint(options, options.service)));
    }
    if (!options.quiet) outage.Look();
  }
}

/// What the library would say of conflicts is said here, in the words of the command.
void SilencePublisherLog() {
  logging::SetHandler("stderr", [write = logging::MakeStderrHandler()](const logging::LogRecord& record) {
    if (logging::SourcePath(record.source) != "halden.publisher") write(record);
  });
}

/// Takes the instances back, in order where that is possible. What stays, empty when nothing does.
std::string RemoveAndClose(Instances& instances, Connection& conn) {
  constexpr milliseconds betweenServers{3000};
  constexpr milliseconds interval{10};
  ConnectionStatus status = conn.Status();
  for (auto left = betweenServers; status.state == ConnectionState::Suspended && left > interval;
       left -= interval) {
    std::this_thread::sleep_for(interval);
    status = conn.Status();
  }
  if (status.state == ConnectionState::Expired) status.sessions = 0;  // its nodes went with it
  const bool connected = status.state == ConnectionState::Connected;
  const bool removed = connected && instances.Remove(steady_clock::now() + kClosingLimit);
  conn.Stop();
  const bool closed = conn.AwaitClosed(kClosingLimit) && connected;
  if (removed || closed || status.sessions == 0) return {};
  return conn.DataCenterName() + ": out of reach: the instances stay until the session times out";
}

}  // namespace

void PublishInstances(const PublishOptions& options, LineWriter& output) {
  const SignalSet statusSignals{SIGUSR1, SIGUSR2};                      // before the connection has threads
  if (options.logLevel == logging::ZRLOG_ERROR) SilencePublisherLog();  // nobody asked for more
  const Target target = MakeTarget(options);
  target.conn->Start(nullptr);
  Instances instances(options, target.conn);
  try {
    ServeUntilEnd(instances, options, target, statusSignals, output);
  } catch (const Failure&) {
    if (const auto left = RemoveAndClose(instances, *target.conn); !left.empty()) Complain(left);
    throw;
  }
  if (const auto left = RemoveAndClose(instances, *target.conn); !left.empty()) throw Failure(kFailed, left);
}

}  // namespace zr::halden::tool
