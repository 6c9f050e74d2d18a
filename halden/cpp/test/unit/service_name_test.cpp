// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "halden/service_id.h"
#include "halden/service_watcher.h"
#include "model/layout.h"

namespace zr::halden {

namespace {

TEST(ServiceNameTest, ANameThatZooKeeperRefusesIsRefusedFirst) {
  const std::string good[] = {
      "a",        "search.v2", "with blank, and:comma", "...",          ".hidden",     std::string(255, 'x'),
      "\xC2\xA0", "\xC3\xA9",  "\xED\x9F\xBF",          "\xEF\xA4\x80", "\xEF\xBF\xAF"};
  for (const auto& name : good) EXPECT_TRUE(IsValidServiceName(name)) << name;

  const std::string bad[] = {
      "", ".", "..", "a/b", "/", std::string(256, 'x'),
      // control characters: C0, DEL, C1
      std::string("a\0", 2), "\x1F", "a\nb", "\x7F", "\xC2\x80", "\xC2\x9F",
      // not UTF-8: stray, cut short, overlong, surrogate, past the last code point
      "\x80", "a\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF",
      "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xE2\x28\xA1",
      // refused by servers: private use, specials and noncharacters, all that UTF-16 needs two units for
      "\xEE\x80\x80", "\xEF\xA3\xBF", "\xEF\xBF\xB0", "\xEF\xBF\xBE", "\xEF\xBF\xBF", "\xF0\x90\x80\x80",
      "\xF0\x9F\x98\x80"};
  for (const auto& name : bad) EXPECT_FALSE(IsValidServiceName(name)) << ::testing::PrintToString(name);
}

TEST(ServiceIdTest, OnlyTheCanonicalFormIsAnInstance) {
  constexpr std::string_view text = "0123abcd-4567-89ef-0123-456789abcdef";
  const auto id = ParseServiceId(text);
  ASSERT_TRUE(id);
  EXPECT_EQ(ToString(*id), text);
  EXPECT_EQ(id->data[3], 0xCD);
  EXPECT_NE(MakeServiceId(), MakeServiceId());
  for (const char* bad :
       {"", "0123ABCD-4567-89EF-0123-456789ABCDEF", "{0123abcd-4567-89ef-0123-456789abcdef}",
        "0123abcd456789ef0123456789abcdef", "0123abcd-4567-89ef-0123-456789abcde",
        "0123abcd-4567-89ef-0123-456789abcdeff", "0123abcd-4567-89ef-0123-456789abcdeg",
        "0123abcd-4567-89ef-01234-56789abcdef", "0123abcd_4567-89ef-0123-456789abcdef"}) {
    EXPECT_FALSE(ParseServiceId(bad)) << bad;
  }
}

}  // namespace

}  // namespace zr::halden
