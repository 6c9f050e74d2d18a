// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>

namespace zr::halden::agent {

/// What clients can have of the agent, taken together and each. None of it can be had by waiting or by being many.
struct Limits {
  std::size_t connections = 512;
  std::size_t listeners = 256;  ///< of them, those that wait for a change or stream
  std::size_t bodyBytes =
      64UL << 20U;  ///< of answers that are being sent; one that many are sent counts once
};

/// Clients beyond the connections who are told so; more are dropped without a word.
inline constexpr std::size_t kMostTurnedAway = 32;
inline constexpr std::size_t kMostHeaderBytes = 8192;
inline constexpr std::chrono::seconds kHeaderLimit{
    10};  ///< from its first byte, or the connection's start, to its last
inline constexpr std::chrono::seconds kIdleLimit{75};      ///< between two requests
inline constexpr std::chrono::seconds kProgressLimit{30};  ///< without a byte of an answer being taken
inline constexpr std::chrono::seconds kLingerLimit{2};     ///< for the client to take note of the end
inline constexpr std::chrono::seconds kHeartbeat{15};
/// What the system keeps of an answer, or of a stream, that is not read.
inline constexpr int kAnswerBufferBytes = 262'144;
inline constexpr int kStreamBufferBytes = 32'768;
inline constexpr std::size_t kPieceBytes = 16384;  ///< of a stream, made at a time

}  // namespace zr::halden::agent
