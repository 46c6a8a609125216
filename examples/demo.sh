#!/usr/bin/env bash
# The demonstration behind ./run demo: an agent on real kernel interfaces, alone and beside a server.
# It works in two network namespaces of its own, joined by veth pairs, and takes them away again.
# demo.sh BUILD-DIRECTORY
set -euo pipefail
build=$1
if [ "$(id -u)" != 0 ]; then exec sudo "$0" "$@"; fi

switch=ryx-demo-switch-$$ far=ryx-demo-far-$$
work=$(mktemp -d)
heard=$work/heard # what the agent says
agent= server=
clean_up() {
  exec 3>&- 2>/dev/null || true
  if [ -n "$agent" ]; then kill "$agent" 2>/dev/null || true; fi
  # A server ends what it runs, and one that was killed leaves that to the next.
  if [ -n "$server" ]; then
    kill -0 "$server" 2>/dev/null || start_server 2>/dev/null || true
    kill "$server" 2>/dev/null && wait "$server" 2>/dev/null || true
  fi
  ip netns del "$switch" 2>/dev/null || true
  ip netns del "$far" 2>/dev/null || true
  rm -rf "$work"
}
trap clean_up EXIT

say() { printf '\n# %s\n' "$*"; }
fail() {
  printf '\ndemo: %s\nThe agent had said:\n' "$*" >&2
  cat "$heard" >&2
  exit 1
}
# Shows what the agent says until it says that.
seen=0
hear() {
  local deadline=$((SECONDS + 10)) total
  until tail -n "+$((seen + 1))" "$heard" | grep -qF -- "$1"; do
    kill -0 "${agent:-$server}" 2>/dev/null || fail "the agent ended, and never said '$1'"
    [ $SECONDS -lt $deadline ] || fail "the agent did not say '$1'"
    sleep 0.02
  done
  total=$(tail -n "+$((seen + 1))" "$heard" | grep -nF -- "$1" | head -n 1 | cut -d: -f1)
  tail -n "+$((seen + 1))" "$heard" | head -n "$total" | sed 's/^/    agent: /'
  seen=$((seen + total))
}
try() {
  printf '  $ %s\n' "$*"
  "$@"
}
# Waits until the kernel shows what the agent asked for.
kernel_shows() {
  local deadline=$((SECONDS + 10))
  until ip -n "$switch" link show "$1" | grep -qE -- "$2"; do
    [ $SECONDS -lt $deadline ] || fail "the kernel does not show '$2' on $1"
    sleep 0.02
  done
}

# ryxd in the switch's namespace. What it and the agents that it runs say is heard.
start_server() {
  ip netns exec "$switch" "$build/bin/ryxd" --statehubsockname="$work/statehub" \
    --state="$work/state" --service=linux >>"$heard" 2>&1 &
  server=$!
}
export STATEHUBSOCKNAME=$work/statehub
ryx() {
  printf '  $ ryx %s\n' "$*"
  "$build/bin/ryx" "$@"
}

say "Two network namespaces, joined by two cables (veth pairs): a switch, and what is at its far end."
ip netns add "$switch"
ip netns add "$far"
for port in 1 2; do
  ip -n "$switch" link add "eth$port" type veth peer name "far$port" netns "$far"
  ip -n "$switch" link set "eth$port" up
  ip -n "$far" link set "far$port" up
done

say "The agent starts in the switch's namespace. Its Statehub is inside its process, fed by the kernel."
mkfifo "$work/commands"
STATEHUBLOCAL=linux ip netns exec "$switch" "$build/examples/intf_watch" \
  <"$work/commands" >"$heard" 2>&1 &
agent=$!
exec 3>"$work/commands"
hear "Using RYX SDK"
hear "ready"
hear "Ethernet1: "
hear "Ethernet2: "
hear "is INTF_OPER_UP"
hear "is INTF_OPER_UP"

say "The far end of the first cable goes down, and comes up again."
try ip -n "$far" link set far1 down
hear "Ethernet1 is INTF_OPER_DOWN"
try ip -n "$far" link set far1 up
hear "Ethernet1 is INTF_OPER_UP"

say "Somebody describes a port with the kernel's own tool."
try ip -n "$switch" link set eth1 alias "to the core"
hear "Ethernet1 is described as 'to the core'"

say "An interface is added, and removed."
try ip -n "$switch" link add eth3 type veth peer name far3 netns "$far"
hear "Ethernet3 was added"
try ip -n "$switch" link del eth3
hear "Ethernet3 was removed"

say "Now the agent acts: it disables a port and describes it. The kernel obeys."
echo "  > down Ethernet2"
echo "down Ethernet2" >&3
echo "  > describe Ethernet2 unused, see ticket 42"
echo "describe Ethernet2 unused, see ticket 42" >&3
hear "Ethernet2 is disabled"
kernel_shows eth2 'state DOWN'
kernel_shows eth2 'alias unused, see ticket 42'
try ip -n "$switch" link show eth2

say "SIGTERM ends the agent."
kill -TERM "$agent"
status=0
wait "$agent" || status=$?
agent=
echo "  exit status $status (128 + 15)"
[ "$status" = 143 ] || fail "expected exit status 143"

say "Second act: a server, with the kernel's interfaces as a service, each a process of its own."
heard=$work/heard2 seen=0
touch "$heard"
echo "  $ ryxd --service=linux &"
start_server
hear "listening"
ryx service
say "The operator makes the agent known, and has the server run it."
ryx agent add watcher --exec="$build/examples/intf_watch" --option=color=blue
ryx agent enable watcher
hear "Ethernet2: "
hear "option color is 'blue'"
ryx agent option watcher color=red
hear "option color is 'red'"
ryx agent show watcher
say "The state is there to be seen, and to be set. The kernel obeys, and the agent hears of it."
ryx show /interface/status
ryx set /interface/config/eth/phy/slice/1/Ethernet1 "description=to the core, rack 7"
hear "Ethernet1 is described as 'to the core, rack 7'"
kernel_shows eth1 'alias to the core, rack 7'
say "The server is killed. The agent goes on; the next server finds it, and what was configured."
try kill -9 "$server"
wait "$server" 2>/dev/null || true
server=
echo "  $ ryxd --service=linux &"
start_server
hear "has lost its Statehub"
hear "has its Statehub again"
try ip -n "$far" link set far1 down
hear "Ethernet1 is INTF_OPER_DOWN"
ryx agent show
say "The agent is killed. The server starts it again."
pid=$("$build/bin/ryx" agent show watcher --json | sed -n 's/^ *"pid": \([0-9]*\),*$/\1/p')
try kill -9 "$pid"
hear "it is started again"
hear "ready"
say "Who is connected, and the end: the agent is disabled, cleans up and leaves."
ryx clients
ryx agent disable watcher
hear "disabled: leaving"
try kill -TERM "$server"
wait "$server"
server=
say "That was all; the namespaces are gone again."
