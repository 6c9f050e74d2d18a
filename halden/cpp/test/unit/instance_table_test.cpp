// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/instance_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zr::halden::details {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ChangeKind = InstanceChange;
using Kinds = std::vector<ChangeKind>;
using Outcome = InstanceTable::Outcome;

class InstanceTableTest : public ::testing::Test {
 protected:
  /// Takes the one change that waits.
  Kinds TakeOne() {
    EXPECT_TRUE(m_table.HasChanges());
    const auto change = m_table.Take();
    EXPECT_EQ(change.id, m_id);
    EXPECT_FALSE(m_table.HasChanges());
    m_taken = change.payload;
    return change.kinds;
  }

  const ServiceId m_id = MakeServiceId();
  InstanceTable m_table;
  std::string m_taken;
};

TEST_F(InstanceTableTest, ABadValueKeepsTheLastGoodOneOfTheSameNodeOnly) {
  m_table.Put(m_id, {10, 10}, "good", false);
  TakeOne();
  EXPECT_EQ(m_table.Quarantine(m_id, {10, 11}, false), Outcome::Changed);
  EXPECT_EQ(m_table.Quarantine(m_id, {10, 11}, false), Outcome::Unchanged);  // told once for each version
  EXPECT_EQ(m_table.Quarantined(), 1U);
  EXPECT_FALSE(m_table.HasChanges());
  EXPECT_EQ(m_table.Find(m_id), "good");

  EXPECT_EQ(m_table.Quarantine(m_id, {20, 20}, false), Outcome::Changed);  // another node, bad from the start
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Removed));
  EXPECT_EQ(m_table.Find(m_id), std::nullopt);

  m_table.Put(m_id, {20, 21}, "mended", false);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Added));
  EXPECT_EQ(m_table.Quarantined(), 0U);
}

TEST_F(InstanceTableTest, WhoComesBackWhileHeldIsModifiedOrNoNewsAtAll) {
  EXPECT_FALSE(m_table.Hold(m_id)) << "not known";
  m_table.Put(m_id, {10, 10}, "a", false);
  EXPECT_FALSE(m_table.Hold(m_id)) << "nobody has been told of it";
  TakeOne();
  ASSERT_TRUE(m_table.Hold(m_id));
  EXPECT_FALSE(m_table.HasChanges());
  EXPECT_THAT(m_table.List(), ElementsAre(m_id));
  EXPECT_THAT(m_table.ListHeld(), ElementsAre(m_id));
  EXPECT_EQ(m_table.Put(m_id, {20, 20}, "a", false), Outcome::Changed);
  EXPECT_FALSE(m_table.HasChanges()) << "the same data in another node";
  EXPECT_EQ(m_table.Held(), 0U);

  ASSERT_TRUE(m_table.Hold(m_id));
  m_table.Put(m_id, {30, 30}, "b", false);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Modified));

  m_table.Put(m_id, {30, 31}, "c", false);  // not announced when the node goes
  ASSERT_TRUE(m_table.Hold(m_id));
  m_table.Put(m_id, {40, 40}, "c", false);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Modified));
  EXPECT_EQ(m_taken, "c");

  ASSERT_TRUE(m_table.Hold(m_id));
  EXPECT_EQ(m_table.Put(m_id, {5, 5}, "c", false), Outcome::Changed) << "in an ensemble set up anew";
  EXPECT_EQ(m_table.Held(), 0U);
  ASSERT_TRUE(m_table.Hold(m_id));
  m_table.Quarantine(m_id, {50, 50}, false);
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Removed)) << "another node, bad from the start";
  EXPECT_EQ(m_table.Held(), 0U);
}

TEST_F(InstanceTableTest, WhatWasRestoredIsComparedAsIfItHadBeenReadUnlessItsEnsembleIsAnother) {
  m_table.Restore({m_id, {10, 12}, "a"});
  EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Added));
  EXPECT_EQ(m_table.Put(m_id, {10, 12}, "a", false), Outcome::Unchanged);
  m_table.Restore({m_id, {10, 13}, "b"});  // late: what was read counts
  EXPECT_EQ(m_table.Find(m_id), "a");

  m_table.Disown(11);
  EXPECT_EQ(m_table.Put(m_id, {10, 12}, "a", false), Outcome::Unchanged) << "it was read";
  m_table.Remove(m_id);
  TakeOne();
  m_table.Restore({m_id, {11, 12}, "a"});
  TakeOne();
  m_table.Disown(11);
  EXPECT_EQ(m_table.Put(m_id, {11, 12}, "a", false), Outcome::Unchanged) << "of the service's node of now";

  for (const NodeVersion version : {NodeVersion{5, 5}, NodeVersion{10, 12}, NodeVersion{900, 900}}) {
    m_table.Remove(m_id);
    TakeOne();
    m_table.Restore({m_id, {10, 12}, "a"});
    TakeOne();
    m_table.Disown(11);
    EXPECT_EQ(m_table.Put(m_id, version, "a", false), Outcome::Changed);
    EXPECT_THAT(TakeOne(), ElementsAre(ChangeKind::Removed, ChangeKind::Added));
  }
}

}  // namespace
}  // namespace zr::halden::details
