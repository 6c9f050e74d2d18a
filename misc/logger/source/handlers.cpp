// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <spdlog/details/os.h>
#include <syslog.h>

#include <memory>
#include <string>

#include "line_format.h"
#include "line_output.h"
#include "logger/sink.h"
#include "zrstl/thread_safety.h"

namespace zr::logging {

namespace {

/// Lines of one format to one output. Its mutex is held across the write: it is what keeps lines apart.
template <typename Format, typename Output>
class LineWriter {
 public:
  template <typename Target, typename... Style>
  explicit LineWriter(const Target& target, const Style&... style) : m_format(style...), m_output(target) {}

  void Write(const LogRecord& record) {
    constexpr std::size_t keepBytes = 64UL * 1024;
    const zr::MutexLock lock(m_mtx);
    if (m_line.capacity() > keepBytes) m_line = std::string();
    m_line.clear();
    m_format.Append(record, m_line);
    m_output.Write(m_line);
  }

 private:
  zr::Mutex m_mtx;
  Format m_format ZR_GUARDED_BY(m_mtx);
  Output m_output ZR_GUARDED_BY(m_mtx);
  std::string m_line ZR_GUARDED_BY(m_mtx);
};

template <typename Format, typename Output, typename... Arguments>
Handler MakeWriter(const Arguments&... arguments) {
  return [writer = std::make_shared<LineWriter<Format, Output>>(arguments...)](const LogRecord& record) {
    writer->Write(record);
  };
}

bool TakesColours(int descriptor) {
  namespace os = spdlog::details::os;
  return isatty(descriptor) == 1 && os::getenv("NO_COLOR").empty() && os::is_color_terminal();
}

int SyslogPriority(LogLevel level) {
  if (level >= ZRLOG_ALERT) return LOG_CRIT;
  if (level >= ZRLOG_ERROR) return LOG_ERR;
  if (level >= ZRLOG_WARNING) return LOG_WARNING;
  return level >= ZRLOG_INFO ? LOG_INFO : LOG_DEBUG;
}

}  // namespace

Handler MakeConsoleHandler(int descriptor) {
  return MakeWriter<details::TextFormat, details::DescriptorOutput>(descriptor, TakesColours(descriptor));
}

Handler MakeStderrHandler() {
  return MakeConsoleHandler(STDERR_FILENO);
}

Handler MakeFileHandler(const FileOptions& options) {
  return MakeWriter<details::TextFormat, details::FileOutput>(options, false);
}

Handler MakeJsonFileHandler(const FileOptions& options) {
  return MakeWriter<details::JsonFormat, details::FileOutput>(options);
}

Handler MakeJsonHandler(int descriptor) {
  return MakeWriter<details::JsonFormat, details::DescriptorOutput>(descriptor);
}

Handler MakeSyslogHandler() {
  return [](const LogRecord& record) {
    std::string line;
    details::AppendWhatAndWhere(record, line);
    syslog(SyslogPriority(record.level), "%s", line.c_str());
  };
}

void Reopen() noexcept {
  details::FileOutput::ReopenAll();
}

zr::String SourcePath(const ConstSourcePtr& source) {
  if (source == nullptr) return "-";
  if (source->Parent() == nullptr) return source->Name();
  zr::String path;
  for (ConstSourcePtr node = source->Reverse(); node != nullptr; node = node->Parent()) {
    if (!path.empty()) path += '.';
    path += node->Name();
  }
  return path;
}

}  // namespace zr::logging
