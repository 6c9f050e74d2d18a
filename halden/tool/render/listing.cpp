// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "render/listing.h"

#include <cstddef>

#include "render/instance_text.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {}  // namespace

std::string InstanceTable(const std::vector<Instance>& instances, const ShortIds& ids, const Look& look,
                          TimePoint now) {
  Table table({{"DC", kLeastName}, {"ID"}, {"HOST", kLeastText}, {"PORTS", kLeastText}, {"STATUS"}, {"AGE"}});
  for (const auto& [dataCenter, id, data, held] : instances) {
    const std::string status = StatusText(data) + (held ? ", held" : "");
    table.AddRow({{EscapeControls(dataCenter)},
                  {ids.Text(id)},
                  {EscapeControls(data.host())},
                  {PortText(data)},
                  {status, status == kStatusOk ? Tone::Plain : Tone::Doubtful},
                  {Age(data.start_time_ms(), now)}});
  }
  return table.Text(look);
}

std::string ServiceTable(const std::vector<ServiceCount>& services, const Look& look) {
  Table table({{"SERVICE", kLeastName}, {"DC", kLeastName}, {"INSTANCES", 0, true}});
  for (const auto& [dataCenter, name, instances] : services) {
    table.AddRow({{EscapeControls(name)},
                  {EscapeControls(dataCenter)},
                  {instances ? std::to_string(*instances) : "?", !instances        ? Tone::Bad
                                                                 : *instances == 0 ? Tone::Faint
                                                                                   : Tone::Plain}});
  }
  return table.Text(look);
}

}  // namespace zr::halden::tool
