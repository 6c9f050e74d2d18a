// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <memory>
#include <string>
#include <vector>

#include "agent/http/metrics.h"
#include "agent/render/file_renderer.h"
#include "agent/render/options.h"
#include "agent/view/service_views.h"

namespace zr::halden::agent {

/// The files that follow services: tells each when a list that it is made of has changed, and not before all of them
/// were read.
///
/// Threads: the loop's. Ownership: `views` and the loop must outlive it. Errors: as FileRenderer's.
class Files {
 public:
  Files(boost::asio::any_io_executor loop, const ServiceViews& views)
      : m_loop(std::move(loop)), m_views(views) {}

  /// These from now on, and no others. What stays goes on, a command that it runs included, unless its template has
  /// changed. Throws RenderError, and leaves all as it was.
  void Configure(const std::vector<RenderOptions>& options);
  void OnChange();

  std::vector<FileMetrics> Metrics() const;

 private:
  struct File {
    RenderOptions options;
    std::string target;   // where links lead
    std::string content;  // of the template
    std::unique_ptr<FileRenderer> renderer{};
    std::string told{};  // the tags of the lists that it was told of

    bool IsSame(const File& other) const {
      return options == other.options && target == other.target && content == other.content;
    }
  };

  std::unique_ptr<FileRenderer> MakeRenderer(const RenderOptions& options) const;
  /// Empty while not all of them were read.
  std::string Tags(const std::string& service) const;

  const boost::asio::any_io_executor m_loop;
  const ServiceViews& m_views;
  std::vector<File> m_files;
};

}  // namespace zr::halden::agent
