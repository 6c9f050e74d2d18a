// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/config_example.h"

namespace zr::halden::tool {

std::string ConfigExample() {
  return R"(# Where the data centres' ZooKeeper ensembles are, in TOML. "halden config check" tells what is wrong.

# The data centre that this host is in: programs that choose between data centres prefer it. May be left out.
local = "eu-west"

# A folder where programs keep what they know, so that one that starts in an outage knows what was known before.
# snapshot_folder = "/var/lib/orders/halden"

[data_centers]

# A data centre's name, and how its ensemble is reached: "host:port[,host:port...][/chroot]". Name every
# member: a client goes on with another one when it loses the one it uses. Names are resolved again while
# none of them answers.
eu-west = "zk1.eu-west.example:2181,zk2.eu-west.example:2181,zk3.eu-west.example:2181"

# A chroot keeps everything below one node of an ensemble that is shared with others. It stands once, at the
# end, and holds for all members. Publishers and clients must agree on it.
us-east = "10.1.0.1:2181,10.1.0.2:2181,10.1.0.3:2181/platform"

# IPv6 addresses stand in brackets.
ap-south = "[2001:db8::1]:2181,[2001:db8::2]:2181,[2001:db8::3]:2181"

# With more to say of it a data centre is a table. auth_file holds one line, as in "digest:user:password", and is
# closed to others than its owner and group; a relative name is in this file's folder. acl says who may do what with the
# instances that are published: "creator", or a list in ZooKeeper's text form.
# [data_centers.sa-east]
# hosts = "zk1.sa-east.example:2181,zk2.sa-east.example:2181/platform"
# auth_file = "sa-east.auth"
# acl = "creator"

# What "halden serve" follows, and where it listens (docs/agent.md).
# [serve]
# services = ["orders", "payments"]
# listen = "127.0.0.1:7470"
)";
}

}  // namespace zr::halden::tool
