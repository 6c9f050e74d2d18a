// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/diagnosis.h"

#include <gmock/gmock.h>
#include <zookeeper/zookeeper.h>

#include <functional>
#include <string>
#include <vector>

#include "render/findings.h"

namespace zr::halden::tool {
namespace {

/// What is not in order where all is well but for `ail`: "!" before failures, one finding a line.
std::string Complaints(const std::function<void(EnsembleFacts&)>& ail) {
  EnsembleFacts facts;
  facts.servers = {{"zk1:2181", true, "", ""}, {"zk2:2181", true, "", ""}};
  facts.session = true;
  facts.service = ServiceFacts{};
  facts.service->instances = 10;
  ail(facts);
  std::string complaints;
  for (const auto& [dataCenter, subject, verdict, finding, advice] : Diagnose(facts, "orders")) {
    EXPECT_EQ(advice.empty(), verdict == Verdict::Ok) << subject;
    if (verdict == Verdict::Failure) complaints += '!';
    if (verdict != Verdict::Ok) complaints += std::string(subject) + ": " + finding + '\n';
  }
  return complaints;
}

TEST(Diagnosis, TellsFailuresFromWarningsAndBothFromWhatIsWell) {
  using Facts = EnsembleFacts;
  const std::vector<std::pair<std::function<void(Facts&)>, std::string>> cases{
      {[](auto&) {}, ""},
      {[](auto& f) { f.servers[1].resolveError = f.servers[1].connectError = "unknown"; },
       "names: 1 of 2 not resolved: unknown\nservers: 1 of 2 take connections; zk2:2181: unknown\n"},
      {[](auto& f) {
         f.servers = {{"a:1", true, "unknown", "unknown"}}, f.session = false;
       },
       "!names: 1 of 1 not resolved: unknown\n!servers: 0 of 1 take connections; a:1: unknown\n"
       "!session: none: stopped\n"},
      {[](auto& f) { f.chroot = "/p", f.chrootCode = f.servicesCode = ZNONODE; },
       "service: the chroot /p does not exist\n"},
      {[](auto& f) { f.servicesCode = ZNONODE; }, "service: nobody has ever published here\n"},
      {[](auto& f) { f.service->code = ZNONODE; }, "service: no instance of 'orders'\n"},
      // Who follows a service does not read the node above it.
      {[](auto& f) { f.servicesCode = ZNOAUTH; }, ""},
      {[](auto& f) { f.servicesCode = ZNOAUTH, f.service.reset(); },
       "!authentication: /halden/services may not be read, and the configuration has no auth_file\n"},
      {[](auto& f) { f.service->code = ZNOAUTH; },
       "!authentication: /halden/services/orders may not be read, and the configuration has no "
       "auth_file\n"},
      {[](auto& f) { f.hasCredential = true, f.service->code = ZNOAUTH; },
       "!authentication: /halden/services/orders may not be read with the credential of auth_file\n"},
      {[](auto& f) {
         f.service->exposure = {0, 31, 31, 31, 10};
       },
       ""},  // nobody is told apart
      {[](auto& f) {
         f.hasCredential = true, f.service->exposure = {0, 5, 5, 1, 0};
       },
       ""},
      {[](auto& f) {
         f.hasCredential = true, f.service->exposure = {0, 5, 31, 31, 3};
       },
       "access: who has no credential can add instances, change 3 of 10, remove instances, take others' "
       "rights away\n"},
      {[](auto& f) { f.service->exposure.code = ZNOAUTH; },
       "access: not all access lists could be read: not authenticated\n"},
      {[](auto& f) { f.service->unreadable = 2, f.service->unreadableExample = "/x: empty"; },
       "!service: 2 of 10 instances without a value that can be read: /x: empty\n"},
      {[](auto& f) { f.service->refused = 1, f.service->refusedExample = "/x"; },
       "!service: 1 node below it may not be read, and not followed: /x\n"},
      {[](auto& f) { f.service->unfit = 1, f.service->unfitExample = "/x: port 0"; },
       "service: 1 of 10 instances announced, but of no use to clients: /x: port 0\n"},
      {[](auto& f) { f.service->sessionless = 1, f.service->sessionlessExample = "/x"; },
       "service: 1 node without a session: /x\n"},
      {[](auto& f) { f.service->oddNodes = 3, f.service->oddExample = "/x"; },
       "service: 3 nodes ignored, by name no instance: /x\n"},
      {[](auto& f) { f.service->largest = 99'999, f.service->watchBytes = 719'999; }, ""},
      {[](auto& f) { f.service->largest = f.service->total = 100'000, f.service->watchBytes = 1'720'000; },
       "payloads: 100.0 kB in all, 100.0 kB the largest: \nwatches: 1.7 MB, 191 % of what clients set again "
       "at once\n"},
  };
  for (const auto& [ail, complaints] : cases) EXPECT_EQ(Complaints(ail), complaints);
}

TEST(CheckText, WrapsToTheTerminalAndSumsUp) {
  const std::vector<Check> checks{
      {"eu", "names", Verdict::Warning, "a bb ccc dddd eeeee ffffff ggg", "do it"}};
  EXPECT_EQ(CheckText(checks, false, {false, 50}),
            "eu\n"
            "  warning  names           a bb ccc dddd eeeee\n"
            "                           ffffff ggg\n"
            "                           do: do it\n"
            "0 ok, 1 warning, 0 failures\n");
}

}  // namespace
}  // namespace zr::halden::tool
