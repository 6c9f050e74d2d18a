// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/serve/serve_config.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <functional>
#include <map>
#include <string_view>
#include <tuple>
#include <utility>

#include "halden/service_name.h"
#include "model/config_text.h"

namespace zr::halden::agent {

namespace {

class Reader {
 public:
  explicit Reader(const std::string& path) : m_path(path) {}

  ServeConfig Read() {
    std::string text;
    if (!details::ReadFile(m_path, text).empty() || details::FindOverlongKey(text) != std::string_view::npos)
      return {};
    try {
      const toml::table root = toml::parse(text);
      const toml::node* node = root.get("serve");
      if (node != nullptr && !node->is_table()) Fault(*node, "serve", "a table [serve]");
      if (node != nullptr && node->is_table()) ReadTable(*node->as_table());
    } catch (const toml::parse_error&) {  // told by who reads the rest of the file
    }
    for (auto* const faults : {&m_config.faults, &m_config.warnings}) {
      std::sort(faults->begin(), faults->end(), [](const ConfigFault& a, const ConfigFault& b) {
        return std::tie(a.line, a.column) < std::tie(b.line, b.column);
      });
    }
    return std::move(m_config);
  }

 private:
  using Take = std::function<void(const toml::node&)>;

  void ReadTable(const toml::table& table) {
    ServeSettings& settings = m_config.settings;
    const std::map<std::string_view, Take> keys{
        {"services", [&](const toml::node& node) { ReadServices(node); }},
        {"listen",
         [&](const toml::node& node) {
           ReadText(node, "listen", settings.listen);
           const std::string text = settings.listen.value_or("");
           if (!text.empty() && !ParseEndpoint(text)) Fault(node, "listen", kEndpoint);
         }},
        {"socket", [&](const toml::node& node) { ReadText(node, "socket", settings.socket); }},
        {"allow_hosts", [&](const toml::node& node) { settings.allowedHosts = Texts(node, "allow_hosts"); }},
        {"allow_remote",
         [&](const toml::node& node) {
           if (!node.is_boolean()) return Fault(node, "allow_remote", "true or false");
           settings.allowRemote = node.as_boolean()->get();
         }},
        {"guard_seconds",
         [&](const toml::node& node) {
           constexpr std::int64_t day = 86'400;
           if (const auto number = Number(node, "guard_seconds", 1, day))
             settings.guard = std::chrono::seconds(*number);
         }},
        {"render", [&](const toml::node& node) { ReadFiles(node); }},
        {"max_connections",
         [&](const toml::node& node) { ReadLimit(node, "max_connections", settings.limits.connections); }},
        {"max_streams",
         [&](const toml::node& node) { ReadLimit(node, "max_streams", settings.limits.listeners); }},
    };
    for (const auto& [key, node] : table) {
      const auto known = keys.find(key.str());
      if (known != keys.end()) {
        known->second(node);
      } else {
        Add(m_config.warnings, key.source(),
            fmt::format("unknown key {} is ignored", details::Quoted(key.str())));
      }
    }
  }

  void ReadServices(const toml::node& node) {
    for (const auto& name : Texts(node, "services")) {
      if (IsValidServiceName(name)) {
        m_config.settings.services.insert(name);
      } else {
        Fault(node, "services", fmt::format("names of services, which {} is not", details::Quoted(name)));
      }
    }
  }

  void ReadFiles(const toml::node& node) {
    const toml::array* files = node.as_array();
    if (files == nullptr) return Fault(node, "render", "tables [[serve.render]]");
    for (const auto& file : *files) {
      if (!file.is_table()) {
        Fault(file, "render", "tables [[serve.render]]");
      } else {
        ReadFile(file, *file.as_table());
      }
    }
  }

  void ReadFile(const toml::node& place, const toml::table& table) {
    RenderOptions file;
    const toml::node* wait = nullptr;
    std::map<std::string, std::optional<std::string>, std::less<>> texts{
        {"service", {}}, {"template", {}}, {"target", {}}, {"check", {}}, {"reload", {}}, {"wait", {}}};
    for (const auto& [key, node] : table) {
      const auto text = texts.find(key.str());
      if (key.str() == "wait") wait = &node;
      if (text != texts.end()) {
        ReadText(node, text->first, text->second);
      } else if (key.str() == "allow_empty" && node.is_boolean()) {
        file.allowEmpty = node.as_boolean()->get();
      } else {
        Fault(node, key.str(),
              "service, template, target, check, reload, wait or allow_empty in [[serve.render]]");
      }
    }
    if (!texts["template"] || !texts["target"]) return Fault(place, "render", "a template and a target");
    file.service = texts["service"].value_or("");
    file.source = *texts["template"];
    file.target = *texts["target"];
    file.check = texts["check"].value_or("");
    file.reload = texts["reload"].value_or("");
    try {
      if (texts["wait"]) file.wait = ParseRenderWait(*texts["wait"]);
    } catch (const RenderError& e) {
      return Fault(*wait, "wait", fmt::format("two numbers of seconds, MIN:MAX ({})", e.what()));
    }
    m_config.settings.files.push_back(std::move(file));
  }

  void ReadText(const toml::node& node, std::string_view key, std::optional<std::string>& text) {
    if (!node.is_string()) return Fault(node, key, "a text in quotes");
    text = node.as_string()->get();
  }

  std::set<std::string> Texts(const toml::node& node, std::string_view key) {
    std::set<std::string> texts;
    if (const toml::array* array = node.as_array()) {
      for (const auto& element : *array) {
        if (!element.is_string()) {
          Fault(element, key, "texts in quotes");
        } else {
          texts.insert(element.as_string()->get());
        }
      }
    } else {
      Fault(node, key, "a list of texts, as [\"one\", \"two\"]");
    }
    return texts;
  }

  std::optional<std::int64_t> Number(const toml::node& node, std::string_view key, std::int64_t least,
                                     std::int64_t most) {
    const auto* number = node.as_integer();
    if (number != nullptr && number->get() >= least && number->get() <= most) return number->get();
    Fault(node, key, fmt::format("a whole number from {} to {}", least, most));
    return std::nullopt;
  }

  void ReadLimit(const toml::node& node, std::string_view key, std::size_t& limit) {
    constexpr std::int64_t most = 100'000;
    if (const auto number = Number(node, key, 1, most)) limit = static_cast<std::size_t>(*number);
  }

  void Fault(const toml::node& node, std::string_view key, std::string_view expected) {
    Add(m_config.faults, node.source(), fmt::format("bad {} in [serve]: expected {}", key, expected));
  }

  void Add(std::vector<ConfigFault>& faults, const toml::source_region& place, std::string message) const {
    faults.push_back({m_path, place.begin.line, place.begin.column, std::move(message)});
  }

  const std::string& m_path;
  ServeConfig m_config;
};

}  // namespace

std::optional<boost::asio::ip::tcp::endpoint> ParseEndpoint(const std::string& text) {
  const auto colon = text.rfind(':');
  std::string host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(host, error);
  const char* const end = text.data() + text.size();
  std::uint16_t port = 0;
  const auto read = std::from_chars(colon == std::string::npos ? end : text.data() + colon + 1, end, port);
  if (error || read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return boost::asio::ip::tcp::endpoint(address, port);
}

ServeConfig ReadServeConfig(const std::string& path) {
  return Reader(path).Read();
}

ServeSettings Combined(ServeSettings settings, const ServeSettings& more) {
  settings.services.insert(more.services.begin(), more.services.end());
  settings.allowedHosts.insert(more.allowedHosts.begin(), more.allowedHosts.end());
  settings.allowRemote |= more.allowRemote;
  if (more.listen) settings.listen = more.listen;
  if (more.socket) settings.socket = more.socket;
  settings.files.insert(settings.files.end(), more.files.begin(), more.files.end());
  if (more.guard) settings.guard = more.guard;
  return settings;
}

}  // namespace zr::halden::agent
