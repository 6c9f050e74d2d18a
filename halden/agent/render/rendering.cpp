// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/render/rendering.h"

#include <exception>
#include <new>
#include <optional>

#include "agent/render/command.h"

namespace zr::halden::agent {

Rendering::Rendering(const RenderOptions& options, int stop)
    : m_options(options), m_stop(stop), m_target(options.target), m_template(options.source) {}

RenderOutcome Rendering::Run(const std::vector<std::string>& lists) try {
  return Bring(ReadLists(lists));
} catch (const std::bad_alloc&) {
  return {RenderResult::Failed, "out of memory", 0, 0};
} catch (const std::exception& e) {
  return {RenderResult::Failed, e.what(), 0, 0};
}

RenderOutcome Rendering::Bring(const TemplateData& data) {
  const auto present = m_target.Read();
  const bool isHeldBack = present && !data.empty.empty() && !m_options.allowEmpty;
  const std::string content = isHeldBack ? *present : m_template.Render(data);
  const bool differs = present != content;
  if (differs) Replace(content);
  const bool isOwed = !m_options.reload.empty() && m_target.IsReloadOwed();
  if (isOwed) {  // also for what was written before it is held back
    RunChecked("reload", m_options.reload);
    m_target.SetReloadOwed(false);
  }
  if (isHeldBack) return {RenderResult::HeldBack, data.empty.front(), data.instances, content.size()};
  const auto result = differs || isOwed ? RenderResult::Written : RenderResult::Unchanged;
  return {result, "", data.instances, content.size()};
}

void Rendering::Replace(const std::string& content) try {
  m_target.Stage(content);
  if (!m_options.check.empty()) RunChecked("check", m_options.check);
  if (!m_options.reload.empty()) m_target.SetReloadOwed(true);
  m_target.Commit();
} catch (...) {
  m_target.Discard();
  throw;
}

void Rendering::RunChecked(const char* what, const std::string& line) const {
  const bool isStaged = &line == &m_options.check;
  const auto& file = isStaged ? m_target.NewPath() : m_target.Path();
  const auto failure =
      RunCommand(line, {"HALDEN_FILE=" + file.string(), "HALDEN_TARGET=" + m_target.Path().string()},
                 m_options.commandLimit, m_stop);
  if (failure.empty()) return;
  throw RenderError(std::string("the ") + what + " command " + failure);
}

}  // namespace zr::halden::agent
