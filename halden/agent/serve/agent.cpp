// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/serve/agent.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "agent/page/page.h"
#include "halden/zookeeper_config.h"
#include "logger/logger.h"

namespace zr::halden::agent {

namespace asio = boost::asio;
using boost::system::error_code;
using std::chrono::steady_clock;

namespace {

constexpr const char* kDefaultListen = "127.0.0.1:7470";
constexpr std::chrono::seconds kLeavingLimit{3};
constexpr std::chrono::seconds kClosingLimit{1};

/// Never destroyed: threads that outlive main() may still log.
const logging::ConstSourcePtr& Log() {
  static const auto& source = *new logging::ConstSourcePtr(logging::MakeSource("halden.agent"));
  return source;
}

int Duplicate(int descriptor) {
  const int copy = dup(descriptor);
  if (copy < 0) throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
  return copy;
}

std::string HostOf(const asio::ip::tcp::endpoint& endpoint) {
  const std::string text = endpoint.address().to_string();
  return endpoint.address().is_v6() ? '[' + text + ']' : text;
}

/// What the file holds for both, and what is wrong with it.
struct Configuration {
  ServeSettings settings;
  DataCenterEnsembleMapT ensembles;
  std::string faults;
};

Configuration Load(const AgentOptions& options) {
  std::error_code none;
  const auto status = std::filesystem::status(options.configPath, none);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    // A pipe would be read once only, and be waited for, with all that the loop does, when it is read again.
    return {{}, {}, options.configPath + ": expected a file, which can be read again"};
  }
  ZooKeeperConfig ensembles = ReadZooKeeperConfig(options.configPath);
  ServeConfig serve = ReadServeConfig(options.configPath);
  std::string faults;
  const auto add = [&faults](const std::string& line) { faults += (faults.empty() ? "" : "\n") + line; };
  for (const auto& fault : ensembles.faults) add(fault.Text());
  for (const auto& fault : serve.faults) add(fault.Text());
  for (const auto& warning : ensembles.warnings) ZRLOG(ZRLOG_WARNING, Log()) << warning.Text();
  for (const auto& warning : serve.warnings) ZRLOG(ZRLOG_WARNING, Log()) << warning.Text();
  Configuration loaded{
      Combined(std::move(serve.settings), options.settings), std::move(ensembles.ensembles), {}};
  loaded.settings.snapshotFolder =
      options.settings.snapshotFolder.empty() ? ensembles.snapshotFolder : options.settings.snapshotFolder;
  if (faults.empty() && loaded.settings.services.empty()) {
    add("no service to follow: name one with --service, or in services of [serve]");
  }
  for (const auto& file : loaded.settings.files) {
    if (file.service.empty() || loaded.settings.services.contains(file.service)) continue;
    add(fmt::format("{}: made of '{}', which is not followed", file.target.string(), file.service));
  }
  loaded.faults = std::move(faults);
  return loaded;
}

/// "2 of 3 data centres live": one that is live for all services.
std::string StatusText(const ServiceViews& views) {
  std::map<std::string_view, bool> live;
  for (const auto& [service, view] : views) {
    for (const auto& [name, status] : view->States()) {
      auto& all = live.try_emplace(name, true).first->second;
      all = all && status.watcher.freshness == Freshness::Live;
    }
  }
  const auto count = std::count_if(live.begin(), live.end(), [](const auto& one) { return one.second; });
  return fmt::format("{} of {} data centres live", count, live.size());
}

}  // namespace

Agent::Agent(AgentOptions options, const Signals& signals)
    : m_options(std::move(options)),
      m_takeReload(signals.takeReload),
      m_stop(m_loop, Duplicate(signals.stop)),
      m_reload(m_loop, Duplicate(signals.reload)),
      m_leaving(m_loop),
      m_telling(m_loop),
      m_feeding(m_loop),
      m_follower(m_loop, [this] { OnChange(); }),
      m_rendered(m_loop.get_executor(), m_follower.Views()) {
  for (const PageFile& file : PageFiles()) m_files.push_back({file.path, file.contentType, file.content});
  const Configuration loaded = Load(m_options);
  if (!loaded.faults.empty()) throw std::runtime_error(loaded.faults);
  Follow(loaded.settings, loaded.ensembles);
  Listen(loaded.settings);  // last: nobody is told where before all else is in order
  AwaitStop();
  AwaitReload();
  TellManager();
  FeedWatchdog();
  m_manager.Tell("READY=1");
}

void Agent::Listen(const ServeSettings& settings) {
  const std::string listen = settings.listen.value_or(kDefaultListen);
  const std::string path = settings.socket.value_or(std::string());
  if (listen.empty() && path.empty())
    throw std::runtime_error("nothing to listen on: give --listen or --socket");
  std::optional<asio::ip::tcp::endpoint> endpoint;
  auto hosts = settings.allowedHosts;
  if (!listen.empty()) {
    endpoint = ParseEndpoint(listen);
    if (!endpoint) throw std::runtime_error(fmt::format("bad --listen '{}': expected {}", listen, kEndpoint));
    if (!endpoint->address().is_loopback() && !settings.allowRemote) {
      throw std::runtime_error(fmt::format(
          "bad --listen '{}': everybody who reaches this address could read: add --allow-remote to mean it",
          listen));
    }
    hosts.insert(HostOf(*endpoint));
  }
  m_server =
      std::make_unique<Server>(m_loop, m_follower.Views(), m_files, AllowedHosts(hosts), settings.limits);
  std::vector<std::string> places;  // told when all is in order
  try {
    if (endpoint)
      places.push_back(fmt::format("http://{}:{}", HostOf(*endpoint), m_server->Listen(*endpoint)));
  } catch (const boost::system::system_error& e) {
    throw std::runtime_error(fmt::format("cannot listen on {}: {}", listen, e.code().message()));
  }
  try {
    if (!path.empty()) {
      m_server->Listen(path);
      places.push_back("unix:" + path);
    }
  } catch (const boost::system::system_error& e) {
    throw std::runtime_error(fmt::format("cannot listen on {}: {}", path, e.code().message()));
  }
  for (const auto& place : places) {
    if (m_options.announce) m_options.announce(place);
  }
}

void Agent::Follow(const ServeSettings& settings, const DataCenterEnsembleMapT& ensembles) {
  FollowSettings follow{{}, settings.snapshotFolder};
  if (settings.guard) follow.guard.emplace().gracePeriod = *settings.guard;
  m_rendered.Configure(settings.files);  // first: with a template that is wrong nothing changes
  m_follower.Follow(ensembles, settings.services, follow);
}

void Agent::OnChange() {
  if (m_server) m_server->OnChange();
  m_rendered.OnChange();
}

void Agent::Run() {
  while (true) {
    try {
      m_loop.run();
      break;
    } catch (const std::exception& e) {  // out of memory, most likely: it costs what was being done
      ZRLOG(ZRLOG_ERROR, Log()) << "a step of the agent failed, error=" << e.what();
    }
  }
  m_server.reset();
  m_rendered.Configure({});
  m_follower.Close(kClosingLimit);
}

void Agent::AwaitStop() {
  m_stop.async_wait(asio::posix::stream_descriptor::wait_read, [this](const error_code& error) {
    if (error) return;
    m_manager.Tell("STOPPING=1");
    m_server->Leave();
    Leave(steady_clock::now() + kLeavingLimit);
  });
}

/// Until all clients are gone.
void Agent::Leave(steady_clock::time_point deadline) {
  constexpr std::chrono::milliseconds interval{10};
  if (m_server->IsEmpty() || steady_clock::now() >= deadline) return m_loop.stop();
  m_leaving.expires_after(interval);
  m_leaving.async_wait([this, deadline](const error_code& error) {
    if (!error) Leave(deadline);
  });
}

void Agent::AwaitReload() {
  m_reload.async_wait(asio::posix::stream_descriptor::wait_read, [this](const error_code& error) {
    if (error) return;
    m_takeReload();
    AwaitReload();  // first: whatever fails below, the next one is heard
    m_manager.Tell("RELOADING=1");
    Reload();
    m_manager.Tell("READY=1");
  });
}

/// What was wrong before is better than what is half right: with faults all stays as it is.
void Agent::Reload() try {
  const Configuration loaded = Load(m_options);
  if (!loaded.faults.empty()) {
    ZRLOG(ZRLOG_ERROR, Log()) << "the configuration is not read again, faults=" << loaded.faults;
    return;
  }
  Follow(loaded.settings, loaded.ensembles);
  ZRLOG(ZRLOG_INFO, Log()) << "read the configuration again, services=" << m_follower.Views().size()
                           << ", data_centers=" << loaded.ensembles.size();
} catch (const std::exception& e) {
  ZRLOG(ZRLOG_ERROR, Log()) << "the configuration could not be applied, error=" << e.what();
}

void Agent::TellManager() {
  constexpr std::chrono::seconds interval{1};
  m_manager.TellStatus(StatusText(m_follower.Views()));
  m_server->Metrics().SetFiles(m_rendered.Metrics());
  m_telling.expires_after(interval);
  m_telling.async_wait([this](const error_code& error) {
    if (!error) TellManager();
  });
}

void Agent::FeedWatchdog() {
  if (!m_manager.Watchdog()) return;
  m_manager.Tell("WATCHDOG=1");
  m_feeding.expires_after(*m_manager.Watchdog() / 3);
  m_feeding.async_wait([this](const error_code& error) {
    if (!error) FeedWatchdog();
  });
}

}  // namespace zr::halden::agent
