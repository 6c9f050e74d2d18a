// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <kainjow/mustache.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace zr::halden::agent {

/// What a template sees of the services. Instances stay as they were read until a section comes to them: as data they
/// take ten times as much.
struct TemplateData {
  std::vector<nlohmann::json>
      lists;  ///< sorted by key: in the order written, each would be looked for among all before
  kainjow::mustache::data
      root;  ///< its `services` has one for each list, whose `instances` are as many placeholders
  std::vector<std::string> names;  ///< of the services, as templates write them
  std::size_t instances = 0;
  std::vector<std::string> empty;  ///< services without instances
};

/// Of the services' lists, each a JSON object as /v1/services/S/instances returns it. Throws RenderError.
///
/// To what is in the lists is added what templates cannot find out: see docs/render.md. In names a dot becomes "_",
/// since in a template it separates names.
TemplateData ReadLists(const std::vector<std::string>& lists);

/// Finds what a template names: also `by_name.SERVICE`, and of a single service all that it has. The data must outlive
/// it.
class NameContext : public kainjow::mustache::context<std::string> {
 public:
  explicit NameContext(const TemplateData& data);

  void push(const kainjow::mustache::data* entered) override;
  void pop() override;
  const kainjow::mustache::data* get(const std::string& name) const override;

 private:
  /// The instance that a placeholder stands for; null for what is none.
  std::unique_ptr<kainjow::mustache::data> InstanceAt(const kainjow::mustache::data* entered) const;

  const TemplateData& m_data;
  std::vector<std::unique_ptr<kainjow::mustache::data>>
      m_instances;  // for each section that is open; null: of others
};

/// All names there are in any list, but for those that users give; and the names below which users' stand.
const std::set<std::string, std::less<>>& KnownNames();
const std::set<std::string, std::less<>>& OpenNames();

}  // namespace zr::halden::agent
