// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "instance_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace zr::halden::details {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using Kinds = std::vector<ChangeKind>;
using Outcome = InstanceTable::Outcome;

InstanceDataPtr Data(const char* host) {
  auto data = std::make_shared<zr::messaging::halden::ServiceInstanceData>();
  data->set_host(host);
  return data;
}

class InstanceTableTest : public ::testing::Test {
 protected:
  /// Takes the one change that waits.
  Kinds TakeOne() {
    EXPECT_TRUE(m_table.HasChanges());
    const auto change = m_table.Take();
    EXPECT_EQ(change.id, m_id);
    EXPECT_FALSE(m_table.HasChanges());
    m_taken = change.data;
    return change.kinds;
  }

  const ServiceId m_id = MakeServiceId();
  InstanceTable m_table;
  InstanceDataPtr m_taken;
};

TEST_F(InstanceTableTest, ChangesAreAnnouncedByNodeAndValue) {
  EXPECT_EQ(m_table.Put(m_id, {10, 10}, Data("a"), false), Outcome::Changed);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Added));
  EXPECT_EQ(m_table.Put(m_id, {10, 10}, Data("a"), false), Outcome::Unchanged);
  EXPECT_FALSE(m_table.HasChanges());
  EXPECT_EQ(m_table.Put(m_id, {10, 12}, Data("b"), false), Outcome::Changed);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Modified));
  m_table.Put(m_id, {20, 20}, Data("c"), false);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Removed, ChangeKind::Added));
  EXPECT_EQ(m_taken->host(), "c");
  m_table.Remove(m_id);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Removed));
  EXPECT_EQ(m_table.Size(), 0U);
}

TEST_F(InstanceTableTest, WhatOvertakesASlowObserverIsMerged) {
  m_table.Put(m_id, {10, 10}, Data("a"), false);
  m_table.Put(m_id, {10, 11}, Data("b"), false);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Added));
  EXPECT_EQ(m_taken->host(), "b");

  m_table.Remove(m_id);
  m_table.Put(m_id, {20, 20}, Data("c"), false);  // back before anybody was told
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Removed, ChangeKind::Added));

  const ServiceId passing = MakeServiceId();
  m_table.Put(passing, {30, 30}, Data("d"), false);
  m_table.Remove(passing);
  EXPECT_THAT(m_table.Take().kinds, IsEmpty());  // came and went
  EXPECT_THAT(m_table.List(), ElementsAre(m_id));
}

TEST_F(InstanceTableTest, AnOlderReadChangesNothingUnlessForced) {
  m_table.Put(m_id, {10, 15}, Data("new"), false);
  TakeOne();
  EXPECT_EQ(m_table.Put(m_id, {10, 14}, Data("old value"), false), Outcome::Older);
  EXPECT_EQ(m_table.Put(m_id, {9, 99}, Data("old node"), false), Outcome::Older);
  EXPECT_EQ(m_table.Quarantine(m_id, {10, 14}, false), Outcome::Older);
  EXPECT_EQ(m_table.Find(m_id)->host(), "new");
  EXPECT_EQ(m_table.Put(m_id, {2, 2}, Data("rebuilt"), true), Outcome::Changed);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Removed, ChangeKind::Added));
}

TEST_F(InstanceTableTest, ABadValueKeepsTheLastGoodOneOfTheSameNodeOnly) {
  m_table.Put(m_id, {10, 10}, Data("good"), false);
  TakeOne();
  EXPECT_EQ(m_table.Quarantine(m_id, {10, 11}, false), Outcome::Changed);
  EXPECT_EQ(m_table.Quarantine(m_id, {10, 11}, false), Outcome::Unchanged);  // told once for each version
  EXPECT_EQ(m_table.Quarantined(), 1U);
  EXPECT_FALSE(m_table.HasChanges());
  EXPECT_EQ(m_table.Find(m_id)->host(), "good");

  EXPECT_EQ(m_table.Quarantine(m_id, {20, 20}, false), Outcome::Changed);  // another node, bad from the start
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Removed));
  EXPECT_EQ(m_table.Find(m_id), nullptr);

  m_table.Put(m_id, {20, 21}, Data("mended"), false);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Added));
  EXPECT_EQ(m_table.Quarantined(), 0U);
}

}  // namespace
}  // namespace zr::halden::details
