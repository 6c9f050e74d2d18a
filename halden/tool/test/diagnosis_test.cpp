// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/diagnosis.h"

#include <gtest/gtest.h>
#include <zookeeper/zookeeper.h>

#include <string>
#include <vector>

#include "render/findings.h"

namespace zr::halden::tool {
namespace {

EnsembleFacts Healthy() {
  EnsembleFacts facts;
  facts.dataCenter = "eu-west";
  facts.servers = {{"zk1:2181", true, "", ""}, {"zk2:2181", true, "", ""}};
  facts.session = true;
  facts.service = ServiceFacts{};
  facts.service->instances = 10;
  return facts;
}

/// The checks that are not in order: "subject: finding".
std::vector<std::string> Complaints(const EnsembleFacts& facts, Verdict verdict) {
  std::vector<std::string> complaints;
  for (const auto& check : Diagnose(facts, "orders")) {
    EXPECT_EQ(check.advice.empty(), check.verdict == Verdict::Ok) << check.subject;
    if (check.verdict == verdict) complaints.push_back(std::string(check.subject) + ": " + check.finding);
  }
  return complaints;
}

using Texts = std::vector<std::string>;

TEST(Diagnosis, FindsNothingWrongWithWhatIsHealthy) {
  EXPECT_EQ(Complaints(Healthy(), Verdict::Warning), Texts{});
  EXPECT_EQ(Complaints(Healthy(), Verdict::Failure), Texts{});
  EXPECT_EQ(Diagnose(Healthy(), "orders").size(), 7U);
}

TEST(Diagnosis, CallsOneServerOfManyAWarningAndAllOfThemAFailure) {
  EnsembleFacts facts = Healthy();
  facts.servers[1].resolveError = "zk2: unknown";
  facts.servers[1].connectError = "no address";
  EXPECT_EQ(Complaints(facts, Verdict::Warning),
            (Texts{"names: 1 of 2 not resolved: zk2: unknown",
                   "servers: 1 of 2 take connections; zk2:2181: no address"}));
  facts.servers[0].connectError = "Connection refused";
  facts.session = false;
  EXPECT_EQ(Complaints(facts, Verdict::Failure).size(), 2U);
}

TEST(Diagnosis, TellsWhatIsDeniedFromWhatIsNotThere) {
  EnsembleFacts facts = Healthy();
  facts.chroot = "/platform";
  facts.chrootCode = ZNONODE;
  facts.servicesCode = ZNONODE;
  EXPECT_EQ(Complaints(facts, Verdict::Warning), Texts{"service: the chroot /platform does not exist"});
  facts.chrootCode = ZOK;
  EXPECT_EQ(Complaints(facts, Verdict::Warning), Texts{"service: nobody has ever published here"});
  facts.servicesCode = ZOK;
  facts.service->code = ZNONODE;
  EXPECT_EQ(Complaints(facts, Verdict::Warning), Texts{"service: no instance of 'orders'"});
  facts.service->code = ZOK;
  facts.servicesCode = ZNOAUTH;  // which who follows a service does not read
  EXPECT_EQ(Complaints(facts, Verdict::Failure), Texts{});
  facts.service->code = ZNOAUTH;
  EXPECT_EQ(Complaints(facts, Verdict::Failure),
            Texts{"authentication: /halden/services/orders may not be read, and the configuration holds no "
                  "credentials"});
  facts.service.reset();
  EXPECT_EQ(Complaints(facts, Verdict::Failure).size(), 1U);
}

TEST(Diagnosis, WarnsOfNodesThatAreBadLargeOrTooMany) {
  EnsembleFacts facts = Healthy();
  facts.service->unreadable = 2;
  facts.service->unreadableExample = "/x: empty";
  EXPECT_EQ(Complaints(facts, Verdict::Failure),
            Texts{"service: 2 of 10 instances cannot be read and are not announced: /x: empty"});
  facts.service->sessionless = 1;
  facts.service->oddNodes = 1;
  facts.service->largest = 100'000;
  facts.service->watchBytes = 720'000;
  EXPECT_EQ(Complaints(facts, Verdict::Warning).size(), 4U);
  --facts.service->largest;
  --facts.service->watchBytes;
  EXPECT_EQ(Complaints(facts, Verdict::Warning).size(), 2U);
}

TEST(CheckText, WrapsToTheTerminalAndSumsUp) {
  const std::vector<Check> checks{
      {"", "configuration", Verdict::Ok, "c: 1 data centre", ""},
      {"eu", "names", Verdict::Warning, "a bb ccc dddd eeeee ffffff ggg", "do it"}};
  EXPECT_EQ(CheckText(checks, false, {false, 50}),
            "  ok       configuration   c: 1 data centre\n"
            "eu\n"
            "  warning  names           a bb ccc dddd eeeee\n"
            "                           ffffff ggg\n"
            "                           do: do it\n"
            "1 ok, 1 warning, 0 failures\n");
  EXPECT_EQ(CheckText({checks.front()}, true, {}), "");
}

}  // namespace
}  // namespace zr::halden::tool
