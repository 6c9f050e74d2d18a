// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zr::halden::details {

/// The client library's own log, on its way to the log sink under the source "zookeeper". The library writes
/// its lines from any thread, possibly under locks of its own, and gives no context: so they are only queued
/// here, and connections' threads hand them on. Lines of one place in the library come through at most once
/// every few seconds (a client that finds no server writes two a try), with the number left out.
///
/// Its errors are logged as warnings, its warnings as information: they are tries that failed, and what they
/// mean for a connection is said by the connection.

/// A `log_callback_fn` for zookeeper_init2.
void QueueClientLogLine(const char* line);

/// Hands on what is queued. Any thread that holds no lock.
void DrainClientLog();

}  // namespace zr::halden::details
