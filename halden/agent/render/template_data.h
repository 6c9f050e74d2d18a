// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include <kainjow/mustache.hpp>

namespace zr::halden::agent {

/// What a template sees of the services.
struct TemplateData {
  kainjow::mustache::data root;
  std::vector<std::string> names;  ///< of the services, as templates write them
  std::size_t instances = 0;
  std::vector<std::string> empty;  ///< services without instances
};

/// Of the services' lists, each a JSON object as /v1/services/S/instances returns it. Throws RenderError.
///
/// The root has `services`, all of them in this order. To what is in the lists is added what templates cannot find out: see docs/agent.md. In names a dot becomes "_",
/// since in a template it separates names.
TemplateData ReadLists(const std::vector<std::string>& lists);

/// Finds what a template names: also `by_name.SERVICE`, and of a single service all that it has.
class NameContext : public kainjow::mustache::context<std::string> {
 public:
  explicit NameContext(const TemplateData& data);

  const kainjow::mustache::data* get(const std::string& name) const override;

 private:
  const TemplateData& m_data;
};

/// All names there are in any list, but for those that users give; and the names below which users' stand.
const std::set<std::string, std::less<>>& KnownNames();
const std::set<std::string, std::less<>>& OpenNames();

}  // namespace zr::halden::agent
