// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace zr::halden::bench {

/// The yardstick: the client library alone, kept busy. It reads a service's nodes as the library under test
/// does, with the same requests, watches included, as many at a time as pay; it decodes nothing and keeps
/// nothing.
///
/// Requests are made by the calling thread, answers counted by the client's own. One operation at a time.
class RawClient {
 public:
  explicit RawClient(std::string hosts) : m_hosts(std::move(hosts)) {}
  ~RawClient() { Close(); }

  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  void Open();
  void Close();

  struct Node {
    std::string path;
    std::string data;
    int mode = 0;
  };
  /// Creates all nodes, in order; throws when one fails.
  void Create(const std::vector<Node>& nodes);

  /// Begins to open a session and to read all nodes of the service; returns at once.
  void BeginRead(const std::string& servicePath);
  /// Waits until that is done; the number of instances read.
  std::size_t FinishRead();

 private:
  struct Listing {
    RawClient* client;
    std::string path;
    bool ofService;
  };

  static void OnSession(zhandle_t*, int type, int state, const char*, void* self);
  static void OnWatch(zhandle_t*, int, int, const char*, void*) {}
  static void OnCreated(int code, const char*, const void* self);
  static void OnChildren(int code, const String_vector* names, const Stat*, const void* listing);
  static void OnData(int code, const char*, int, const Stat*, const void* self);

  void List(std::string path, bool ofService);
  void SendReads();
  void Answered(int code);

  const std::string m_hosts;
  zhandle_t* m_handle = nullptr;
  std::mutex m_mtx;  // guards all below
  std::condition_variable m_changed;
  bool m_connected = false;
  int m_error = 0;
  std::size_t m_outstanding = 0;
  std::size_t m_read = 0;
  std::deque<std::string> m_toRead;
  std::deque<Listing> m_listings;
  std::string m_servicePath;
};

}  // namespace zr::halden::bench
