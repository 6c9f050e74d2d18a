#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Builds the programs in examples/ as a user would, against the packages and nothing else, through CMake (shared
# and static) and through pkg-config, and runs them on a real ZooKeeper server. One of them uses a client library of
# its own: the two must not come to call each other.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/package.sh
folder=$(mktemp -d)
server=""
clean_up() {
  jobs -p | xargs --no-run-if-empty kill 2>/dev/null || true
  [[ -z "$server" ]] || kill -KILL "$server" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$folder"
}
trap clean_up EXIT

fail() {
  echo "examples: $*" >&2
  tail -n 20 "$folder"/*.log >&2 || true
  exit 1
}

expect() { # expect TEXT FILE
  grep --quiet --fixed-strings -- "$1" "$2" || fail "no \"$1\" in: $(cat "$2")"
}

await() { # await COMMAND...: asks again and again until it succeeds, for 30 seconds
  local end=$((SECONDS + 30))
  until "$@" 2>/dev/null; do
    ((SECONDS < end)) || fail "in vain: $*"
    sleep 0.05
  done
}

echo "examples: unpacking and building"
for package in build/release/packages/*.deb; do
  dpkg-deb --extract "$package" "$folder/root"
  ! dpkg-deb --field "$package" Depends | grep --extended-regexp 'libzookeeper-[ms]t2' || fail "$package wants a client"
done
prefix="$folder/root/usr"
library=$(dirname "$(find "$prefix" -name libhalden.so)")
for component in shared static; do
  cmake -S examples -B "$folder/$component" -DCMAKE_PREFIX_PATH="$prefix" -DHALDEN_COMPONENT=$component \
    >"$folder/cmake.log" 2>&1 || fail "CMake does not find the package ($component)"
  cmake --build "$folder/$component" --parallel 2 >"$folder/build.log" 2>&1 || fail "does not build ($component)"
done
export PKG_CONFIG_PATH="$library/pkgconfig" LD_LIBRARY_PATH="$library"
make --directory examples BUILD="$folder/make" >"$folder/make.log" 2>&1 || fail "does not build with pkg-config"

# Installed, nothing of ours has a name that is not ours.
[[ $(ls "$prefix/include") == halden ]] || fail "headers outside of include/halden: $(ls "$prefix/include")"
! grep -rnE '#include "(logger|zrstl|zr)/' "$prefix/include" || fail "a header may find a program's in place of ours"
# What an older standard gets is told in words, and first.
echo '#include <halden/global_service_watcher.h>' >"$folder/old.cpp"
! "${CXX:-c++}" -std=c++17 -fsyntax-only $(pkg-config --cflags halden) "$folder/old.cpp" 2>"$folder/old.out" ||
  fail "compiles as C++17"
grep --max-count=1 'error' "$folder/old.out" >"$folder/old.first"
expect "halden needs C++20" "$folder/old.first"

# A program may use a client library of its own: so halden neither shows nor asks for any name of one.
names() { nm "$@" | awk 'NF > 1 { sub(/@.*/, "", $NF); print $NF }' | sort --unique; }
names --dynamic --defined-only "$("${CXX:-c++}" -print-file-name=libzookeeper_mt.so.2)" >"$folder/client.names"
names --dynamic "$library/libhalden.so" >"$folder/shared.names"
names --extern-only "$library/libhalden.a" >"$folder/static.names"
expect zookeeper_init "$folder/client.names"
for kind in shared static; do
  expect _ZN2zr6halden10Connection "$folder/$kind.names"
  both=$(comm -12 "$folder/client.names" "$folder/$kind.names")
  [[ -z "$both" ]] || fail "halden ($kind) and the client library have names in common: $both"
done
first() { readelf --dynamic "$1" | grep --only-matching --max-count=1 -e 'libhalden\.so' -e 'libzookeeper_mt\.so'; }
for build in shared make; do # else one order would be tried twice
  [[ $(first "$folder/$build/beside_own_client") == libhalden.so ]] || fail "halden is not first ($build)"
  [[ $(first "$folder/$build/own_client_first") == libzookeeper_mt.so ]] || fail "the client is not first ($build)"
done

echo "examples: a test that runs servers of its own"
for build in shared static make; do
  timeout 240 "$folder/$build/data_center_loss" >"$folder/loss.log" 2>&1 || fail "data_center_loss failed ($build)"
  expect "a leader hangs: the others elect one" "$folder/loss.log"
done
PATH='' "$folder/shared/data_center_loss" >"$folder/skipped.log" 2>&1 && fail "data_center_loss does without Java"
expect "install default-jre-headless" "$folder/skipped.log"

echo "examples: running on a ZooKeeper server"
listens() { (exec 5<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
port=0
until ((port != 0)) && ! listens "$port"; do # below what the system gives to outgoing connections
  port=$(($(od -An -N2 -tu2 /dev/urandom) % 12000 + 20000))
done
mkdir "$folder/data"
printf 'tickTime=500\ndataDir=%s\nclientPort=%s\nclientPortAddress=127.0.0.1\n' "$folder/data" "$port" \
  >"$folder/zoo.cfg"
java -Xmx64m -Dzookeeper.admin.enableServer=false \
  -cp /usr/share/java/zookeeper.jar:/usr/share/java/slf4j-simple.jar \
  org.apache.zookeeper.server.ZooKeeperServerMain "$folder/zoo.cfg" >"$folder/server.log" 2>&1 &
server=$!
printf 'local = "here"\n[data_centers]\nhere = "127.0.0.1:%s"\n' "$port" >"$folder/halden.toml"

mkfifo "$folder/input" "$folder/stop"
"$folder/make/publisher" "127.0.0.1:$port" orders host-1 8080 <"$folder/input" >"$folder/publisher.log" 2>&1 &
publisher=$!
exec 3>"$folder/input"
await grep --quiet published "$folder/publisher.log"
for build in shared static make; do
  "$folder/$build/watcher" "$folder/halden.toml" orders <"$folder/stop" >"$folder/watcher.out" 2>&1 &
  watcher=$!
  exec 4>"$folder/stop"
  await grep --quiet "1 instances" "$folder/watcher.out"
  await grep --quiet "here added host-1" "$folder/watcher.out"
  expect "here host-1:8080, which is live" "$folder/watcher.out"
  exec 4>&-
  wait "$watcher" || fail "the watcher failed ($build)"
  "$folder/$build/shared_connections" "$folder/halden.toml" orders stock >"$folder/shared.out" 2>&1
  expect "orders: 1 instances" "$folder/shared.out"
  expect "stock: 0 instances" "$folder/shared.out"
  expect "here added host-1" "$folder/shared.out"
  echo request | "$folder/$build/load_balancer" "$folder/halden.toml" orders >"$folder/balancer.out" 2>&1
  expect "request: here host-1:8080" "$folder/balancer.out"
  : >"$folder/peer.out" # of the build before
  "$folder/$build/peer" "$folder/halden.toml" orders peer 9090 >"$folder/peer.out" 2>&1 &
  peer=$!
  await grep --quiet "here synchronised live" "$folder/peer.out"
  expect "here added host-1:8080" "$folder/peer.out"
  kill "$peer"
  wait "$peer" || fail "the peer failed ($build): $(cat "$folder/peer.out")"
  "$folder/$build/own_log" "$folder/halden.toml" orders >"$folder/log.out" 2>&1
  expect "[own log] info halden.connection: connected" "$folder/log.out"
  for program in beside_own_client own_client_first; do
    timeout 60 "$folder/$build/$program" "127.0.0.1:$port" orders >"$folder/beside.log" 2>&1 ||
      fail "$program failed ($build)"
    expect "halden: 2 instances" "$folder/beside.log"
    expect "own client: 2 instances" "$folder/beside.log"
    expect "both have seen it go" "$folder/beside.log"
  done
done
# A writer without halden: seen as any other, from its publication to its end. By Debian's Python, which has its kazoo.
mkfifo "$folder/python.input"
"$prefix/bin/halden" watch payments --config "$folder/halden.toml" >"$folder/watch.out" 2>&1 &
watcher=$!
/usr/bin/python3 examples/python/publish.py "127.0.0.1:$port" payments from-python 7070 <"$folder/python.input" \
  >"$folder/python.log" 2>&1 &
python=$!
exec 4>"$folder/python.input"
await grep --quiet 'added.*from-python' "$folder/watch.out"
"$prefix/bin/halden" doctor payments --config "$folder/halden.toml" >"$folder/doctor.out"
expect "1 instance, all readable" "$folder/doctor.out"
exec 4>&-
wait "$python" || fail "the writer in Python failed"
await grep --quiet removed "$folder/watch.out"
kill "$watcher"
wait "$watcher" || true
"$prefix/bin/halden" list orders --config "$folder/halden.toml" >"$folder/list.out"
expect host-1 "$folder/list.out"
exec 3>&- # the end of the publisher's input
wait "$publisher" || fail "the publisher failed"

echo "examples: TLS"
if scripts/setup.sh --examples; then
  examples/tls/run.sh "$prefix/bin/halden"
  systemd-analyze verify --man=no examples/tls/halden-tunnel.service >"$folder/unit.log" 2>&1 || fail "a bad unit"
  [[ ! -s "$folder/unit.log" ]] || fail "an unsound unit" # it succeeds with unknown keys
else
  echo "examples: skipped, stunnel is not installed and cannot be"
fi
echo "examples: all build and run"
