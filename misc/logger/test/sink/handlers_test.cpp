// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <array>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>
#include <thread>
#include <vector>

#include "logger/sink.h"

namespace {

std::string g_syslogLine;  // "priority text"

}  // namespace

/// In place of the C library's: there need not be a daemon, and the line is to be seen.
extern "C" ZR_EXPORT void syslog(int priority, const char* format, ...) {
  std::array<char, 200> text{};
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  g_syslogLine = std::to_string(priority) + ' ' + text.data();
}

namespace zr::logging {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using Json = nlohmann::ordered_json;

class Handlers : public ::testing::Test {
 protected:
  Handlers() { std::filesystem::create_directory(m_folder); }
  ~Handlers() override { std::filesystem::remove_all(m_folder); }

  std::string Path(const std::string& name) const { return m_folder + '/' + name; }

  std::string Read(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  /// The messages of a file of JSON lines.
  std::vector<std::string> Messages(const std::string& name) const {
    std::vector<std::string> messages;
    std::istringstream lines(Read(name));
    for (std::string line; std::getline(lines, line);) messages.push_back(Json::parse(line)["message"]);
    return messages;
  }

  static void Write(const Handler& handler, const zr::String& text,
                    const ConstSourcePtr& source = MakeSource("leaf", MakeSource("root")),
                    LogLevel level = ZRLOG_WARNING) {
    timespec now{};
    timespec_get(&now, TIME_UTC);
    handler(LogRecord{level, 0, ZRLOG_DECODE_AS_KV, source, "a/file.cpp", 7, text, now, 42, {}});
  }

  Json WriteJson(const zr::String& text) const {
    std::filesystem::remove(Path("json"));
    Write(MakeJsonFileHandler({Path("json")}), text);
    return Json::parse(Read("json"));
  }

  const std::string m_folder = ::testing::TempDir() + "halden-log-" + std::to_string(getpid());
};

TEST_F(Handlers, TextIsOneLineWhateverTheMessageHolds) {
  Write(MakeFileHandler({Path("f")}), "odd {} %v\n\r\033[1m\xC2\x9B text, key=\xC3\xA9");
  EXPECT_THAT(Read("f"), MatchesRegex("20..-..-..T..:..:..\\.[0-9]{6}[+-]..:.. warning 42 \\[root\\.leaf\\] "
                                      "odd \\{\\} %v\\\\n\\\\x0d\\\\x1b\\[1m\\\\x9b text, key=\xC3\xA9 "
                                      "\\(file\\.cpp:7\\)\n"));
  Write(MakeSyslogHandler(), "100%s\n", nullptr, ZRLOG_ERROR);
  EXPECT_EQ(g_syslogLine, std::to_string(LOG_ERR) + " [-] 100%s\\n (file.cpp:7)");
}

TEST_F(Handlers, JsonTakesKeysAndValuesApartAndKeepsWhatDoesNotFit) {
  const std::array<std::array<const char*, 3>, 10> cases{{
      {"ConnectDC called, dc_name=eu, x", "ConnectDC called", R"({"dc_name":"eu, x"})"},
      {"no ensemble with dc_name=", "no ensemble with", R"({"dc_name":""})"},
      {"made, n=a=b, x=, y.z-1=c, d", "made", R"({"n":"a=b","x":"","y.z-1":"c, d"})"},
      {"a=1 b=2, c d=3", "", R"({"a":"1 b=2, c d=3"})"},
      {"f: x, path=/a/b", "f: x", R"({"path":"/a/b"})"},
      {"= 1, a = 2, 3=4, (x=5", "= 1, a = 2, 3=4, (x=5", "null"},
      {"twice, a=1, a=2", "twice, a=1, a=2", "null"},
      {"", "", "null"},
      {"a, ", "a, ", "null"},
      {"said, \"k\"=1, k=\"\\", "said, \"k\"=1", R"({"k":"\"\\"})"},
  }};
  for (const auto& [text, message, fields] : cases) {
    const Json json = WriteJson(text);
    EXPECT_EQ(json["message"], message) << text;
    EXPECT_EQ(json.value("fields", Json()).dump(), fields) << text;
  }
  Json whole = WriteJson("text, key=value");
  EXPECT_THAT(std::string(whole["time"]), MatchesRegex("20.*\\.[0-9]{6}[+-]..:.."));
  whole.erase("time");
  EXPECT_EQ(whole.dump(), R"({"level":"warning","thread":42,"source":"root.leaf","message":"text",)"
                          R"("fields":{"key":"value"},"file":"file.cpp","line":7})");
  zr::String many = "many";
  for (int i = 0; i < 33; ++i) many += ", k" + std::to_string(i) + "=v";
  EXPECT_EQ(WriteJson(many)["message"], many);
}

TEST_F(Handlers, WhatCannotBeWrittenThrowsAndNoSignalEndsTheProcess) {
  EXPECT_THROW(Write(MakeFileHandler({"/dev/full"}), "text"), std::system_error);
  EXPECT_THROW(MakeFileHandler({Path("none/f")}), std::system_error);
  EXPECT_THROW(Write(MakeConsoleHandler(-1), "text"), std::system_error);
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  EXPECT_THROW(MakeFileHandler({Path("fifo")}), std::system_error) << "or it waits for a reader";
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_NONBLOCK), 0);
  while (write(ends[1], Path("f").data(), 10) > 0) continue;
  EXPECT_THROW(Write(MakeConsoleHandler(ends[1]), "text"), std::system_error) << "nobody reads";
  close(ends[0]);
  EXPECT_THROW(Write(MakeJsonHandler(ends[1]), "text"), std::system_error) << "nobody can read";
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  close(ends[1]);
}

TEST_F(Handlers, ALineThatWasTornDoesNotSpoilTheNext) {
  const Handler handler = MakeFileHandler({Path("f")});
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit small{10, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_THROW(Write(handler, "first"), std::system_error);
  EXPECT_THROW(Write(handler, "second"), std::system_error);
  setrlimit(RLIMIT_FSIZE, &limit);
  Write(handler, "third");
  EXPECT_THAT(Read("f"), MatchesRegex(".{10}\n20.* third \\(file.cpp:7\\)\n"));
}

TEST_F(Handlers, AFullFileMovesAwayAndWhereItCannotNothingIsLost) {
  const FileOptions options{Path("f"), 1, 2};
  for (const char* text : {"1", "2", "3", "4"}) Write(MakeJsonFileHandler(options), text);
  EXPECT_THAT(Messages("f"), ElementsAre("4"));
  EXPECT_THAT(Messages("f.1"), ElementsAre("3"));
  EXPECT_THAT(Messages("f.2"), ElementsAre("2"));
  EXPECT_FALSE(std::filesystem::exists(Path("f.3")));
  std::filesystem::remove(Path("f.2"));
  std::filesystem::create_directories(Path("f.2/in the way"));
  for (const char* text : {"5", "6"}) Write(MakeJsonFileHandler(options), text);
  EXPECT_THAT(Messages("f"), ElementsAre("4", "5", "6"));
  EXPECT_THAT(Messages("f.1"), ElementsAre("3"));
}

TEST_F(Handlers, ReopenLeavesAMovedFileAndTriesUntilThePathCanBeOpened) {
  const Handler handler = MakeJsonFileHandler({Path("f"), 0});
  Write(handler, "1");
  std::filesystem::rename(Path("f"), Path("moved"));
  Write(handler, "2");
  Reopen();
  Write(handler, "3");
  EXPECT_THAT(Messages("moved"), ElementsAre("1", "2"));
  EXPECT_THAT(Messages("f"), ElementsAre("3"));
  std::filesystem::remove(Path("f"));
  std::filesystem::create_directory(Path("f"));
  Reopen();
  EXPECT_THROW(Write(handler, "4"), std::system_error);
  std::filesystem::remove(Path("f"));
  Write(handler, "5");
  EXPECT_THAT(Messages("f"), ElementsAre("5"));
}

TEST_F(Handlers, ThreadsThatLogWhileAllChangesGetEachLineWholeOrCounted) {
  constexpr int lines = 300;
  SetHandler("file", MakeJsonFileHandler({Path("f"), 2000, 1000}));
  SetHandlerLevel("stderr", ZRLOG_ERROR);
  SetMinimumLoggingLevel(ZRLOG_INFO);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([] {
      for (int i = 0; i < lines; ++i) {
        ZRLOG(ZRLOG_INFO, MakeSource("s")) << "line, number=" << i;
      }
    });
  }
  for (int i = 0; i < lines; ++i) {
    SetHandler("other", [](const LogRecord&) {}, {ZRLOG_DEBUG, i % 2 == 0 ? 0U : 10U});
    Reopen();
    SetHandlerLevel("other", ZRLOG_ERROR);
    RemoveHandler("other");
  }
  for (auto& thread : threads) thread.join();
  SetMinimumLoggingLevel(ZRLOG_WARNING);
  EXPECT_EQ(GetHandlerCounters()["file"].written, 3U * lines);
  RemoveHandler("file");
  std::size_t found = 0;
  for (const auto& file : std::filesystem::directory_iterator(m_folder)) {
    found += Messages(file.path().filename()).size();
  }
  EXPECT_EQ(found, 3U * lines);
}

}  // namespace
}  // namespace zr::logging
