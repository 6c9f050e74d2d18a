// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/epoch.h"

namespace zr::halden::simulation {

using namespace std::chrono_literals;
using details::Clock;
using details::Epoch;
using details::Reply;
using details::Request;
using Kind = Request::Kind;

/// What the two programs differ in: one has a real server and the real client library, the other the simulated ones.
struct Side {
  std::string address;
  /// Until something has happened to one of the sockets, or `end`.
  std::function<void(std::vector<pollfd>& sockets, details::Clock::time_point end)> wait;
  /// Breaks the connection that has this socket.
  std::function<void(int socket)> cut;
};

inline constexpr std::chrono::milliseconds kTimeout{4000};

struct Client {
  void Open(const clientid_t* session = nullptr) {
    connected = false;
    epoch = std::make_shared<Epoch>(
        [this](Clock::duration, details::TaskThread::Task task) { tasks.push_back(std::move(task)); }, "",
        [this](Epoch& its, int state) {
          connected = state == ZOO_CONNECTED_STATE;
          const bool known = its.Session().client_id != 0;
          out << name << ": state " << state << (known ? " of a session" : "") << "\n";
        },
        [this](int type, int, const zr::String& path) {
          out << name << ": event " << type << " " << path << "\n";
        });
    if (epoch->Open(side.address, kTimeout, session) != 0) throw std::runtime_error("no handle");
    Await([this] { return connected; });
  }

  void End() const {
    const auto farewell = epoch->Close();
    while (farewell && farewell->Read() == details::Farewell::Result::Waiting) {
      std::vector<pollfd> sockets{{farewell->Socket(), POLLIN, 0}};
      side.wait(sockets, Clock::now() + 10ms);
    }
  }

  void Replace() {
    const clientid_t session = epoch->Session();
    epoch->Abandon();
    Open(&session);
  }

  void Ask(Request request) {
    ++outstanding;
    request.reply = [this, kind = request.kind, path = request.path](const Reply& reply) {
      Tell(kind, path, reply);
    };
    epoch->Submit(std::move(request));
  }

  void AwaitAnswers() {
    Await([this] { return outstanding == 0; });
  }

  void Tell(Kind kind, const std::string& path, const Reply& reply) {
    --outstanding;
    out << name << ": " << static_cast<int>(kind) << " " << path << " -> " << reply.code;
    if (reply.code == ZOK && kind != Kind::Create && kind != Kind::Sync && kind != Kind::Delete) {
      const Stat& stat = reply.stat;
      const bool own = stat.ephemeralOwner == epoch->Session().client_id;
      out << " czxid @" << stat.czxid << "@ mzxid @" << stat.mzxid << "@ pzxid @" << stat.pzxid
          << "@ version " << stat.version << " cversion " << stat.cversion << " children " << stat.numChildren
          << " length " << stat.dataLength
          << (stat.ephemeralOwner == 0 ? ""
              : own                    ? " own"
                                       : " foreign")
          << " \"" << reply.value << "\"";
      const std::set<std::string> names(reply.children.begin(), reply.children.end());
      for (const auto& child : names) out << " " << child;
    }
    out << "\n";
  }

  void Await(const std::function<bool()>& reached) {
    for (const auto end = Clock::now() + 20s; !reached();) {
      if (Clock::now() > end) throw std::runtime_error("no answer: " + out.str());
      for (const auto& task : std::exchange(tasks, {})) task();
      std::vector<pollfd> sockets;
      const auto until = epoch->Await(sockets);
      if (!sockets.empty()) lastSocket = sockets.front().fd;
      side.wait(sockets, std::min(until, Clock::now() + 20ms));
      for (const auto& socket : sockets) {
        if (socket.revents != 0) epoch->Ready(socket);
      }
    }
  }

  const std::string name;
  const Side& side;
  std::ostringstream& out;
  std::shared_ptr<Epoch> epoch{};
  std::vector<details::TaskThread::Task> tasks{};
  int lastSocket = -1;
  int outstanding = 0;
  bool connected = false;
};

inline Request Draw(std::mt19937& random, const std::string& root) {
  static constexpr std::array names = {"", "/a", "/b", "/a/x", "/a/y", "/b/x", "/b/x/z"};
  static constexpr std::array kinds = {Kind::Get,    Kind::GetChildren, Kind::Exists, Kind::Create,
                                       Kind::Create, Kind::Set,         Kind::Delete};
  const bool watch = random() % 2 == 0;
  Request request{
      .kind = kinds[random() % kinds.size()], .path = root + names[random() % names.size()], .watch = watch};
  if (request.path == root && request.kind == Kind::Delete) request.kind = Kind::Exists;
  if (request.kind == Kind::Create || request.kind == Kind::Set)
    request.data = std::string(random() % 5, 'd');
  if (request.kind == Kind::Create && random() % 3 == 0) request.mode = ZOO_EPHEMERAL;
  if (random() % 3 == 0) request.version = static_cast<int>(random() % 3);
  return request;
}

/// Instead of each transaction, between two "@", its place among all that were told: others come between them.
inline std::string WithRanks(const std::string& text) {
  std::vector<std::string> parts(1);
  for (const char letter : text) letter == '@' ? parts.emplace_back() : parts.back() += letter;
  std::map<std::int64_t, std::size_t> ranks;
  for (std::size_t i = 1; i < parts.size(); i += 2) ranks[std::stoll(parts[i])] = 0;
  std::size_t rank = 0;
  for (auto& [zxid, its] : ranks) its = ++rank;
  std::string result;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    result += i % 2 == 0 ? parts[i] : std::to_string(ranks[std::stoll(parts[i])]);
  }
  return result;
}

/// Plays a random sequence of requests, of two clients, and tells what came of each: codes, nodes, events, in their order.
inline std::string Transcript(unsigned seed, const Side& side) {
  std::mt19937 random(seed);
  std::ostringstream out;
  Client a{"a", side, out};
  Client b{"b", side, out};
  const std::string root = "/root" + std::to_string(seed);
  a.Open();
  b.Open();
  a.Ask({.kind = Kind::Create, .path = root});
  a.AwaitAnswers();
  for (int step = 0; step < 60; ++step) {
    Client& one = random() % 2 == 0 ? a : b;
    Client& other = &one == &a ? b : a;
    const auto what = random() % 16;
    if (what == 0) {
      one.End();
      one.Open();
    } else if (what == 1) {
      one.Replace();
    } else if (what == 2) {
      other.connected = false;
      side.cut(other.lastSocket);
    }
    for (auto count = 1 + random() % 4; count > 0; --count) one.Ask(Draw(random, root));
    one.AwaitAnswers();
    if (what == 2) other.Await([&] { return other.connected; });
    for (Client* client : {&other, &one}) {  // behind all events
      client->Ask({.kind = Kind::Sync, .path = root});
      client->AwaitAnswers();
    }
  }
  return WithRanks(out.str());
}

}  // namespace zr::halden::simulation
