// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/node_codec.h"

#include <gmock/gmock.h>
#include <google/protobuf/unknown_field_set.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "halden/instance_data.h"

namespace zr::halden::details {

namespace {

using ::testing::HasSubstr;
using zr::messaging::halden::ServiceInstanceData;
using zr::messaging::halden::User;
using zr::messaging::halden::ZNodeData;

constexpr auto kNone = ZNodeData::COMP_NONE;
constexpr auto kZlib = ZNodeData::COMP_ZLIB;

/// With an attribute of `valueBytes` equal characters.
ServiceInstanceData MakeData(std::size_t valueBytes = 0) {
  ServiceInstanceData data;
  data.set_service_name("search");
  data.set_host("host-1.eu");
  data.add_ports()->set_port(8080);
  data.add_ports();  // an empty message
  data.set_start_time_ms(1'700'000'000'123);
  if (valueBytes != 0) data.add_attributes()->set_value(std::string(valueBytes, 'x'));
  return data;
}

std::string Encode(const ServiceInstanceData& data) {
  User user;
  user.set_pid(4711);
  return EncodeNode(data, user);
}

ZNodeData Envelope(const std::string& node) {
  ZNodeData envelope;
  EXPECT_TRUE(envelope.ParseFromString(node));
  return envelope;
}

std::string NodeWith(ZNodeData::Compression compression, const std::string& payload) {
  ZNodeData envelope;
  envelope.set_compression(compression);
  envelope.set_payload(payload);
  return envelope.SerializeAsString();
}

/// Of docs/node_format.md.
std::string TestVector() {
  std::ifstream document(HALDEN_SOURCE_DIR "/docs/node_format.md");
  std::string bytes;
  for (std::string word; document >> word;) {
    if (word != "bytes") continue;
    document >> word;
    if (word.find_first_not_of("0123456789abcdef") != std::string::npos) continue;
    for (std::size_t i = 0; i + 1 < word.size(); i += 2)
      bytes += static_cast<char>(std::stoi(word.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

TEST(NodeCodecTest, TheDocumentsTestVectorIsWhatIsWritten) {
  const auto decoded = DecodeNode(TestVector());
  ASSERT_TRUE(decoded.payload) << decoded.error;
  EXPECT_EQ(EncodeNode(ParsePayload(*decoded.payload), Envelope(TestVector()).user()), TestVector());
  const auto data = ParsePayload(*decoded.payload);
  EXPECT_THAT(data.ShortDebugString(),
              HasSubstr(R"(port: 9090 } version: "1.2" weight: 2 start_time_ms: 1700000000000)"));
  EXPECT_EQ(FindAttribute(data, "zone"), "a");
  EXPECT_EQ(FindAttribute(data, "row"), std::nullopt);
}

TEST(NodeCodecTest, WhatIsPublishedIsReadAndCompressionNeverMakesItLonger) {
  for (std::size_t valueBytes = 0; valueBytes < 200'000; valueBytes += 1 + valueBytes / 20) {
    const auto data = MakeData(valueBytes);
    const auto node = Encode(data);
    const auto decoded = DecodeNode(node);
    ASSERT_TRUE(decoded.payload) << decoded.error;
    EXPECT_EQ(*decoded.payload, data.SerializeAsString());
    EXPECT_EQ(Encode(data), node);
    EXPECT_EQ(WriterOf(node), "@, pid 4711");
    auto plain = Envelope(node);
    EXPECT_EQ(plain.user().pid(), 4711U);
    EXPECT_TRUE(valueBytes < 100 || plain.compression() == kZlib) << valueBytes;
    plain.set_compression(kNone);
    plain.set_payload(data.SerializeAsString());
    EXPECT_LE(node.size(), plain.ByteSizeLong()) << valueBytes;
  }
}

TEST(NodeCodecTest, FieldsOfANewerWriterAreKept) {
  auto data = MakeData();
  data.GetReflection()->MutableUnknownFields(&data)->AddLengthDelimited(1000, "\xFF newer");
  data.set_status_ext(static_cast<zr::messaging::halden::StatusExt>(77));
  const auto once = DecodeNode(Encode(data));
  ASSERT_TRUE(once.payload) << once.error;
  const auto twice = DecodeNode(Encode(ParsePayload(*once.payload)));
  EXPECT_EQ(twice.payload, data.SerializeAsString()) << twice.error;
}

TEST(NodeCodecTest, BadBytesAreRefusedWithAReason) {
  const auto payload = MakeData(5000).SerializeAsString();
  const auto zipped = Envelope(Encode(MakeData(5000))).payload();
  auto corrupt = zipped;
  corrupt.back() = static_cast<char>(corrupt.back() ^ 1);
  auto dictionary = zipped;
  dictionary.replace(0, 2, "\x78\xBB");
  const std::pair<std::string, const char*> cases[] = {
      {"", "empty"},
      {"plain text", "envelope"},
      {payload.substr(0, payload.size() - 1), "envelope"},
      {NodeWith(kNone, payload) + '\x12', "envelope: does not parse"},
      {NodeWith(kZlib, ""), "no payload"},
      {NodeWith(static_cast<ZNodeData::Compression>(2), payload), "unknown compression 2"},
      {NodeWith(kNone, payload.substr(0, payload.size() - 1)), "payload: does not parse"},
      {NodeWith(kNone, zipped), "payload: "},
      {NodeWith(kNone, "\x12\x01h"), "no service name"},
      {NodeWith(kZlib, payload), "not a whole zlib stream"},
      {NodeWith(kZlib, zipped.substr(0, 1)), "not a whole zlib stream"},
      {NodeWith(kZlib, zipped.substr(0, zipped.size() - 1)), "not a whole zlib stream"},
      {NodeWith(kZlib, corrupt), "not a whole zlib stream"},
      {NodeWith(kZlib, dictionary), "not a whole zlib stream"},
      {NodeWith(kZlib, zipped + "x"), "more bytes follow"},
      {std::string(kMaxPayloadBytes + 1, '\0'), "longer than"},
  };
  for (const auto& [bytes, error] : cases) {
    const auto decoded = DecodeNode(bytes);
    EXPECT_FALSE(decoded.payload) << error;
    EXPECT_THAT(decoded.error, HasSubstr(error));
  }
}

TEST(NodeCodecTest, AnInflatedPayloadEndsAtTheBound) {
  const auto overhead = MakeData(kMaxPayloadBytes / 2).ByteSizeLong() - kMaxPayloadBytes / 2;
  const auto longest = MakeData(kMaxPayloadBytes - overhead);
  ASSERT_EQ(longest.ByteSizeLong(), kMaxPayloadBytes);
  EXPECT_EQ(DecodeNode(Encode(longest)).error, "");
  for (const std::size_t valueBytes : {kMaxPayloadBytes - overhead + 1, 4 * kMaxPayloadBytes}) {
    const auto bomb = Encode(MakeData(valueBytes));
    ASSERT_LT(bomb.size(), kMaxNodeBytes);
    EXPECT_THAT(DecodeNode(bomb).error, HasSubstr("inflates to more"));
  }
}

TEST(NodeCodecTest, TextThatIsNotUtf8IsRefusedWithoutANoteOnStderr) {
  const std::string payloads[] = {
      "\x0A\x01s\x12\x01\xFF",                                  // host
      "\x0A\x02s\xC3",                                          // the service name, cut short
      "\x0A\x01s\x1A\x03\x0A\x01\x80",                          // a port's name
      "\x0A\x01s\x42\x05\x12\x03\xED\xA0\x80",                  // an attribute's value
      "\x0A\x01s\x38\xFF\x01\x15XXXX\x11XXXXXXXX\x22\x01\xFE",  // the version, behind other fields
  };
  ::testing::internal::CaptureStderr();
  for (const auto& payload : payloads) {
    EXPECT_EQ(DecodeNode(NodeWith(kNone, payload)).error, "payload: does not parse");
  }
  const auto good = NodeWith(kNone, "\x0A\x01s");
  EXPECT_EQ(DecodeNode(good + "\x1A\x03\x0A\x01\xFF").error, "envelope: does not parse");
  EXPECT_EQ(DecodeNode(good + std::string("\x1A\x02\x02\x00", 4)).error, "envelope: does not parse");
  // A port's name longer than its port: to the parser, text until it sees that.
  EXPECT_EQ(DecodeNode(NodeWith(kNone, "\x1A\x03\x0A\x04\x80\x0A\x01s")).error, "payload: does not parse");
  EXPECT_EQ(DecodeNode(NodeWith(kNone, "\x0A\x05s\xF0\x9F\x98\x80")).error, "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

}  // namespace

TEST(NewestInstanceTest, OfAnotherVersionOrOfStrangersIsNone) {
  const NewestInstance newest{MakeServiceId(), "node"};
  const auto decoded = DecodeNewest(EncodeNewest(newest));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->id, newest.id);
  EXPECT_EQ(decoded->bytes, newest.bytes);
  zr::messaging::halden::NewestInstance later;
  later.ParseFromString(EncodeNewest(newest));
  later.set_format_version(2);
  EXPECT_FALSE(DecodeNewest(later.SerializeAsString()));
  EXPECT_FALSE(DecodeNewest("{\"some\": \"config\"}"));
  EXPECT_FALSE(DecodeNewest(""));
}

}  // namespace zr::halden::details
