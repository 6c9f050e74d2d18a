// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "simulation/network.h"

#include <poll.h>

#include "simulation/ensemble.h"

namespace zr::halden::simulation {

namespace {

constexpr int kFirstDescriptor = 1'000'000;  // that no system has: calls with one just fail

Duration Latency(const Ensemble& ensemble) {
  return ensemble.distance + (world->OneIn(100) ? world->Between(5ms, 300ms) : world->Between(100us, 2ms));
}

/// Answers are what fills a way.
Duration Length(const Ensemble& ensemble, const MessagePtr& message) {
  if (ensemble.bandwidth == 0 || !message) return 1ns;
  std::size_t bytes = 100 + message->data.size();
  for (const auto& child : message->children) bytes += 4 + child.size();
  return std::chrono::nanoseconds(bytes * 1'000'000'000 / ensemble.bandwidth);
}

}  // namespace

std::shared_ptr<Link> Link::Open(const std::string& address) {
  for (Ensemble* const ensemble : world->ensembles) {
    for (auto& server : ensemble->servers) {
      if (server.address != address) continue;
      const int number = world->links.empty() ? kFirstDescriptor : world->links.rbegin()->first + 1;
      const auto link = world->links[number] = std::make_shared<Link>(*ensemble, server, number);
      world->After(Latency(*ensemble), [link] { link->Knock(); });
      return link;
    }
  }
  return nullptr;
}

std::shared_ptr<Link> Link::Find(int descriptor) {
  const auto found = world->links.find(descriptor);
  return found == world->links.end() ? nullptr : found->second;
}

/// The request to connect has come to the server, or not: then the network tries again.
void Link::Knock() {
  if (left) return;
  if (server.partitioned) return world->After(1s, [self = shared_from_this()] { self->Knock(); });
  stands = server.mode != Mode::Down && !server.refusing;
  refused = ended = !stands;
  if (stands) server.links.push_back(shared_from_this());
  if (wake) wake();
}

short Link::Ready(short events) const {
  int ready = refused ? POLLERR | POLLHUP : 0;
  if (ended || !inbox.empty()) ready |= events & POLLIN;
  if (stands || refused) ready |= events & POLLOUT;
  return static_cast<short>(ready);
}

void Link::Put(Way& way, MessagePtr message) {
  way.last = std::max(way.last, world->now + Latency(ensemble)) + Length(ensemble, message);
  way.packets.emplace_back(way.last, std::move(message));
  if (!std::exchange(way.moving, true)) Carry(way, way.last - world->now);
}

/// What the network holds back arrives in order all the same.
void Link::Carry(Way& way, Duration delay) {
  world->After(delay, [self = shared_from_this(), &way] {
    if (self->server.partitioned) return self->Carry(way, 200ms);
    if (!way.packets.empty()) {
      const auto message = std::move(way.packets.front().second);
      way.packets.pop_front();
      self->Arrive(way, message);
    }
    way.moving = !way.packets.empty();
    if (way.moving) self->Carry(way, way.packets.front().first - world->now);
  });
}

void Link::Arrive(const Way& way, const MessagePtr& message) {
  if (&way == &toServer) {
    if (!message) return ensemble.Gone(*this);
    if (!closing) ensemble.Arrive(*this, message);
  } else if (!left) {
    ensemble.lastReached = world->now;  // as far as the client can tell
    message ? inbox.push_back(message) : static_cast<void>(ended = true);
    if (wake) wake();
  }
}

MessagePtr Link::Receive() {
  if (inbox.empty()) return nullptr;
  const auto message = inbox.front();
  inbox.pop_front();
  return message;
}

void Link::GiveUp() {
  refused = ended = true;
  wake();
}

void Link::Leave() {
  if (std::exchange(left, true)) return;
  wake = nullptr;
  Put(toServer, nullptr);
  world->links.erase(descriptor);
}

void Link::Break(bool loseTail) {
  if (std::exchange(closing, true)) return;
  if (loseTail) toClient.packets.clear();
  Answer(nullptr);
  ensemble.Gone(*this);
}

}  // namespace zr::halden::simulation
