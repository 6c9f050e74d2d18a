// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// How a reader learns of an instance that joins before it has read the instance's own node: a publisher leaves the newest
// one in the partition's data, in the transaction that creates its node. It is a hint: the node itself is read and
// watched as always, and what it says then counts.
#include <utility>

#include "model/node_codec.h"
#include "watch/service_reader.h"

namespace zr::halden::details {

/// Right behind the list, which it is held against. Of many joins at once it would tell the last, for as many reads.
void ServiceReader::AskForNewest(std::uint8_t number) {
  constexpr std::size_t few = 4;
  const bool wanted = m_phase == Phase::Following && m_trust != Trust::Doubtful && !m_fullRead &&
                      m_ledger.Pending() <= few && !m_partitions[number].list.read.audit;
  if (!wanted) return;
  Submit(Request::Kind::Get, PartitionPath(m_path, number), false,
         [number](ServiceReader& self, const Reply& reply) { self.OnNewest(number, reply); });
}

/// What it names may have gone since. It has not when the list before it has it and both are of one transaction, unless
/// an event has come since: servers tell events before the answers that show what they are about, and both the list
/// and the read of the node itself would be asked for again.
void ServiceReader::OnNewest(std::uint8_t number, const Reply& reply) {
  Partition& partition = m_partitions[number];
  const ReadState& list = partition.list.read;
  const bool fits = reply.code == ZOK && m_phase == Phase::Following && m_trust != Trust::Doubtful &&
                    partition.listed && !list.reading && !list.dirty &&
                    partition.list.pzxid == reply.stat.mzxid;
  if (!fits) return;
  auto newest = DecodeNewest(reply.value);
  if (!newest) return;
  const auto instance = partition.instances.find(newest->id);
  if (instance == partition.instances.end() || instance->second.listing != partition.listing) return;
  const ReadState& read = instance->second.read;
  if (!read.reading || read.again || m_delivery->Seen(newest->id) != NodeVersion{}) return;
  auto decoded = DecodeNode(newest->bytes);
  if (!decoded.payload) return;
  m_delivery->Put(newest->id, {reply.stat.mzxid, reply.stat.mzxid}, std::move(*decoded.payload), false);
}

}  // namespace zr::halden::details
