// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/event_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <string>
#include <thread>

#include "support/await.h"

namespace zr::halden {
namespace {

using ::testing::ElementsAre;

class EventQueueTest : public ::testing::Test {
 protected:
  static std::shared_ptr<ServiceWatcher> MakeWatcher(const zr::String& dcName) {
    return std::make_shared<ServiceWatcher>(
        std::make_shared<Connection>(std::vector<zr::String>{"127.0.0.1:1"}, true, "",
                                     std::chrono::seconds(1), dcName),
        "orders", ZkErrorHandler());
  }

  static ServiceInstanceData Data(const std::string& host) {
    ServiceInstanceData data;
    data.set_host(host);
    return data;
  }

  /// What waits, as text, in order.
  std::vector<std::string> Taken() {
    std::vector<std::string> texts;
    for (const auto& event : m_queue.Drain()) {
      texts.push_back(event.dcName + " " + std::string(ToString(event.kind)) + " " + event.data.host());
    }
    return texts;
  }

  bool Readable() const {
    pollfd descriptor{m_queue.Descriptor(), POLLIN, 0};
    return poll(&descriptor, 1, 0) == 1;
  }

  EventQueue m_queue;
  const std::shared_ptr<ServiceWatcher> m_watcher = MakeWatcher("eu");
  const ServiceId m_id = MakeServiceId();
};

TEST_F(EventQueueTest, WhatOvertakesASlowConsumerIsMergedAndStaysLegal) {
  m_queue.OnInstanceAdded(*m_watcher, m_id, Data("a"));
  m_queue.OnInstanceModified(*m_watcher, m_id, Data("b"));
  const auto other = MakeWatcher("us");
  m_queue.OnInstanceAdded(*other, m_id, Data("x"));
  EXPECT_THAT(Taken(), ElementsAre("eu added b", "us added x"));
  m_queue.OnInstanceModified(*m_watcher, m_id, Data("c"));
  m_queue.OnInstanceModified(*m_watcher, m_id, Data("d"));
  EXPECT_THAT(Taken(), ElementsAre("eu modified d"));
  m_queue.OnInstanceRemoved(*m_watcher, m_id);
  m_queue.OnInstanceAdded(*m_watcher, m_id, Data("e"));
  EXPECT_THAT(Taken(), ElementsAre("eu removed ", "eu added e"));
  m_queue.OnInstanceModified(*m_watcher, m_id, Data("f"));
  m_queue.OnInstanceRemoved(*m_watcher, m_id);
  EXPECT_THAT(Taken(), ElementsAre("eu removed "));
  m_queue.OnInstanceAdded(*m_watcher, m_id, Data("g"));
  m_queue.OnInstanceRemoved(*m_watcher, m_id);
  EXPECT_THAT(Taken(), ElementsAre());
}

TEST_F(EventQueueTest, TheDescriptorIsReadableWhileThereIsSomethingToTake) {
  EXPECT_FALSE(Readable());
  m_queue.OnInstanceAdded(*m_watcher, m_id, Data("a"));
  EXPECT_TRUE(Readable());
  m_queue.OnInstanceRemoved(*m_watcher, m_id);
  EXPECT_FALSE(Readable()) << "came and went";
  m_queue.OnInstanceAdded(*m_watcher, m_id, Data("a"));
  EXPECT_EQ(m_queue.PopFor(std::chrono::milliseconds(1))->data.host(), "a");
  EXPECT_FALSE(Readable());
  EXPECT_FALSE(m_queue.PopFor(std::chrono::milliseconds(1)));
  std::thread waiting([this] { EXPECT_FALSE(m_queue.Pop()); });
  m_queue.Close();
  waiting.join();
  EXPECT_TRUE(Readable());
  m_queue.OnInstanceAdded(*m_watcher, m_id, Data("late"));
  EXPECT_EQ(m_queue.Size(), 0U);
}

TEST_F(EventQueueTest, EachEventWakesOneOfSeveralConsumers) {
  m_queue.OnInstanceAdded(*m_watcher, m_id, Data("a"));
  EXPECT_THAT(Taken(), ElementsAre("eu added a"));
  std::vector<std::thread> consumers(20);
  for (auto& one : consumers) one = std::thread([this] { EXPECT_TRUE(m_queue.PopFor(test::kLimit)); });
  m_queue.OnInstanceRemoved(*m_watcher, m_id);  // and added, in one entry
  for (int i = 0; i < 18; ++i) m_queue.OnInstanceAdded(*m_watcher, MakeServiceId(), Data("b"));
  m_queue.OnInstanceAdded(*m_watcher, m_id, Data("b"));
  for (auto& one : consumers) one.join();
  EXPECT_FALSE(Readable());
}

}  // namespace
}  // namespace zr::halden
