// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/diagnosis.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <utility>

#include "client/watch_budget.h"
#include "model/access_list.h"
#include "model/layout.h"
#include "render/state_text.h"
#include "render/text.h"

namespace zr::halden::tool {

namespace {

constexpr std::size_t kNearlyAll = 80;  // per cent
constexpr std::size_t kLargeNode = 100'000;

std::string SizeText(std::size_t bytes) {
  constexpr std::size_t thousand = 1000;
  if (bytes < thousand) return Counted(bytes, "byte");
  if (bytes < thousand * thousand) return fmt::format("{:.1f} kB", static_cast<double>(bytes) / thousand);
  return fmt::format("{:.1f} MB", static_cast<double>(bytes) / (thousand * thousand));
}

/// Collects what is said of one data centre.
class Report {
 public:
  explicit Report(std::string dataCenter) : m_dataCenter(std::move(dataCenter)) {}

  void Ok(std::string_view subject, std::string finding) {
    m_checks.push_back({m_dataCenter, subject, Verdict::Ok, std::move(finding), {}});
  }
  void Add(std::string_view subject, Verdict verdict, std::string finding, std::string advice) {
    m_checks.push_back({m_dataCenter, subject, verdict, std::move(finding), std::move(advice)});
  }
  std::vector<Check> Take() { return std::move(m_checks); }

 private:
  const std::string m_dataCenter;
  std::vector<Check> m_checks;
};

void CheckNames(const EnsembleFacts& facts, Report& report) {
  std::size_t names = 0;
  std::size_t bad = 0;
  std::string errors;
  for (const auto& server : facts.servers) {
    if (server.isName) ++names;
    if (server.resolveError.empty()) continue;
    ++bad;
    errors += (errors.empty() ? "" : "; ") + server.resolveError;
  }
  if (names == 0) return report.Ok("names", "nothing to resolve: all servers are given as addresses");
  if (bad == 0) return report.Ok("names", names == 1 ? "resolved" : fmt::format("all {} resolved", names));
  report.Add("names", bad == facts.servers.size() ? Verdict::Failure : Verdict::Warning,
             fmt::format("{} of {} not resolved: {}", bad, names, errors),
             "correct the names in the configuration, or this host's resolver");
}

void CheckServers(const EnsembleFacts& facts, Report& report) {
  std::size_t reached = 0;
  std::string errors;
  for (const auto& server : facts.servers) {
    if (server.connectError.empty()) ++reached;
    if (!server.connectError.empty()) {
      errors += fmt::format("{}{}: {}", errors.empty() ? "" : "; ", server.server, server.connectError);
    }
  }
  const std::size_t all = facts.servers.size();
  if (reached == all) return report.Ok("servers", fmt::format("{} of {} take connections", reached, all));
  const bool closed = std::any_of(facts.servers.begin(), facts.servers.end(),
                                  [](const auto& server) { return server.closes; });
  report.Add("servers", reached == 0 ? Verdict::Failure : Verdict::Warning,
             fmt::format("{} of {} take connections; {}", reached, all, errors),
             closed ? "see who closes: a tunnel whose server is down or not who it should be (its log says "
                      "which), a server whose maxClientCnxns is used up, or a TLS port without a tunnel"
             : reached == 0 ? "start the ensemble, or correct hosts and ports; look for a firewall between"
                            : "start what is down, or take it out: there is less to fall back on without it");
}

void CheckSession(const EnsembleFacts& facts, Report& report) {
  if (facts.session) {
    return report.Ok("session",
                     fmt::format("granted, {:#x}", static_cast<std::uint64_t>(facts.status.sessionId)));
  }
  const bool reached = std::any_of(facts.servers.begin(), facts.servers.end(),
                                   [](const auto& server) { return server.connectError.empty(); });
  report.Add("session", Verdict::Failure, "none: " + StateText({{}, facts.status, {}}),
             facts.status.state == ConnectionState::AuthFailed
                 ? "mend the credential's file, or the servers' authentication providers"
             : !reached
                 ? "see the servers"
                 : "see that a majority of the ensemble is up, that the port is its client port, and that "
                   "the servers' maxClientCnxns is not used up");
}

/// False when what is asked for may not be read. Who follows a service does not read the node above it.
bool CheckAccess(const EnsembleFacts& facts, const std::string& service, Report& report) {
  const int code = facts.service ? facts.service->code : facts.servicesCode;
  if (code != ZNOAUTH) {
    report.Ok("authentication", facts.hasCredential
                                    ? "with the credential of auth_file"
                                    : "none is needed to read; the configuration has no auth_file");
    return true;
  }
  const auto path = facts.service ? details::ServicePath(service) : zr::String(details::kServicesPath);
  if (facts.hasCredential) {
    report.Add("authentication", Verdict::Failure, path + " may not be read with the credential of auth_file",
               "see that it is the right one: servers take any password of a digest for one more identity");
  } else {
    report.Add(
        "authentication", Verdict::Failure, path + " may not be read, and the configuration has no auth_file",
        "give the data centre one with a credential that may read it; or let everybody read it and what is "
        "below (ACL world:anyone:r)");
  }
  return false;
}

bool CheckRoot(const EnsembleFacts& facts, Report& report) {
  if (!facts.chroot.empty() && facts.chrootCode == ZNONODE) {
    report.Add("service", Verdict::Warning, fmt::format("the chroot {} does not exist", facts.chroot),
               "see that it is spelt as publishers spell it; the first publisher makes it");
    return false;
  }
  if (facts.servicesCode == ZNONODE) {
    report.Add("service", Verdict::Warning, "nobody has ever published here",
               "see that publishers use the same ensemble and chroot");
    return false;
  }
  if (facts.servicesCode == ZOK || facts.servicesCode == ZNOAUTH) return true;
  if (facts.servicesCode == ZOPERATIONTIMEOUT) {
    report.Add("service", Verdict::Failure,
               fmt::format("no answer in time to a read of {}", details::kServicesPath),
               "see how the ensemble is doing; try again with a longer --timeout");
    return false;
  }
  report.Add("service", Verdict::Failure,
             fmt::format("{} cannot be read: {}", details::kServicesPath, zerror(facts.servicesCode)),
             "see the ensemble's own logs");
  return false;
}

bool CheckNodes(const ServiceFacts& facts, const std::string& service, const std::vector<std::string>& others,
                Report& report) {
  if (facts.code == ZNONODE) {
    report.Add("service", Verdict::Warning,
               fmt::format("no instance of '{}'{}", service, DidYouMean(service, others)),
               "see that the name is right: 'halden services' prints what is published");
    return false;
  }
  if (facts.code != ZOK) {
    report.Add("service", Verdict::Failure, fmt::format("not all could be read: {}", zerror(facts.code)),
               "try again, with a longer --timeout where it is large");
    return false;
  }
  if (facts.refused != 0) {
    report.Add("service", Verdict::Failure,
               fmt::format("{} below it may not be read, and not followed: {}",
                           Counted(facts.refused, "node"), facts.refusedExample),
               "let everybody read what is published (acl = \"creator\" does), or give the data centre an "
               "auth_file with a credential that may read it");
  }
  if (facts.unreadable != 0) {
    report.Add("service", Verdict::Failure,
               fmt::format("{} of {} without a value that can be read: {}", facts.unreadable,
                           Counted(facts.instances, "instance"), facts.unreadableExample),
               "mend or stop what writes it; 'halden get' prints one node");
  } else if (facts.refused == 0) {
    report.Ok("service", fmt::format("{}, all readable", Counted(facts.instances, "instance")));
  }
  if (facts.unfit != 0) {
    report.Add("service", Verdict::Warning,
               fmt::format("{} of {} announced, but of no use to clients: {}", facts.unfit,
                           Counted(facts.instances, "instance"), facts.unfitExample),
               "correct what writes it; halden's own publishers refuse to");
  }
  if (facts.sessionless != 0) {
    report.Add(
        "service", Verdict::Warning,
        fmt::format("{} without a session: {}", Counted(facts.sessionless, "node"), facts.sessionlessExample),
        "delete what is left of a writer that has gone, and publish ephemeral nodes");
  }
  if (facts.oddNodes != 0) {
    report.Add(
        "service", Verdict::Warning,
        fmt::format("{} ignored, by name no instance: {}", Counted(facts.oddNodes, "node"), facts.oddExample),
        "delete them, or correct what writes them");
  }
  return true;
}

/// "add, change, remove": what who has no credential could do.
std::string Deeds(const Exposure& exposure, std::size_t instances) {
  const std::int32_t lists = exposure.service | exposure.partitions;
  std::vector<std::string> deeds;
  if ((lists & (details::kCreate | details::kWrite)) != 0) deeds.emplace_back("add instances");
  if ((exposure.instances & details::kWrite) != 0)
    deeds.push_back(fmt::format("change {} of {}", exposure.writable, instances));
  if ((exposure.partitions & details::kDelete) != 0) deeds.emplace_back("remove instances");
  if (((lists | exposure.instances) & details::kAdmin) != 0) deeds.emplace_back("take others' rights away");
  return fmt::format("{}", fmt::join(deeds, ", "));
}

/// Where nobody is told apart all of it is meant; where somebody is, what more than adding is open was forgotten.
void CheckExposure(const EnsembleFacts& facts, Report& report) {
  const auto& exposure = facts.service->exposure;
  if (exposure.code != ZOK) {
    return report.Add("access", Verdict::Warning,
                      fmt::format("not all access lists could be read: {}", zerror(exposure.code)),
                      "ask with a credential that may read the nodes");
  }
  const auto deeds = Deeds(exposure, facts.service->instances);
  if (deeds.empty()) return report.Ok("access", "who has no credential can change nothing");
  const auto finding = fmt::format("who has no credential can {}", deeds);
  const auto more =
      (exposure.service | exposure.partitions) & (details::kDelete | details::kWrite | details::kAdmin);
  const bool open = more != 0 || (exposure.instances & (details::kWrite | details::kAdmin)) != 0;
  if (!facts.hasCredential || !open) return report.Ok("access", finding);
  report.Add("access", Verdict::Warning, finding,
             "publish with acl = \"creator\"; nodes that were there before stay open until their last child "
             "is gone");
}

void CheckSizes(const ServiceFacts& facts, Report& report) {
  if (facts.instances == 0) return;
  const std::string finding =
      fmt::format("{} in all, {} the largest", SizeText(facts.total), SizeText(facts.largest));
  if (facts.largest < kLargeNode) return report.Ok("payloads", finding);
  report.Add("payloads", Verdict::Warning, fmt::format("{}: {}", finding, facts.largestPath),
             "publish less: each change sends all of it to every client, and a node holds 1 MB at the most");
}

void CheckWatches(const ServiceFacts& facts, Report& report) {
  const std::size_t share = facts.watchBytes * 100 / details::WatchBudget::kLimit;
  const std::string finding =
      fmt::format("{}, {} % of what clients set again at once", SizeText(facts.watchBytes), share);
  if (share < kNearlyAll) return report.Ok("watches", finding);
  report.Add("watches", Verdict::Warning, finding,
             "past 100 % every lost connection makes clients read everything anew: split the service, or "
             "shorten its name or the chroot");
}

}  // namespace

std::vector<Check> DiagnoseConfig(const ZooKeeperConfig& config, const std::string& path) {
  Report report{{}};
  for (const auto& fault : config.faults) {
    report.Add("configuration", Verdict::Failure, fault.Text(),
               "correct it; 'halden config example' prints a file that is in order");
  }
  for (const auto& fault : config.authFaults) {
    report.Add("configuration", Verdict::Failure, fault.Text(),
               "put one line scheme:credential there, and close the file to others (chmod 600)");
  }
  for (const auto& warning : config.warnings) {
    report.Add("configuration", Verdict::Warning, warning.Text(), "correct or remove it");
  }
  if (config.ensembles.empty() && config.faults.empty()) {
    report.Add("configuration", Verdict::Failure, path + ": no data centre", "add one to [data_centers]");
  } else if (config.faults.empty() && config.authFaults.empty()) {
    report.Ok("configuration", fmt::format("{}: {}", path, Counted(config.ensembles.size(), "data centre")));
  }
  return report.Take();
}

std::vector<Check> Diagnose(const EnsembleFacts& facts, const std::string& service) {
  Report report(facts.dataCenter);
  CheckNames(facts, report);
  CheckServers(facts, report);
  CheckSession(facts, report);
  if (!facts.session || !CheckAccess(facts, service, report) || !CheckRoot(facts, report))
    return report.Take();
  if (!facts.service) {
    report.Ok("service", fmt::format("{} published", Counted(facts.services.size(), "service")));
  } else if (CheckNodes(*facts.service, service, facts.services, report)) {
    CheckSizes(*facts.service, report);
    CheckWatches(*facts.service, report);
    CheckExposure(facts, report);
  }
  return report.Take();
}

}  // namespace zr::halden::tool
