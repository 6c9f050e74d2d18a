// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/ensemble_reader.h"

#include <fmt/format.h>

#include <condition_variable>
#include <mutex>
#include <utility>

#include "ensemble/reachability.h"
#include "model/error_policy.h"
#include "render/text.h"

namespace zr::halden::tool {

namespace {

constexpr std::chrono::seconds kSessionTimeout{10};

}  // namespace

/// What has come: written on the connection's thread, read on the reader's.
class EnsembleReader::Inbox final : public details::ConnectionListener {
 public:
  template <typename Function>
  auto Change(const Function& function) {
    const std::lock_guard lock(mtx);
    changed.notify_all();
    return function(*this);
  }

  void OnConnected(details::Arrival /*arrival*/) override {
    Change([](Inbox& inbox) { inbox.connected = true; });
  }
  /// No answer will come any more, or an error: either way the questions are asked again.
  void OnDisconnected(bool /*epochOver*/) override {
    Change([](Inbox& inbox) {
      inbox.connected = false;
      ++inbox.round;
    });
  }
  void OnSessionError(int /*code*/) override {}

  void Put(std::uint64_t toRound, std::size_t index, details::Reply& reply) {
    Change([&](Inbox& inbox) {
      if (inbox.round != toRound) return;
      inbox.replies[index] = std::move(reply);
      --inbox.open;
    });
  }

  std::mutex mtx;  // guards all below; held for no call of foreign code
  std::condition_variable changed;
  bool connected = false;
  std::uint64_t round = 0;  // answers to what was asked in an earlier one are dropped
  std::vector<details::Reply> replies;
  std::size_t open = 0;
};

EnsembleReader::EnsembleReader(const zr::String& dataCenter, const zr::String& ensemble, const Limit& limit)
    : m_ensemble(ensemble),
      m_limit(limit),
      m_inbox(std::make_shared<Inbox>()),
      m_core(std::make_shared<details::ConnectionCore>(
          details::ConnectionOptions{{ensemble}, true, {}, kSessionTimeout, dataCenter})) {
  m_core->Start(nullptr);
  m_core->Post([core = m_core, inbox = m_inbox] { core->AddListener(inbox); });
}

EnsembleReader::~EnsembleReader() {
  m_core->Stop();
  m_core->AwaitClosed(kReadersClosingLimit);
}

bool EnsembleReader::Await(const std::function<bool(const Inbox&)>& condition) {
  constexpr std::chrono::milliseconds interval{50};  // how late a cancellation is noticed
  std::unique_lock lock(m_inbox->mtx);
  while (!condition(*m_inbox)) {
    if (m_limit.Over()) return false;
    m_inbox->changed.wait_for(lock, interval);
  }
  return true;
}

bool EnsembleReader::AwaitSession() {
  return Await([](const Inbox& inbox) { return inbox.connected; });
}

std::vector<details::Reply> EnsembleReader::Ask(const std::vector<Question>& questions) {
  std::vector<details::Reply> replies(questions.size());
  std::vector<std::size_t> open;
  for (std::size_t i = 0; i < questions.size(); ++i) {
    replies[i].code = ZOPERATIONTIMEOUT;
    open.push_back(i);
  }
  while (!open.empty() && !m_limit.Over() && AwaitSession()) {
    const auto round = m_inbox->Change([&](Inbox& inbox) {
      inbox.replies.assign(open.size(), {});
      for (auto& reply : inbox.replies) reply.code = ZOPERATIONTIMEOUT;
      inbox.open = open.size();
      return ++inbox.round;
    });
    std::vector<Question> batch;
    batch.reserve(open.size());
    for (const std::size_t index : open) batch.push_back(questions[index]);
    m_core->Post([core = m_core, inbox = m_inbox, batch = std::move(batch), round] {
      for (std::size_t i = 0; i < batch.size(); ++i) {
        core->Submit({.kind = batch[i].kind,
                      .path = batch[i].path,
                      .outsideChroot = batch[i].outsideChroot,
                      .reply = [inbox, round, i](details::Reply& reply) { inbox->Put(round, i, reply); }});
      }
    });
    Await([round](const Inbox& inbox) { return inbox.open == 0 || inbox.round != round; });
    std::vector<std::size_t> unanswered;
    m_inbox->Change([&](Inbox& inbox) {
      for (std::size_t i = 0; i < open.size(); ++i) {
        const bool answered = details::ActionFor(inbox.replies[i].code) != details::ErrorAction::AwaitSession;
        if (answered) replies[open[i]] = std::move(inbox.replies[i]);
        if (!answered) unanswered.push_back(open[i]);
      }
    });
    open = std::move(unanswered);
  }
  return replies;
}

std::string TroubleOf(const EnsembleReader& reader, int code, std::chrono::milliseconds patience) {
  if (code != ZOPERATIONTIMEOUT) return reader.DataCenter() + ": " + zerror(code);
  return fmt::format("{}: not read within {}: {}", reader.DataCenter(), SecondsText(patience),
                     WhyUnread({{}, reader.Status(), {}}, reader.Ensemble()));
}

}  // namespace zr::halden::tool
