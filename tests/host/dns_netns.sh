#!/usr/bin/env bash
# Runs a test program (and its Wine) inside a network namespace of its own,
# where dnsmasq on the namespace's loopback is the only DNS server and the
# resolver configuration and hosts file are the test's: nothing of the
# machine's own network is reached. Where no namespace can be made, the
# program runs outside with KX_DNS_MODE=fake and says why.
#   dns_netns.sh <command> [args...]
set -u
if [ "${1:-}" != "--inside" ]; then
  # As root, network and mount namespaces alone; otherwise inside a user
  # namespace of our own as well.
  for how in "-nm" "-rnm"; do
    if why=$(unshare $how true 2>&1); then
      exec unshare $how bash "$0" --inside "$@"
    fi
  done
  echo "host_dns: no private network namespace here (unshare: ${why:-failed});" \
       "the resolver's stand-in answers instead of a DNS server"
  KX_DNS_MODE=fake exec "$@"
fi
shift
set -e
ip link set lo up
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo "nameserver 127.0.0.1" >"$tmp/resolv.conf"
printf '192.0.2.99 kx-hosts-only.test\n' >"$tmp/hosts"
mount --bind "$tmp/resolv.conf" /etc/resolv.conf
mount --bind "$tmp/hosts" /etc/hosts
dnsmasq --keep-in-foreground --conf-file=/dev/null --user=root --group=root --no-resolv --no-hosts \
  --listen-address=127.0.0.1 --bind-interfaces --port=53 --pid-file="$tmp/dnsmasq.pid" \
  --address=/kx-one.test/192.0.2.10 \
  --host-record=kx-two.test,192.0.2.21 --host-record=kx-two.test,192.0.2.22 \
  --address=/kx-v6only.test/2001:db8::1 --local=/test/ \
  --log-facility="$tmp/dnsmasq.log" &
server=$!
for _ in $(seq 50); do [ -s "$tmp/dnsmasq.pid" ] && break; sleep 0.1; done
if ! kill -0 "$server" 2>/dev/null; then
  echo "host_dns: dnsmasq did not start:"; cat "$tmp/dnsmasq.log" 2>/dev/null
  exit 1
fi
set +e
KX_DNS_MODE=server "$@"
rc=$?
kill "$server"
wait "$server" 2>/dev/null
exit $rc
