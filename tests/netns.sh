#!/bin/sh
# Runs a command in a private network namespace whose loopback also carries the
# multicast range, so a hub started inside can bind port 1881 and join its group
# without reaching any real network. Needs root.
exec unshare -n sh -c 'ip link set lo up && ip route add 224.0.0.0/4 dev lo && exec "$@"' netns "$@"
