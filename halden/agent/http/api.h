// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/http/answer.h"
#include "agent/http/metrics.h"
#include "agent/http/request.h"
#include "agent/view/service_views.h"

namespace zr::halden::agent {

/// A file that is part of the program.
struct StaticFile {
  std::string_view path;
  std::string_view contentType;
  std::string_view content;
};

/// The answer is to wait until the list of `view` is behind `revision` no more; then the request is asked again. When the
/// limit passes first, `unchanged` is the answer.
struct WaitForChange {
  std::shared_ptr<const ServiceView> view;
  Revision revision = 0;
  std::chrono::milliseconds limit{};
  Answer unchanged;
};

struct BeginStream {
  std::vector<std::shared_ptr<const ServiceView>> views;
};

struct Reply {
  std::string_view endpoint;  ///< a literal, for metrics
  std::variant<Answer, WaitForChange, BeginStream> what;
};

/// What is answered to which request. Knows views and nothing of connections.
///
/// Threads: the loop's. Ownership: what it is given must outlive it.
class Api {
 public:
  Api(const ServiceViews& views, const HttpMetrics& metrics, std::span<const StaticFile> files,
      std::size_t mostBodyBytes);

  Reply Handle(const Request& request);

 private:
  using What = decltype(Reply::what);
  using Text = std::shared_ptr<const std::string>;

  /// The last text that was made of a view, for as long as its list is of that revision.
  struct Known {
    std::weak_ptr<const ServiceView> of;
    Revision revision = 0;
    std::string asked;  // what it depends on besides
    Text text;
  };
  using KnownTexts = std::map<std::string, Known>;  // by service

  Reply HandleVersion1(const Request& request);
  Reply HandleService(const Request& request, const std::shared_ptr<const ServiceView>& view);
  What Services(const Request& request) const;
  What Instances(const Request& request, const std::shared_ptr<const ServiceView>& view);
  What Events(const Request& request) const;
  What Targets(const Request& request);
  What Ready() const;
  const std::shared_ptr<const ServiceView>& Find(const std::string& service) const;
  Text Cached(KnownTexts& known, const std::shared_ptr<const ServiceView>& view, const std::string& asked,
              const std::function<std::string()>& make);
  Text Budgeted(std::string text);

  const ServiceViews& m_views;
  const HttpMetrics& m_metrics;
  const std::span<const StaticFile> m_files;
  const std::size_t m_mostBodyBytes;
  /// Of texts that somebody still holds; they outlive this object at the end.
  const std::shared_ptr<std::size_t> m_bodyBytes = std::make_shared<std::size_t>(0);
  KnownTexts m_lists;
  KnownTexts m_targets;
};

}  // namespace zr::halden::agent
