// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench.h"
#include "client_library.h"

namespace zr::halden::bench {

/// The client library, kept busy: writes are sent as many at a time as pay, in order. One thread; throws when the
/// server refuses or is too slow.
class RawWriter {
 public:
  explicit RawWriter(const std::string& hosts);
  ~RawWriter();

  RawWriter(const RawWriter&) = delete;
  RawWriter& operator=(const RawWriter&) = delete;

  void Create(const std::string& path, const std::string& data);  ///< or leaves the one that is there
  /// As a publisher does: the partition is told of it.
  void Join(const std::string& path, const std::string& data);
  void Set(const std::string& path, const std::string& data);
  void Delete(const std::string& path);
  /// Waits until all is answered.
  void Finish();

 private:
  static void OnSession(zhandle_t*, int type, int state, const char*, void* self);
  static void OnString(int code, const char*, const void* self) { OnVoid(code, self); }
  static void OnStat(int code, const Stat*, const void* self) { OnVoid(code, self); }
  static void OnVoid(int code, const void* self);

  void Begin();

  zhandle_t* m_handle = nullptr;
  std::mutex m_mtx;  // guards all below
  std::condition_variable m_changed;
  bool m_connected = false;
  int m_error = 0;
  std::size_t m_outstanding = 0;
  std::array<zoo_op_result_t, 2> m_results{};  // of a Join; nobody looks at them
};

/// The yardstick: one build of the client library alone, as a loop written by hand would use it. It reads services
/// as the library under test does, with the same requests, watches included, as many at a time as pay; it decodes
/// nothing. With a tally it then follows them: it reads again what an event names, and tells what became of it.
///
/// After `Begin` everything runs on one thread: the client library's own, or the one given to the build without.
class RawReader {
 public:
  static constexpr std::size_t kWindow = 500;

  /// `build`: kThreaded or kSingle. `tally`: null when only the first load counts; nothing is remembered then.
  /// `window`: how many requests are under way at most.
  RawReader(Side build, std::string hosts, Tally* tally, std::size_t window = kWindow);
  ~RawReader();

  RawReader(const RawReader&) = delete;
  RawReader& operator=(const RawReader&) = delete;

  /// Begins to open a session and to read all nodes of the services; returns at once.
  void Begin(std::vector<std::string> servicePaths);
  /// Waits until that is done; the number of instances read.
  std::size_t AwaitLoaded();

 private:
  struct Listing {
    RawReader* reader;
    std::string path;
    bool ofService;
  };
  struct Instance {
    RawReader* reader;
    std::string path;
    bool known;
  };

  static void OnSession(zhandle_t*, int type, int state, const char*, void* self);
  static void OnWatch(zhandle_t*, int type, int, const char* path, void* self);
  static void OnChildren(int code, const String_vector* names, const Stat*, const void* listing);
  static void OnData(int code, const char*, int, const Stat*, const void* instance);

  void List(std::string path, bool ofService);
  void Found(std::string path);
  void Read(Instance* instance);
  void SendReads();
  void Forget(const std::string& path);
  void Answered(int code);

  const ClientLibrary& m_library;
  const std::string m_hosts;
  Tally* const m_tally;
  const std::size_t m_window;
  zhandle_t* m_handle = nullptr;
  std::optional<HandleThread> m_thread;  // for the build that has none

  // Owned by the thread that calls back.
  std::vector<std::string> m_services;
  std::deque<Listing> m_listings;    // deques: the library holds the elements' addresses
  std::deque<Instance> m_instances;  // every one ever seen
  std::unordered_map<std::string_view, Instance*> m_present;  // while following
  std::deque<Instance*> m_toRead;
  std::size_t m_outstanding = 0;
  std::size_t m_read = 0;

  std::mutex m_mtx;  // guards the two below
  std::condition_variable m_changed;
  bool m_loaded = false;
  int m_error = 0;
};

}  // namespace zr::halden::bench
