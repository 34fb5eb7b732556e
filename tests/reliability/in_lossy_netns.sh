#!/usr/bin/env bash
# Runs a command in a network namespace of its own whose loopback drops a
# share of all UDP packets at random (iptables' statistic match), so that
# RTP over UDP meets real packet loss. Exit 77 (skipped) where namespaces or
# iptables are not available.
# Usage: in_lossy_netns.sh PROBABILITY COMMAND [ARG...]
set -uo pipefail
probability=$1
shift
if ! command -v unshare >/dev/null || ! command -v iptables >/dev/null || ! command -v ip >/dev/null; then
  echo "in_lossy_netns: unshare, ip or iptables missing: skipped" >&2
  exit 77
fi
if ! unshare -n true 2>/dev/null; then
  echo "in_lossy_netns: no permission for a network namespace: skipped" >&2
  exit 77
fi
export QO_LOSSY_NETNS=$probability
exec unshare -n bash -c '
  ip link set lo up || exit 77
  iptables -A INPUT -p udp -m statistic --mode random --probability "$QO_LOSSY_NETNS" -j DROP ||
    exit 77
  exec "$@"' in_lossy_netns "$@"
