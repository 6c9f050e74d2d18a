// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/connect_string.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace zr::halden::details {

namespace {

using ::testing::HasSubstr;

TEST(ConnectStringTest, GoodOnesAreTakenApart) {
  const std::string longLabel(63, 'a');
  const std::pair<zr::String, ConnectString> cases[] = {
      {"zk1.eu:2181", {{{"zk1.eu", 2181}}, ""}},
      {"10.1.0.1:1,b_2-c.:65535/platform", {{{"10.1.0.1", 1}, {"b_2-c.", 65535}}, "/platform"}},
      {"[::1]:2181,[fe80::1%eth0]:02181", {{{"::1", 2181}, {"fe80::1%eth0", 2181}}, ""}},
      {"h:1/a/b:c/.d/...", {{{"h", 1}}, "/a/b:c/.d/..."}},
      {"h:1/\xC3\xA9\xE2\x82\xAC", {{{"h", 1}}, "/\xC3\xA9\xE2\x82\xAC"}},
      {longLabel + ".1:1", {{{longLabel + ".1", 1}}, ""}},
      {"h:1/a%3Fb%253F%41?auth_file=%2Fetc%2Fa%20%26/b%3Fc", {{{"h", 1}}, "/a?b%3F%41", "/etc/a &/b?c"}},
      {"h:1?acl=creator&auth_file=/a", {{{"h", 1}}, "", "/a", "creator"}},
      {"h:1?acl=digest:u:Xr3nUUi4lWzWqGSSIJLrJtDZv3Q=:r",
       {{{"h", 1}}, "", "", "digest:u:Xr3nUUi4lWzWqGSSIJLrJtDZv3Q=:r"}},
      {WithOption("h:1", kAuthFileOption, "/%\xC3\xA9+&=?"), {{{"h", 1}}, "", "/%\xC3\xA9+&=?"}},
  };
  for (const auto& [text, value] : cases) {
    const auto parsed = ParseConnectString(text);
    EXPECT_EQ(parsed.error, "") << text << " at " << parsed.offset;
    EXPECT_EQ(parsed.value, value) << text;
  }
}

TEST(ConnectStringTest, AFaultIsFoundWhereItIs) {
  using Faults = std::vector<std::pair<zr::String, std::size_t>>;  // text, offset of its fault
  const std::pair<const char*, Faults> cases[] = {
      {"empty: expected host:port", {{"", 0}}},
      {"blank or control", {{" h:1", 0}, {"h:1, g:1", 4}, {"h:1/a ", 5}, {{"h:1\0", 4}, 3}, {"h:1\x7F", 3}}},
      {"host missing", {{",", 0}, {"h:1,", 4}, {"h:1,,g:1", 4}, {"/a", 0}, {":2181", 0}}},
      {"port missing",
       {{"h", 1}, {"h:", 1}, {"h:1,g/a", 5}, {"http://h:1", 4}, {"[::1]", 5}, {"[::1]x:1", 5}}},
      {"1 to 65535", {{"h:0", 2}, {"h:65536", 2}, {"h:99999999999999999999", 2}}},
      {"not a digit", {{"h:+1", 2}, {"h:-1", 2}, {"h:0x1", 3}, {"h:1;g:1", 3}}},
      {"IPv6 address in brackets", {{"fe80::1:2181", 5}}},
      {"\"[\" is not closed", {{"[::1:2181", 0}}},
      {"not an IPv6 address", {{"g:1,[10.0.0.1]:1", 5}, {"[]:1", 1}, {"[::1%]:1", 1}}},
      {"not an IPv4 address", {{"10.0.0:1", 0}, {"10.0.0.256:1", 0}}},
      {"nothing before a dot", {{"a..b:1", 2}, {".a:1", 0}}},
      {"not a character of a host name", {{"a@b:1", 1}, {"\xC3\xA9:1", 0}}},
      {"more than 63", {{std::string(64, 'a') + ":1", 63}}},
      {"too long", {{std::string(254, '1') + ":1", 0}}},
      {"\"/\" at the end", {{"h:1/", 3}, {"h:1/a/", 5}}},
      {"empty element", {{"h:1//a", 4}, {"h:1/a//b", 6}}},
      {"relative", {{"h:1/./a", 4}, {"h:1/a/..", 6}}},
      {"expected one chroot", {{"h1:1/a,h2:1/a", 6}}},
      {"not an option", {{"h:1?", 4}, {"h:1/a?b", 6}, {"h:1?auth=digest:a:b", 4}, {"h:1?auth_file=/a&", 17}}},
      {"given twice", {{"h:1?auth_file=/a&auth_file=/b", 17}}},
      {"two hexadecimal digits", {{"h:1?auth_file=/a%2", 16}, {"h:1?auth_file=/%g0b", 15}, {"h:1?acl=%", 8}}},
      {"absolute path", {{"h:1?auth_file=", 14}, {"h:1?auth_file=digest:a:b", 14}, {"h:1?auth_file", 13}}},
      {"control character in the name", {{"h:1?auth_file=%2Fa%0Ab", 18}}},
      {"not an entry", {{"h:1?acl=", 8}, {"h:1?acl=open", 8}, {"h:1?acl=world:anyone:r,", 23}}},
      {"not a permission", {{"h:1?acl=world%3Aanyone:rx", 24}, {"h:1?acl=auth::rr", 15}}},
      {"no permission", {{"h:1?acl=auth::", 14}}},
      {"not a digest", {{"h:1?acl=auth::r,digest:u:password:r", 23}}},
      {"world:anyone", {{"h:1?acl=world::r", 14}}},
      {"ZooKeeper refuses", {{"h:1/a\xC2\x80", 5}, {"h:1/ab\xFF", 6}}},
  };
  for (const auto& [error, faults] : cases) {
    for (const auto& [text, offset] : faults) {
      const auto parsed = ParseConnectString(text);
      EXPECT_THAT(parsed.error, HasSubstr(error)) << text;
      EXPECT_EQ(parsed.offset, offset) << text << ": " << parsed.error;
      EXPECT_EQ(parsed.value, ConnectString{}) << text;
    }
  }
}

}  // namespace

}  // namespace zr::halden::details
