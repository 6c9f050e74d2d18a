// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "halden/service_id.h"
#include "zr/messaging/halden/service.pb.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden::testing {

class WireSession;

/// The bytes of an instance's node, for whoever writes it with a client of his own. Never compressed.
ZR_EXPORT std::string EncodeInstance(const zr::messaging::halden::ServiceInstanceData& data);

/// Writes instances into an ensemble as the test says, and nobody else: their nodes are persistent, belong to no
/// session, and stay until the test removes them or wipes the servers. So a test sees the program that watches them,
/// and not also how a publisher recovers; ServicePublisher is for that.
///
/// It goes straight to the servers, without halden and without a client library, and shares nothing with either.
///
/// Threads: one at a time. Every operation waits until a server has confirmed it, through lost connections, elections
/// and expired sessions, up to kLimit.
/// Ownership: needs nothing but the servers; nodes stay when the object goes.
/// Errors: TestingError when no server confirms it in time, and from the constructor for a connect string without
/// ports; ZooError when the server refuses it (an ACL, a bad name, more than a megabyte).
class ZR_EXPORT InstanceWriter {
 public:
  /// `connectString`: "host:port[,host:port...][/chroot]". The chroot is made with the first instance.
  explicit InstanceWriter(const std::string& connectString);
  ~InstanceWriter();

  InstanceWriter(const InstanceWriter&) = delete;
  InstanceWriter& operator=(const InstanceWriter&) = delete;

  /// Adds the instance, or replaces what it publishes. `service_name` is filled in where it is empty.
  void Publish(const zr::String& service, const ServiceId& id,
               zr::messaging::halden::ServiceInstanceData data);
  /// As above, with a new id, which it returns.
  ServiceId Publish(const zr::String& service, zr::messaging::halden::ServiceInstanceData data);
  /// Writes any bytes into the instance's node: what a broken publisher would do.
  void PublishBytes(const zr::String& service, const ServiceId& id, const std::string& bytes);
  /// No effect when it is not there.
  void Remove(const zr::String& service, const ServiceId& id);

 private:
  zr::String NodePath(const zr::String& service, const ServiceId& id) const;
  void CreateParents(const zr::String& path);

  const zr::String m_chroot;
  const std::unique_ptr<WireSession> m_session;
};

}  // namespace zr::halden::testing
