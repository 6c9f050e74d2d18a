// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What a publisher asks of ZooKeeper, and what it makes of the answers. All on the connection's thread.
#include <memory>
#include <utility>
#include <vector>

#include "model/access_list.h"
#include "model/error_policy.h"
#include "model/layout.h"
#include "model/node_codec.h"
#include "publish/publisher_core.h"

namespace zr::halden::details {

namespace {

/// Everybody reads the partition, and so what is told there.
bool MayEverybodyRead(const AccessListPtr& access) {
  return !access || (PermissionsOfAnyone(*access) & kRead) != 0;
}

}  // namespace

void PublisherCore::Send(PublisherPhase phase, Request request, ReplyFunction onReply) {
  SetPhase(phase);
  try {
    request.reply = [self = shared_from_this(), onReply = std::move(onReply)](Reply& reply) {
      try {
        onReply(reply);
      } catch (...) {
        self->GiveUpExchange();
        throw;
      }
    };
    m_core->Submit(std::move(request));
  } catch (...) {
    GiveUpExchange();
    throw;
  }
}

/// Whose node is there, and what is in it? With a watch, so that what confirms it also tells of its end. Behind a
/// sync where it is not certain that this server has seen our own last write: what it does not know of would
/// pass for absent.
void PublisherCore::Look() {
  if (m_node.What() == KnownNode::Kind::Held && m_early.underWay) {
    m_early.awaited = true;
    return SetPhase(PublisherPhase::Looking);
  }
  m_early.awaited = false;
  if (m_node.What() != KnownNode::Kind::Held || m_node.MayBeWritten())
    m_core->Submit({.kind = Request::Kind::Sync, .path = m_path});
  Request request{.kind = Request::Kind::Get, .path = m_path, .watch = m_wish.has_value()};
  Send(PublisherPhase::Looking, std::move(request), [this](Reply& reply) { OnLooked(reply); });
}

/// Right behind a write: its answer comes with that of the write, and not a round trip later. Where it cannot be asked for,
/// the usual look comes after the write.
void PublisherCore::LookBehind() {
  m_early = {.number = m_early.number + 1};
  TaskThread::RunGuarded([this] {
    Request request{.kind = Request::Kind::Get, .path = m_path, .watch = true};
    request.reply = [self = shared_from_this(), number = m_early.number](Reply& reply) {
      self->OnLookedBehind(reply, number);
    };
    m_core->Submit(std::move(request));
    m_early.underWay = true;
  });
}

void PublisherCore::OnLookedBehind(Reply& reply, std::uint64_t number) {
  if (number != m_early.number) return;
  m_early.underWay = false;
  if (!std::exchange(m_early.awaited, false) || m_phase != PublisherPhase::Looking) return;
  try {
    OnLooked(reply);
  } catch (...) {
    GiveUpExchange();
    throw;
  }
}

void PublisherCore::OnLooked(Reply& reply) {
  const ErrorAction action = ActionFor(reply.code);
  if (action != ErrorAction::Done && action != ErrorAction::Absent) return Fail(reply.code);
  const char* loss = nullptr;
  if (action == ErrorAction::Absent) {
    if (m_node.What() == KnownNode::Kind::Held) loss = "node deleted by others";
    m_node.OnAbsent();
    m_rivalry.OnGone();
  } else {
    loss = m_node.OnLooked(reply, m_core->SessionId());
    if (m_node.What() == KnownNode::Kind::Confirmed) m_rivalry.OnStood();
  }
  if (loss != nullptr && !(m_wish && m_node.Holds(*m_wish))) return MendLater(loss);
  Step();
}

/// With the node the partition is told of it, so that watchers know it a round trip sooner.
Request PublisherCore::Creation() {
  m_board.SetPublishing();
  m_node.OnCreationBegun(m_core->SessionId());
  Request request{.kind = Request::Kind::Create, .path = m_path};
  request.data = *m_wish;
  request.mode = ZOO_EPHEMERAL;
  request.access = Access();
  if (m_mayTell && m_wish->size() <= kMaxNewestBytes && MayEverybodyRead(request.access)) {
    request.kind = Request::Kind::CreateAndTell;
    request.parentData = EncodeNewest({m_id, *m_wish});
  }
  return request;
}

void PublisherCore::Create() {
  Send(PublisherPhase::Creating, Creation(), [this](const Reply& reply) { OnCreated(reply); });
  LookBehind();
}

void PublisherCore::OnCreated(const Reply& reply) {
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      return Hold();
    case ErrorAction::Conflict:
      return Step();  // there is one: look at it
    case ErrorAction::Absent:
      if (m_wish && m_core->Connected()) return CreateWithParents();
      m_node.OnAbsent();
      return Step();
    default:
      return MayNotTell(reply.code) ? Step() : Fail(reply.code);
  }
}

/// All at once and from the top: requests are carried out in order, and what exists already stays. The service
/// and its partitions are containers: the server removes them when their last child is gone. What others than
/// services may stand below, the chroot, stays open.
std::vector<Request> PublisherCore::ParentCreations() const {
  std::vector<Request> creations;
  const auto& access = Access();
  const auto above = access ? std::make_shared<const AccessList>(AboveAccess(*access)) : nullptr;
  const auto create = [&](zr::String path, int mode, bool outsideChroot) {
    Request& request = creations.emplace_back();
    request.kind = Request::Kind::Create;
    request.path = std::move(path);
    request.outsideChroot = outsideChroot;
    request.mode = mode;
    if (!outsideChroot) request.access = above;
  };
  const auto createAll = [&](const zr::String& path, bool outsideChroot) {
    for (auto slash = path.find('/', 1); slash != zr::String::npos; slash = path.find('/', slash + 1)) {
      create(path.substr(0, slash), ZOO_PERSISTENT, outsideChroot);
    }
    create(path, ZOO_PERSISTENT, outsideChroot);
  };
  if (!m_core->Chroot().empty()) createAll(m_core->Chroot(), true);
  createAll(zr::String(kServicesPath), false);
  create(m_servicePath, ZOO_CONTAINER, false);
  create(PartitionPath(m_servicePath, PartitionOf(m_id)), ZOO_CONTAINER, false);
  return creations;
}

/// Who may create nodes in a partition need not be allowed to write it: then it is not told.
bool PublisherCore::MayNotTell(int code) {
  return ActionFor(code) == ErrorAction::Report && std::exchange(m_mayTell, false);
}

/// That a parent may not be created says little: the server says so of one that is there, too. What went wrong
/// matters only if the node then lacks its parent still.
void PublisherCore::CreateWithParents() {
  const auto error = std::make_shared<int>(ZNONODE);
  for (auto& request : ParentCreations()) {
    request.reply = [error](const Reply& reply) {
      const ErrorAction action = ActionFor(reply.code);
      // Below a parent that is absent all others fail for that alone.
      if (action == ErrorAction::Done || action == ErrorAction::Conflict || action == ErrorAction::Absent)
        return;
      *error = reply.code;
    };
    m_core->Submit(std::move(request));
  }
  Send(PublisherPhase::CreatingWithParents, Creation(),
       [this, error](const Reply& reply) { OnCreatedWithParents(reply, *error); });
  LookBehind();
}

void PublisherCore::OnCreatedWithParents(const Reply& reply, int parentsError) {
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      return Hold();
    case ErrorAction::Conflict:
      return Step();
    case ErrorAction::Absent:
      m_node.OnAbsent();
      return Fail(parentsError);
    default:
      return MayNotTell(reply.code) ? Step() : Fail(reply.code);
  }
}

/// Our node is there.
void PublisherCore::Hold() {
  m_node.OnWritten(0);
  m_pause.OnWritten();
  m_board.CountCreation();
  Step();
}

/// Not what others have written since: that could be another publisher's node by now.
void PublisherCore::Write() {
  m_board.SetPublishing();
  Request request{.kind = Request::Kind::Set, .path = m_path};
  request.data = *m_wish;
  request.version = m_node.Version();
  m_node.OnWriteBegun();
  Send(PublisherPhase::Writing, std::move(request), [this](const Reply& reply) { OnWritten(reply); });
  LookBehind();
}

void PublisherCore::OnWritten(const Reply& reply) {
  switch (ActionFor(reply.code)) {
    case ErrorAction::Done:
      m_node.OnWritten(reply.stat.version);
      m_pause.OnWritten();
      return Step();
    case ErrorAction::Conflict:
      return MendLater("node changed by others");
    case ErrorAction::Absent:
      m_node.OnAbsent();
      return MendLater("node deleted by others");
    default:
      return Fail(reply.code);
  }
}

/// ZooKeeper deletes by version, and every node begins with version 0: one that was deleted and created anew
/// since the look, by a rival that has just come up, would be deleted for the one before. So a foreign node of
/// version 0 is first written, with the very bytes that were read. The answer tells which node that was: the
/// one that was looked at is deleted, at its version 1; another one is left, and looked at.
///
/// That other one then holds the bytes of the one before. They cannot be given back, since nobody has read them,
/// and need not be: its publisher watches it and writes its own again, and is meanwhile listed with data of the
/// same instance, instead of not at all. To wait until a foreign session ends by itself would harm nobody, but
/// leave an instance that is back after a crash to the data of its dead process for a whole session timeout.
///
/// What is left: a node that was created anew and also written once, between the mark's answer and the deletion.
/// A node of our own session is not marked: that would tell all watchers of a change at each removal, and who
/// replaces ours marks it first, which refuses our deletion.
void PublisherCore::Mark() {
  Request request{.kind = Request::Kind::Set, .path = m_path};
  request.data = m_node.Bytes();
  request.version = m_node.Version();
  Send(PublisherPhase::Marking, std::move(request), [this](const Reply& reply) { OnMarked(reply); });
}

void PublisherCore::OnMarked(const Reply& reply) {
  const ErrorAction action = ActionFor(reply.code);
  if (action == ErrorAction::Absent) {
    m_node.OnAbsent();
    return Step();
  }
  if (reply.code == ZNOAUTH) return Delete();  // who may not write a node may still delete it
  if (action != ErrorAction::Done) return Fail(reply.code);
  if (!m_node.IsSame(reply.stat)) return Fail(ZBADVERSION);
  m_node.OnMarked(reply.stat.version);
  if (!m_wish && !m_node.MayBeOurs()) return Step();  // taken back meanwhile
  Delete();
}

void PublisherCore::Delete() {
  Request request{.kind = Request::Kind::Delete, .path = m_path};
  request.version = m_node.Version();
  m_node.OnDeletionBegun();
  Send(PublisherPhase::Deleting, std::move(request), [this](const Reply& reply) { OnDeleted(reply); });
}

void PublisherCore::OnDeleted(const Reply& reply) {
  const ErrorAction action = ActionFor(reply.code);
  // Changed since, or failed: look again.
  if (action != ErrorAction::Done && action != ErrorAction::Absent) return Fail(reply.code);
  const bool foreign = m_node.What() == KnownNode::Kind::Foreign && !m_node.OfOurSessions();
  if (foreign && action == ErrorAction::Done) {
    m_rivalry.OnReplaced(m_node.Owner());
    m_board.CountReplaced(WriterOf(m_node.Bytes()));
  }
  m_node.OnAbsent();
  Step();
}

}  // namespace zr::halden::details
