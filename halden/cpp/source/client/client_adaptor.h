// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <memory>

#include "client/farewell.h"

/// Our side of the seam inside the client library. Its single-threaded build is made for one thread in a process;
/// we run a handle on each connection's thread. The library's core calls a thin layer of functions for what
/// depends on threads. Three of those are defined here instead (the build makes the library's own ones weak):
///
/// - `adaptor_send_queue`: requests are only queued where they are made, and sent by the connection's loop, all
///   at once. The library's own sends each by itself from inside the call, and when that finds the connection
///   broken it goes on in the next one as if nothing had happened, in the middle of a request.
/// - `get_xid`: the number of a request, from a counter of each thread's own.
/// - `log_message`: the library's formats into one static buffer. Its lines go to the log sink under the source
///   "zookeeper", those of one place in the library at most once in some seconds, with the number left out (a
///   client that finds no server writes two a try). Its errors become warnings, its warnings information: they
///   are tries that failed, and what they mean for a connection is said by the connection. (An address in them can be
///   another handle's: the library keeps the last one's text in a static buffer.)
namespace zr::halden::details {

/// Closes the handle without a word to the server: the session lives on. Does not wait. What is under way is
/// completed with an error inside this call.
void CloseAndKeepSession(zhandle_t* handle);

/// Closes the handle, which is connected on `socket`, and asks the server to end the session: the answer is to
/// be awaited. Null when the request could not be sent within a millisecond.
std::unique_ptr<Farewell> CloseAndEndSession(zhandle_t* handle, int socket);

/// The library will take the connection on `socket`, or the try to make one, for broken, and go on with its next server.
void TakeForBroken(zhandle_t* handle, int socket);

}  // namespace zr::halden::details
