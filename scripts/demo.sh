#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Shows halden at work: three data centres, each with a ZooKeeper server of its own, instances that come, change
# and go, and a server that is killed and comes back. Builds what it needs, checks what it shows (1 when a check
# fails), and leaves nothing behind, also when it is interrupted.
#
#   scripts/demo.sh          the whole story
#   scripts/demo.sh --stay   up to its end, and then leaves all running for a look at the agent's page, until interrupted
set -euo pipefail
cd "$(dirname "$0")/.."

readonly data_centres=(eu-west us-east ap-south)
readonly limit=30 # seconds that any one thing may take
readonly program=build/release/halden/tool/halden
declare -A port=() server=() publisher=()
watcher=""   # the process id of `halden watch`
agent=""     # and of `halden serve`
watch_fd=""  # its output
seen=()      # the lines of it that were shown
failures=0
folder=""

step() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
indent() { sed 's/^/    /'; }
if [[ -t 1 ]]; then bold=$'\e[1m' plain=$'\e[0m'; else bold="" plain=""; fi

# Ends what this script started, and nothing else: publishers first, while there are servers to tell.
clean_up() {
  local result=$?
  local -a clients=("${publisher[@]}" ${watcher:+"$watcher"} ${agent:+"$agent"})
  trap - EXIT
  trap '' INT TERM
  if ((${#clients[@]} > 0)); then
    kill "${clients[@]}" 2>/dev/null || true
    await 8 gone "${clients[@]}" || kill -KILL "${clients[@]}" 2>/dev/null || true
  fi
  {
    kill -KILL "${server[@]}" || true
    wait "${server[@]}" || true
  } 2>/dev/null # else the shell reports each
  [[ -z "$folder" ]] || rm -rf "$folder"
  exit "$result"
}

fail() {
  printf '\ndemo: %s\n' "$*" >&2
  tail -n 5 "$folder"/*.log "$folder/halden.errors" >&2 || true
  exit 1
}

check() { # check TEXT COMMAND...
  local text=$1
  shift
  if "$@"; then
    printf '    checked: %s\n' "$text"
  else
    printf '    FAILED:  %s\n' "$text"
    failures=$((failures + 1))
  fi
}

await() { # await SECONDS COMMAND...: asks again and again until it succeeds
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS < end)) || return 1
    sleep 0.05
  done
}

gone() {
  local pid
  for pid in "$@"; do ! kill -0 "$pid" 2>/dev/null || return 1; done
}

# Runs a command in the background that does not outlive this script, however the script ends.
background() { setpriv --pdeathsig KILL "$@" & }

# --- servers

listens() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# A server that still loads its data may leave the question unanswered for ever.
serves() {
  # shellcheck disable=SC2016 # expanded by the inner shell
  [[ "$(timeout 1 bash -c 'exec 3<>"/dev/tcp/127.0.0.1/$1" && printf srvr >&3 && cat <&3' _ "$1" 2>/dev/null)" \
    == *Mode:* ]]
}

free_port() {
  local candidate
  for _ in {1..100}; do
    candidate=$((10000 + RANDOM % 20000)) # below what the system gives to outgoing connections
    if [[ " ${port[*]} " != *" $candidate "* ]] && ! listens "$candidate"; then
      echo "$candidate"
      return
    fi
  done
  return 1
}

launch_server() { # false when it ended instead of serving
  local dc=$1
  background java -Xmx64m -XX:+UseSerialGC -XX:TieredStopAtLevel=1 -Dzookeeper.forceSync=no \
    -Dzookeeper.admin.enableServer=false -Dorg.slf4j.simpleLogger.defaultLogLevel=warn \
    -cp /usr/share/java/zookeeper.jar:/usr/share/java/slf4j-simple.jar \
    org.apache.zookeeper.server.ZooKeeperServerMain "$folder/$dc/zoo.cfg" >>"$folder/$dc.log" 2>&1
  server[$dc]=$!
  serves_or_ended() { serves "${port[$dc]}" || gone "${server[$dc]}"; }
  await "$limit" serves_or_ended && ! gone "${server[$dc]}"
}

# A client whose connection a starting server accepts and forgets (3.8 does that now and then) tries again after
# two thirds of its session timeout: hence the limit on it.
start_server() {
  local dc=$1
  mkdir "$folder/$dc"
  for _ in {1..5}; do # another process may take the port in between
    port[$dc]=$(free_port) || fail "no free port"
    printf '%s\n' tickTime=2000 "dataDir=$folder/$dc/data" "clientPort=${port[$dc]}" \
      clientPortAddress=127.0.0.1 maxClientCnxns=0 maxSessionTimeout=12000 >"$folder/$dc/zoo.cfg"
    if launch_server "$dc"; then
      echo "    $dc: 127.0.0.1:${port[$dc]}"
      return
    fi
  done
  fail "no ZooKeeper server for $dc"
}

# --- halden

publish() { # publish NAME COUNT ARGUMENT...: returns once all are published
  local name=$1 count=$2
  shift 2
  background "$program" publish orders --quiet --config "$folder/halden.toml" --count "$count" "$@" \
    >"$folder/$name.ids" 2>>"$folder/halden.errors" </dev/null
  publisher[$name]=$!
  all_published() { [[ $(wc -l <"$folder/$name.ids") -eq $count ]]; }
  await "$limit" all_published || fail "$name: not published"
}

halden() { "$program" "$@" --config "$folder/halden.toml" --timeout "$limit"; }
list() { halden list orders "$@"; }

says() { curl -s -D - -o /dev/null "$page/v1/services/orders/instances" | grep -q "$1"; } # the agent, in a header
written() { [[ $(grep -c "$1" "$folder/servers.conf") -eq $2 ]] 2>/dev/null; } # so many lines

follow() { # follow COUNT PATTERN: shows what the watcher prints until so many lines match
  local count=$1 pattern=$2 line="" end=$((SECONDS + limit))
  while ((count > 0)); do
    if ((SECONDS >= end)) || ! IFS= read -r -t "$limit" -u "$watch_fd" line; then
      fail "the watcher did not print: $pattern"
    fi
    printf '    | %s\n' "$line"
    seen+=("$line")
    if [[ "$line" =~ $pattern ]]; then count=$((count - 1)); fi
  done
}

seen_since() { # seen_since LINE COUNT PATTERN: whether exactly so many lines match
  local line found=0
  for line in "${seen[@]:$1}"; do
    if [[ "$line" =~ $3 ]]; then found=$((found + 1)); fi
  done
  [[ $found -eq $2 ]]
}

# --- the story

step "What is needed to build and run"
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target halden_tool

trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
folder=$(mktemp -d "${TMPDIR:-/tmp}/halden-demo-XXXXXX")

step "Three data centres, a ZooKeeper server each"
for dc in "${data_centres[@]}"; do start_server "$dc"; done
{
  echo "[data_centers]"
  for dc in "${data_centres[@]}"; do echo "$dc = \"127.0.0.1:${port[$dc]}\""; done
} >"$folder/halden.toml"

step "Three instances of the service 'orders' in each: halden publish"
for dc in "${data_centres[@]}"; do
  publish "$dc" 3 --dc "$dc" --host "node.$dc" --port 8080 --port admin=8081 --attribute zone=a
done

step "All data centres in one table: halden list"
list | indent
echo "  for programs, with --json, an object a line:"
list --json | sed -n 1p | indent

step "How the data centres are doing: halden status"
halden status orders | indent
check "each was read once" test "$(halden status orders --json | grep -c '"freshness":"live".*"resyncs":1,')" -eq 3

step "What one instance publishes: halden get; what is published at all: halden services"
id=$(sed -n 1p "$folder/eu-west.ids")
halden get orders "$id" | indent
halden services | indent
check "the instance is in one data centre" test "$(halden get orders "$id" --json | grep -c '"host":"node.eu-west"')" -eq 1
check "each has three instances" test "$(halden services --json | grep -c '"service":"orders","instances":3}')" -eq 3

step "Whether anything is wrong: halden doctor"
halden doctor orders | tail -n 10 | indent
check "nothing is wrong" halden doctor orders --quiet

step "For programs in any language, Prometheus and browsers: halden serve"
printf '{{#instances}}\nserver {{address}}{{^status_is.ok}} backup{{/status_is.ok}}\n{{/instances}}\n' >"$folder/template"
background "$program" serve --config "$folder/halden.toml" --service orders --listen 127.0.0.1:0 --log-level error \
  --render "$folder/template:$folder/servers.conf" \
  >"$folder/agent.address" 2>>"$folder/halden.errors" </dev/null
agent=$!
await "$limit" grep -q listening "$folder/agent.address" || fail "the agent does not listen"
page=$(sed 's/listening on //' "$folder/agent.address")
await "$limit" curl -sf -o /dev/null "$page/readyz" || fail "the agent is not ready"
echo "  curl $page/v1/services/orders/instances?data_center=eu-west"
curl -s "$page/v1/services/orders/instances?data_center=eu-west" | cut -c1-300 | indent
echo
check "it tells what list tells" test "$(curl -s "$page/v1/services/orders/instances" | grep -o '"type":"instance"' | wc -l)" -eq 9
check "a file made of a template has them, too" await "$limit" written '^server node' 9

step "What happens, as it happens: halden watch"
exec {watch_fd}< <(exec setpriv --pdeathsig KILL "$program" watch orders --config "$folder/halden.toml" \
  2>>"$folder/halden.errors" </dev/null)
watcher=$!
follow 12 '  (added   |state     live)'

step "An instance comes in us-east ..."
publish extra 1 --dc us-east --host extra.us-east --port 9090
follow 1 "added     $(<"$folder/extra.ids")"
step "... says that it is degraded ..."
kill -USR1 "${publisher[extra]}"
follow 1 "modified  $(<"$folder/extra.ids").* degraded"
step "... and goes"
kill "${publisher[extra]}"
follow 1 "removed   $(<"$folder/extra.ids")"
await "$limit" gone "${publisher[extra]}" || fail "a publisher did not end"
unset 'publisher[extra]'

step "The server of eu-west is killed"
list --json --quiet >"$folder/before"
phase=${#seen[@]}
kill -KILL "${server[eu-west]}"
wait "${server[eu-west]}" 2>/dev/null || true
follow 1 'eu-west .* connection lost, 3 instances kept'

failed=$("$program" doctor orders --config "$folder/halden.toml" --timeout 2 --json |
  sed -n '/"verdict":"failure"/s/.*"data_center":"\([^"]*\)","check":"\([^"]*\)".*/\1 \2/p') || true
check "halden doctor finds that, and nothing else" test "$failed" = $'eu-west servers\neu-west session'

check "the agent says that it is shown as last known" await "$limit" says '^Halden-Freshness:.*eu-west=stale'

step "The other data centres go on: those in ap-south become degraded, and recover"
kill -USR1 "${publisher[ap-south]}"
follow 3 'ap-south .* modified .* degraded'
kill -USR2 "${publisher[ap-south]}"
follow 3 'ap-south .* modified .* ok'

step "The server of eu-west comes back"
launch_server eu-west || launch_server eu-west || fail "the server of eu-west did not come back"
follow 1 'eu-west .* live, 3 instances'
# Events of one data centre come in order: a removal would have been seen before this.
publish late 1 --dc eu-west --host late.eu-west --port 9090
follow 1 "added     $(<"$folder/late.ids")"
list --json --quiet | grep -v "$(<"$folder/late.ids")" >"$folder/after"
check "nothing was removed while the server was away" seen_since "$phase" 0 '  removed   '
check "nothing was announced twice" seen_since "$phase" 1 '  added     '
check "the list is the same as before" cmp -s "$folder/before" "$folder/after"

step "Its instances can change again"
kill -USR1 "${publisher[eu-west]}"
follow 3 'eu-west .* modified .* degraded'
check "the file has followed" await "$limit" written '^server node.eu-west:8080 backup' 3

if [[ "${1:-}" == --stay ]]; then
  printf '\n%sThe page: %s%s   (interrupt ends all)\n' "$bold" "$page" "$plain"
  wait "$agent"
  exit
fi

step "The publishers end and take their instances with them"
phase=${#seen[@]}
kill "${publisher[@]}"
follow 10 '  removed   '
await "$limit" gone "${publisher[@]}" || fail "a publisher did not end"
publisher=()
check "each was removed once" seen_since "$phase" 10 '  removed   '
check "the list is empty" test -z "$(list --json --quiet)"

step "Everything is taken down"
kill "$agent"
if wait "$agent"; then ended=0; else ended=$?; fi
check "the agent ended cleanly" test "$ended" -eq 0
kill "$watcher"
if wait "$watcher"; then ended=0; else ended=$?; fi
check "the watcher ended cleanly" test "$ended" -eq 0
check "no error was reported" test ! -s "$folder/halden.errors"
if ((failures > 0)); then
  printf '\n%sdemo: %d checks failed%s\n' "$bold" "$failures" "$plain"
  exit 1
fi
printf '\n%sdemo: all checks passed%s\n' "$bold" "$plain"
