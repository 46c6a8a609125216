#!/usr/bin/env bash
# The demonstration behind ./run demo: an agent on real kernel interfaces. It works in two network
# namespaces of its own, joined by veth pairs, and takes them away again. demo.sh BUILD-DIRECTORY
set -euo pipefail
build=$1
if [ "$(id -u)" != 0 ]; then exec sudo "$0" "$@"; fi

switch=ryx-demo-switch-$$ far=ryx-demo-far-$$
work=$(mktemp -d)
agent=
clean_up() {
  exec 3>&- 2>/dev/null || true
  if [ -n "$agent" ]; then kill "$agent" 2>/dev/null || true; fi
  ip netns del "$switch" 2>/dev/null || true
  ip netns del "$far" 2>/dev/null || true
  rm -rf "$work"
}
trap clean_up EXIT

say() { printf '\n# %s\n' "$*"; }
fail() {
  printf '\ndemo: %s\nThe agent had said:\n' "$*" >&2
  cat "$work/heard" >&2
  exit 1
}
# Shows what the agent says until it says that.
seen=0
hear() {
  local deadline=$((SECONDS + 10)) total
  until tail -n "+$((seen + 1))" "$work/heard" | grep -qF -- "$1"; do
    kill -0 "$agent" 2>/dev/null || fail "the agent ended, and never said '$1'"
    [ $SECONDS -lt $deadline ] || fail "the agent did not say '$1'"
    sleep 0.02
  done
  total=$(tail -n "+$((seen + 1))" "$work/heard" | grep -nF -- "$1" | head -n 1 | cut -d: -f1)
  tail -n "+$((seen + 1))" "$work/heard" | head -n "$total" | sed 's/^/    agent: /'
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
  <"$work/commands" >"$work/heard" 2>&1 &
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
say "That was all; the namespaces are gone again."
