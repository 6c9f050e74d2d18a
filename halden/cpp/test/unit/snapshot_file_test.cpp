// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "snapshot/snapshot_file.h"

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <utility>
#include <vector>

#include "model/node_codec.h"

namespace zr::halden::details {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

const auto kNow = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());

class SnapshotFileTest : public ::testing::Test {
 protected:
  SnapshotFileTest() : m_folder(::testing::TempDir() + "halden-snapshots-" + std::to_string(getpid())) {}
  ~SnapshotFileTest() override { fs::remove_all(m_folder); }

  static ServiceSnapshot Make(std::size_t instances, std::chrono::system_clock::time_point asOf = kNow) {
    ServiceSnapshot snapshot{"orders", "eu", 7, asOf, {}};
    for (std::size_t i = 0; i < instances; ++i) {
      zr::messaging::halden::ServiceInstanceData data;
      data.set_service_name("orders");
      data.set_host("host-" + std::to_string(i));
      snapshot.instances.push_back({MakeServiceId(), {10, 11}, data.SerializeAsString()});
    }
    return snapshot;
  }
  SnapshotRead Read(const zr::String& service = "orders") const {
    return ReadSnapshotFile(m_folder, service, "eu", {kNow, 1h});
  }
  std::set<std::string> Files() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_folder)) names.insert(entry.path().filename());
    return names;
  }

  const std::string m_folder;
  const std::string m_file = m_folder + "/orders@eu.snapshot";
};

TEST_F(SnapshotFileTest, NoTwoNamesShareAFileAndNoneLeavesTheFolder) {
  const std::string longName(255, '\xFC');
  std::set<std::string> files;
  for (const auto& service :
       std::vector<zr::String>{"a", "a/b", "a%2fb", "../a", "..", ".", "a@b", "A", longName}) {
    for (const auto& dcName : std::vector<zr::String>{"b", "b@c", "../../c", longName, longName + "x"}) {
      const auto name = SnapshotFileName(service, dcName);
      EXPECT_TRUE(files.insert(name).second) << name;
      EXPECT_TRUE(name.find('/') == std::string::npos && name[0] != '.' && name.size() < 250) << name;
    }
  }
}

TEST_F(SnapshotFileTest, WhatIsDamagedOldOrOfOthersIsRefusedInWords) {
  EXPECT_EQ(Read().error, "");  // there is none
  ASSERT_EQ(WriteSnapshotFile(m_folder, Make(3)).outcome, SnapshotWritten::Outcome::Written);
  ASSERT_EQ(Read().snapshot.value().instances.size(), 3U);
  std::ifstream in(m_file, std::ios::binary);
  const std::string good{std::istreambuf_iterator<char>(in), {}};
  for (std::size_t i = 0; i < good.size(); ++i) {
    std::string flipped = good;
    flipped[i] = static_cast<char>(flipped[i] ^ 0x10);
    EXPECT_FALSE(DecodeSnapshot(flipped).error.empty()) << i;
    EXPECT_FALSE(DecodeSnapshot(std::string_view(good).substr(0, i)).error.empty()) << i;
  }
  EXPECT_FALSE(DecodeSnapshot(good + '\0').error.empty());
  EXPECT_THAT(ReadSnapshotFile(m_folder, "orders", "eu", {kNow + 61min, 1h}).error, HasSubstr("3660 s old"));
  EXPECT_THAT(ReadSnapshotFile(m_folder, "orders", "eu", {kNow - 61min, 1h}).error, HasSubstr("future"));
  fs::copy_file(m_file, m_folder + "/stock@eu.snapshot");
  EXPECT_THAT(Read("stock").error, HasSubstr("another service"));
  fs::permissions(m_file, fs::perms::others_write, fs::perm_options::add);
  EXPECT_THAT(Read().error, HasSubstr("others may write it"));
  fs::remove(m_file);
  fs::create_symlink("stock@eu.snapshot", m_file);
  EXPECT_THAT(Read().error, HasSubstr("open: "));
}

TEST_F(SnapshotFileTest, NoMomentToBeKilledAtLeavesLessThanAWholeSnapshot) {
  constexpr std::size_t instances = 200;
  ASSERT_EQ(WriteSnapshotFile(m_folder, Make(instances)).outcome, SnapshotWritten::Outcome::Written);
  std::chrono::system_clock::time_point last = kNow;
  for (int i = 0; i < 100; ++i) {
    std::array<pid_t, 2> writers{};
    for (auto& pid :
         writers) {  // both want the same file, and the alarm kills each at some moment after its first
      const itimerval moment{{}, {0, 1 + rand() % 2000}};
      pid = fork();
      if (pid == 0) prctl(PR_SET_PDEATHSIG, SIGKILL);
      bool armed = false;
      for (auto at = last + 1ms; pid == 0; at += 1ms) {
        const auto outcome = WriteSnapshotFile(m_folder, Make(instances, at)).outcome;
        if (outcome == SnapshotWritten::Outcome::Written && !std::exchange(armed, true))
          setitimer(ITIMER_REAL, &moment, nullptr);
      }
    }
    for (const pid_t pid : writers) {
      int status = 0;
      waitpid(pid, &status, 0);
      ASSERT_EQ(WTERMSIG(status), SIGALRM);
    }
    const auto left = Read();
    ASSERT_TRUE(left.snapshot) << i << ": " << left.error;
    ASSERT_EQ(left.snapshot->instances.size(), instances);
    ASSERT_GT(left.snapshot->asOf, last);
    last = left.snapshot->asOf;
    ASSERT_LE(Files().size(), 2U);
  }
  ASSERT_EQ(WriteSnapshotFile(m_folder, Make(1, last + 1ms)).outcome, SnapshotWritten::Outcome::Written);
  EXPECT_EQ(Read().snapshot.value().instances.size(), 1U);
  EXPECT_EQ(Files().size(), 1U) << "what the killed ones left was taken over";
}

TEST_F(SnapshotFileTest, AFullDiskAndWhatIsOlderLeaveTheFileAsItWas) {
  ASSERT_EQ(WriteSnapshotFile(m_folder, Make(1)).outcome, SnapshotWritten::Outcome::Written);
  EXPECT_EQ(WriteSnapshotFile(m_folder, Make(2, kNow - 1s)).outcome, SnapshotWritten::Outcome::Newer);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, SIG_IGN);
  const rlimit little{4096, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &little);
  const auto written = WriteSnapshotFile(m_folder, Make(1000, kNow + 1s));
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(written.outcome, SnapshotWritten::Outcome::Failed);
  EXPECT_THAT(written.error, HasSubstr("write: "));
  EXPECT_EQ(Read().snapshot.value().instances.size(), 1U);
  EXPECT_EQ(Files().size(), 1U);
}

}  // namespace
}  // namespace zr::halden::details
