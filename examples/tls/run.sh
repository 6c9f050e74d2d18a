#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# halden over TLS: a throw-away authority, ZooKeeper servers with a TLS port, and stunnel in front of them as
# halden-tunnel.conf has it, with other ports. Shows that data arrives, that a server of another authority and one of
# another name are refused and how that is seen, that stunnel may die, and what it all costs. Ends with 1 when one of
# these is not so, and leaves nothing behind. Needs stunnel4, openssl and ZooKeeper with Java.
#
#   examples/tls/run.sh [HALDEN]   the command to use, else the one in the path
set -euo pipefail
umask 077
for needed in "${1:-halden}" stunnel openssl java; do
  command -v "$needed" >/dev/null || { echo "tls: no $needed here" >&2; exit 1; }
done
here=$(dirname "$(realpath "$0")")
program=$(realpath "$(command -v "${1:-halden}")")
folder=$(mktemp -d "${TMPDIR:-/tmp}/halden-tls-XXXXXX")
readonly here program folder limit=30 # seconds that any one thing may take
declare -A port=()
stunnel="" # its process id

clean_up() {
  local result=$?
  trap - EXIT
  {
    jobs -p | xargs --no-run-if-empty kill -KILL || true
    wait || true
  } 2>/dev/null # else the shell reports each
  rm -rf "$folder"
  exit "$result"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

say() { printf 'tls: %s\n' "$*"; }
fail() {
  say "$*" >&2
  tail -n 5 "$folder"/*.log "$folder"/*.out >&2 || true
  exit 1
}
await() { # await WHAT COMMAND...: asks again and again until it succeeds
  local what=$1 end=$((SECONDS + limit))
  shift
  until "$@" 2>/dev/null; do
    ((SECONDS < end)) || fail "in vain: $what"
    sleep 0.02
  done
}
expect() { # expect TEXT FILE
  grep --quiet --fixed-strings -- "$1" "$2" || fail "no \"$1\" in: $(cat "$2")"
}
background() { # that does not outlive this script, however it ends
  setpriv --pdeathsig KILL "$@" &
}

listens() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
take_ports() { # take_ports NAME...: free ones, below what the system gives to outgoing connections
  local name candidate
  for name in "$@"; do
    until
      candidate=$((10000 + RANDOM % 20000))
      [[ " ${port[*]} " != *" $candidate "* ]] && ! listens "$candidate"
    do :; done
    port[$name]=$candidate
  done
}

# --- an authority, servers, tunnels

key=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes)
authority() { # authority NAME
  openssl req -x509 "${key[@]}" -days 1 -subj "/CN=$1" -keyout "$1.key" -out "$1.pem" \
    -addext keyUsage=critical,keyCertSign 2>>openssl.log
}
issue() { # issue AUTHORITY NAME FILE: a key and a certificate as ZooKeeper reads them
  openssl req "${key[@]}" -subj "/CN=$2" -keyout "$3.key" -out "$3.request" 2>>openssl.log
  openssl x509 -req -in "$3.request" -CA "$1.pem" -CAkey "$1.key" -CAcreateserial -days 1 -out "$3.pem" \
    -extfile <(printf 'subjectAltName=DNS:%s\n' "$2") 2>>openssl.log
  openssl pkcs12 -export -in "$3.pem" -inkey "$3.key" -out "$3.p12" -passout pass:changeit
}

start_server() { # start_server NAME: with the key in NAME.p12. Debian's zookeeper.jar does not name netty-codec.jar
  local java=/usr/share/java
  take_ports "$1" "$1-tls"
  {
    printf '%s\n' tickTime=2000 maxSessionTimeout=12000 "dataDir=$folder/$1" "clientPort=${port[$1]}"
    sed -e "s|^secureClientPort=.*|secureClientPort=${port[$1-tls]}\nsecureClientPortAddress=127.0.0.1|" \
      -e "s|/etc/zookeeper/conf/server.p12|$folder/$1.p12|" "$here/zoo.cfg"
  } >"$1.cfg"
  background java -Xmx96m -XX:+UseSerialGC -XX:TieredStopAtLevel=1 -Dzookeeper.forceSync=no \
    -Dzookeeper.admin.enableServer=false -Dorg.slf4j.simpleLogger.defaultLogLevel=warn \
    -cp "$java/zookeeper.jar:$java/netty-codec.jar:$java/slf4j-simple.jar" \
    org.apache.zookeeper.server.ZooKeeperServerMain "$1.cfg" >"$1.log" 2>&1
}

# The recipe, with other ports: zk1 is as it should be, behind zk2 is a server of another authority, behind zk3 one with
# zk1's name. And one more tunnel that believes the other authority.
write_tunnels() {
  take_ports zk1 zk2 zk3 believer
  sed -e "s|/etc/halden/zookeeper-authority.pem|$folder/ours.pem|" \
    -e "s|:921$|:${port[zk1]}|; s|:922$|:${port[zk2]}|; s|:923$|:${port[zk3]}|" \
    -e "s|zk[13].eu:2281|127.0.0.1:${port[right-tls]}|; s|zk2.eu:2281|127.0.0.1:${port[stranger-tls]}|" \
    "$here/halden-tunnel.conf" >tunnel.conf
  printf '%s\n' '[believer]' "CAfile = $folder/theirs.pem" "accept = 127.0.0.1:${port[believer]}" \
    "connect = 127.0.0.1:${port[stranger-tls]}" 'checkHost = zk2.eu' >>tunnel.conf
}
start_stunnel() {
  background stunnel tunnel.conf >>stunnel.log 2>&1
  stunnel=$!
}

# --- halden

configure() { # configure FILE CONNECT_STRING
  printf 'local = "eu-west"\n[data_centers]\neu-west = "%s"\n' "$2" >"$1.toml"
}
halden() { # halden FILE COMMAND...: with the configuration FILE
  local file=$1
  shift
  "$program" "$@" --config "$file.toml"
}
publish() { # publish FILE SERVICE HOST COUNT: returns once all are published
  background "$program" publish "$2" --config "$1.toml" --dc eu-west --host "$3" --port 8080 --count "$4" --quiet \
    >"$2-$3.out" 2>&1 </dev/null
  all_published() { [[ $(wc -l <"$1") -eq $2 ]]; }
  await "$3 published" all_published "$2-$3.out" "$4"
}

is_told() { # is_told FILE: a list is empty, and says why
  ! halden "$1" list orders --timeout 1 --json --quiet >"$1.list" 2>"$1.errors" &&
    grep --quiet "closes the connection at once" "$1.errors" && [[ ! -s "$1.list" ]]
}
refused() { # refused FILE WORDS: no server of it is used; doctor says so, and stunnel's log has WORDS
  ! halden "$1" doctor orders --timeout 3 >"$1.doctor" || fail "doctor finds nothing wrong with $1: $(cat "$1.doctor")"
  expect "closes the connection at once" "$1.doctor"
  expect "a tunnel whose server is down or not who it should be" "$1.doctor"
  await "stunnel's log: $2" grep --quiet "$2" stunnel.log
  await "$1 refused: $(<"$1.doctor")" is_told "$1"
}

# --- what it costs

now() { echo "${EPOCHREALTIME/./}"; } # microseconds
load() { # load FILE: the time of a command that reads 1,000 instances
  local begin
  begin=$(now)
  halden "$1" status many --quiet --json >"$1.status"
  echo $(($(now) - begin)) >>"$1.loads"
  expect '"instances":1000' "$1.status"
}
follow() { # follow FILE: an instance and who watches it, both through FILE
  publish "$1" "$1" changing 1
  changing[$1]=$!
  mkfifo "$1.events"
  exec {watch}<>"$1.events"
  events[$1]=$watch
  background "$program" watch "$1" --config "$1.toml" >"$1.events" 2>>"$1.log" </dev/null
  next_event "$1" live
}
next_event() { # next_event FILE TEXT
  local line=""
  until [[ "$line" == *"$2"* ]]; do
    IFS= read -r -t "$limit" -u "${events[$1]}" line || fail "$1: no event: $2"
  done
}
change() { # change FILE SIGNAL TEXT: the time from the signal to the event
  local begin
  begin=$(now)
  kill "-$2" "${changing[$1]}"
  next_event "$1" "$3"
  echo $(($(now) - begin)) >>"$1.changes"
}
compare() { # compare WHAT FILE_ENDING: medians, and their ratio
  local with without
  with=$(sort -n "tls.$2" | sed -n "$(($(wc -l <"tls.$2") / 2 + 1))p")
  without=$(sort -n "plain.$2" | sed -n "$(($(wc -l <"plain.$2") / 2 + 1))p")
  say "$1: $((with * 100 / without)) % of the time without TLS ($with us, $without us)"
}
declare -A changing=() events=()

# --- the story

cd "$folder"
authority ours
authority theirs
issue ours zk1.eu right
issue theirs zk2.eu stranger
start_server right
start_server stranger
for name in right stranger; do
  await "$name serves" listens "${port[$name]}"
  await "$name has a TLS port" listens "${port[$name-tls]}"
done
write_tunnels
start_stunnel
await "stunnel listens" listens "${port[believer]}"
configure plain "127.0.0.1:${port[right]}"
configure tls "127.0.0.1:${port[zk1]}"
configure stranger "127.0.0.1:${port[zk2]}"
configure other-name "127.0.0.1:${port[zk3]}"
configure believer "127.0.0.1:${port[believer]}"
configure no-tunnel "127.0.0.1:${port[right-tls]}"
configure all "127.0.0.1:${port[zk2]},127.0.0.1:${port[zk3]},127.0.0.1:${port[zk1]}"

background "$program" watch orders --config stranger.toml --verbose >stranger.out 2>&1 </dev/null
publish tls orders here 3
publish believer orders elsewhere 1
halden tls list orders --json --quiet >tls.list
[[ $(grep --count '"host":"here"' tls.list) -eq 3 ]] || fail "not all instances arrive: $(cat tls.list)"
halden tls doctor orders >tls.doctor || fail "doctor finds fault: $(cat tls.doctor)"
say "data arrives"

refused stranger "CERT: Pre-verification error"
say "a server of another authority is refused"
refused other-name "CERT: Subject checks failed"
say "a server of another name is refused"
halden all list orders --json --quiet >all.list
cmp tls.list all.list || fail "the ensemble's one good server is not found"
halden all doctor orders >all.doctor
expect "1 of 3 take connections" all.doctor
say "and left for one that is right"
halden no-tunnel doctor --timeout 1 >no-tunnel.doctor && fail "a TLS port is spoken to without TLS"
expect "closes the connection at once" no-tunnel.doctor
await "the log says so" grep --quiet 'no server of the ensemble is reached' stranger.out

id=$(sed -n 1p orders-here.out)
halden tls get orders "$id" --json >before.node
background "$program" watch orders --config tls.toml >watch.out 2>&1 </dev/null
await "watching" grep --quiet 'live, 3 instances' watch.out
{ kill -KILL "$stunnel" && wait "$stunnel"; } 2>/dev/null || true # else the shell reports it
await "the loss is seen" grep --quiet 'connection lost, 3 instances kept' watch.out
start_stunnel
is_back() { [[ $(grep --count 'live, 3 instances' watch.out) -eq 2 ]]; }
await "the connection is back" is_back
publish tls orders late 1 # events come in order: a removal would be seen before this one
await "news after that" grep --quiet 'added .* late' watch.out
! grep removed watch.out || fail "instances were removed"
[[ $(grep --count added watch.out) -eq 4 ]] || fail "instances were added twice: $(cat watch.out)"
halden tls get orders "$id" --json >after.node
cmp before.node after.node || fail "an instance has another node now"
say "stunnel killed and restarted: no instance is lost"

mv ours.pem believed.pem
cp theirs.pem ours.pem
kill -HUP "$stunnel"
await "new connections are held to another authority" is_told tls
cp believed.pem ours.pem
kill -HUP "$stunnel"
await "and to the former" halden tls list orders --timeout 1 >/dev/null
[[ $(grep --count 'connection lost' watch.out) -eq 1 ]] || fail "stunnel's reload has cost a connection"
say "another authority is believed: connections stay, new ones are held to it"

publish plain many one-of-many 1000
for _ in {1..15}; do load plain && load tls; done
follow plain
follow tls
for _ in {1..60}; do
  for file in plain tls; do
    change "$file" USR1 degraded
    change "$file" USR2 ok
  done
done
compare "reading 1,000 instances" loads
compare "from a change to its event" changes
