// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "ensemble/configuration.h"
#include "halden/connection_v2.h"
#include "halden/service_publisher.h"
#include "io/failure.h"
#include "io/signals.h"
#include "model/access_list.h"
#include "model/connect_string.h"
#include "render/json.h"
#include "render/state_text.h"

namespace zr::halden::tool {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kSessionTimeout{30};
/// For removing instances and then for closing the session; past it the servers end that by themselves.
constexpr std::chrono::seconds kClosingLimit{3};

std::shared_ptr<Connection> MakeConnection(const PublishOptions& options) {
  const auto ensembles = LoadEnsembles(options.configPath, options.quiet);
  const auto found = ensembles.find(options.dataCenter);
  if (found == ensembles.end()) {
    std::vector<std::string> names;
    for (const auto& [name, ensemble] : ensembles) names.push_back(name);
    std::sort(names.begin(), names.end());
    throw Failure(kWrongUsage, fmt::format("bad --dc '{}': {} has {}", options.dataCenter, options.configPath,
                                           fmt::join(names, ", ")));
  }
  if (details::NeedsCredential(details::ParseAccessList(options.acl).value) &&
      details::ParseConnectString(found->second).value.authFile.empty()) {
    throw Failure(kWrongUsage, fmt::format("bad --acl '{}': {} gives data centre {} no auth_file",
                                           options.acl, options.configPath, options.dataCenter));
  }
  const std::vector<zr::String> hosts{found->second};
  return std::make_shared<Connection>(hosts, true, zr::String(), kSessionTimeout, options.dataCenter);
}

/// The instances of one process, all through one connection.
class Instances {
 public:
  Instances(const PublishOptions& options, const std::shared_ptr<Connection>& conn)
      : m_dataCenter(options.dataCenter) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const unsigned count = options.count.value_or(1);
    for (unsigned i = 0; i < count; ++i) {
      ServiceInstanceData data = options.instance;
      data.set_start_time_ms(std::chrono::duration_cast<milliseconds>(now).count());
      if (options.count) {
        auto& attribute = *data.add_attributes();
        attribute.set_key(std::string(kIndexAttribute));
        attribute.set_value(std::to_string(i));
      }
      m_data.push_back(std::move(data));
      const ServiceId id = options.id.value_or(MakeServiceId());
      m_publishers.push_back(std::make_unique<ServicePublisher>(conn, options.service, id, options.acl));
      m_publishers.back()->Publish(m_data.back());
    }
  }

  bool AllPrinted() const { return m_printed == m_publishers.size(); }

  /// Prints the ids of those that were confirmed since, in the order of their index.
  void PrintPublished(LineWriter& output, bool json) {
    for (; !AllPrinted(); ++m_printed) {
      const auto& publisher = *m_publishers[m_printed];
      if (publisher.Status().state != PublishState::Published) return;
      output.Write(json ? PublishedLine(m_dataCenter, publisher.Id()) : ToString(publisher.Id()) + '\n');
    }
  }

  /// Of the first that is not published; empty where no write of it has failed.
  std::string Trouble() const {
    const int error = AllPrinted() ? 0 : m_publishers[m_printed]->Status().lastError;
    return error == 0 ? std::string() : fmt::format(" (write failed: {})", zerror(error));
  }

  /// Tells of each instance once that another process publishes it.
  void ComplainOfRivals() {
    for (const auto& publisher : m_publishers) {
      const PublisherStatus status = publisher->Status();
      if (status.state != PublishState::Conflict) {
        m_rivals.erase(publisher->Id());
      } else if (m_rivals.insert(publisher->Id()).second) {
        Complain(fmt::format("{}: published by another process, waiting for its end: {}",
                             ToString(publisher->Id()), status.rival));
      }
    }
  }

  void SetStatus(messaging::halden::StatusExt status) {
    for (std::size_t i = 0; i < m_publishers.size(); ++i) {
      m_data[i].set_status_ext(status);
      m_publishers[i]->Publish(m_data[i]);
    }
  }

  /// False when not all nodes are known to be gone at the deadline.
  bool Remove(steady_clock::time_point deadline) {
    for (const auto& publisher : m_publishers) publisher->Remove();
    return std::all_of(m_publishers.begin(), m_publishers.end(), [&](const auto& publisher) {
      const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
      return publisher->AwaitAbsent(std::max(left, milliseconds(0)));
    });
  }

 private:
  const std::string m_dataCenter;
  std::vector<ServiceInstanceData> m_data;
  std::vector<std::unique_ptr<ServicePublisher>> m_publishers;
  std::size_t m_printed = 0;
  std::set<ServiceId> m_rivals;  // the instances that have one, as far as told
};

/// Throws Failure when not all are published in the time that was given.
void ServeUntilEnd(Instances& instances, const PublishOptions& options, const Connection& conn,
                   const SignalSet& statusSignals, LineWriter& output) {
  constexpr milliseconds interval{50};  // until all are published
  constexpr milliseconds idle{500};     // then, for rivals
  const auto never = steady_clock::time_point::max();
  const auto begin = steady_clock::now();
  auto complainAt = options.quiet ? never : begin + std::chrono::seconds(5);
  const auto failAt = options.timeout ? begin + *options.timeout : never;
  while (!output.AwaitEnd(instances.AllPrinted() ? idle : interval, statusSignals.Descriptor())) {
    for (int signal = statusSignals.Take(); signal != 0; signal = statusSignals.Take()) {
      instances.SetStatus(signal == SIGUSR1 ? messaging::halden::STATUS_EXT_DEGRADED
                                            : messaging::halden::STATUS_EXT_NONE);
    }
    instances.PrintPublished(output, options.json);
    instances.ComplainOfRivals();
    if (instances.AllPrinted()) continue;
    const auto now = steady_clock::now();
    if (now < complainAt && now < failAt) continue;
    const std::string state = StateText({conn.DataCenterName(), conn.Status(), {}}) + instances.Trouble();
    if (now >= failAt) {
      throw Failure(kFailed, fmt::format("{}: not published within {} s: {}", conn.DataCenterName(),
                                         options.timeout->count(), state));
    }
    Complain(fmt::format("{}: not published yet: {}", conn.DataCenterName(), state));
    complainAt = never;  // once is enough
  }
}

/// Takes the instances back, in order where that is possible.
void RemoveAndClose(Instances& instances, Connection& conn) {
  const ConnectionStatus status = conn.Status();
  const bool connected = status.state == ConnectionState::Connected;
  const bool removed = connected && instances.Remove(steady_clock::now() + kClosingLimit);
  conn.Stop();
  const bool closed = conn.AwaitClosed(kClosingLimit) && connected;
  if (!removed && !closed && status.sessions > 0) {
    Complain(conn.DataCenterName() + ": out of reach: the instances stay until the session times out");
  }
}

}  // namespace

void PublishInstances(const PublishOptions& options, LineWriter& output) {
  const SignalSet statusSignals{SIGUSR1, SIGUSR2};  // before the connection has threads
  const auto conn = MakeConnection(options);
  conn->Start(nullptr);
  Instances instances(options, conn);
  try {
    ServeUntilEnd(instances, options, *conn, statusSignals, output);
  } catch (const Failure&) {
    RemoveAndClose(instances, *conn);
    throw;
  }
  RemoveAndClose(instances, *conn);
}

}  // namespace zr::halden::tool
