#!/usr/bin/env bash
# An S3-compatible store for a run of the tests: Ceph's gateway with all that it needs, in memory, as an ordinary user, on free
# ports of the loopback interface.
#   radosgw.sh start FILE   starts one, and writes into FILE: its URL for --blob-store, the access key, the secret key
#   radosgw.sh stop FILE    stops that one
set -euo pipefail

verb=$1 file=$2 attempt=${VELKOR_RADOSGW_ATTEMPT:-1}
access_key=VELKORTEST secret_key=velkor-test-secret bucket=velkor

for program in ceph ceph-mon ceph-osd monmaptool radosgw radosgw-admin curl; do
  command -v "$program" >/dev/null || { echo "radosgw.sh: $program is not installed" >&2; exit 1; }
done

as_ordinary_user() {
  if [ "$(id -u)" -eq 0 ]; then
    setpriv --reuid=nobody --regid=nogroup --clear-groups env HOME="$directory" "$@"
  else
    "$@"
  fi
}

# Ends the process of that pid file, if it is still the one that wrote it, and waits for its end.
end() {
  local pid tries
  pid=$(cat "$directory/run/$1.pid" 2>/dev/null) || return 0
  grep -qaF "$directory/ceph.conf" "/proc/$pid/cmdline" 2>/dev/null || return 0
  kill "$pid" 2>/dev/null || return 0
  for tries in $(seq 150); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
}

stop() {
  [ -f "$file" ] || return 0
  directory=$(sed -n 4p "$file")
  rm -f "$file"
  [ -f "$directory/ceph.conf" ] || return 0
  # In this order: the gateway hangs when its storage goes first.
  for process in client.rgw.a osd.0 mon.a; do end "$process"; done
  rm -rf "$directory"
}

free_port() {
  local port
  while :; do
    port=$((20000 + RANDOM % 12000))
    (: <"/dev/tcp/127.0.0.1/$port") 2>/dev/null || break
  done
  echo "$port"
}

# Another program may have taken a port meanwhile: the start is tried three times.
give_up() {
  echo "radosgw.sh: $1 (attempt $attempt)" >&2
  tail -n 20 "$directory"/log/*.log "$directory/output" >&2 || true
  stop
  [ "$attempt" -lt 3 ] || exit 1
  VELKOR_RADOSGW_ATTEMPT=$((attempt + 1)) exec "$0" start "$file"
}

start() {
  stop # one that an interrupted run left behind
  directory=$(mktemp -d /tmp/velkor-radosgw-XXXXXX)
  local port monitor_port cluster osd try
  port=$(free_port) monitor_port=$(free_port)
  cluster=$(cat /proc/sys/kernel/random/uuid) osd=$(cat /proc/sys/kernel/random/uuid)
  mkdir -p "$directory"/{mon,osd,run,log,rgw} "$(dirname "$file")"
  cat >"$directory/ceph.conf" <<CONF
[global]
fsid = $cluster
mon host = v2:127.0.0.1:$monitor_port
public addr = 127.0.0.1
auth cluster required = none
auth service required = none
auth client required = none
mon allow pool size one = true
osd pool default size = 1
osd pool default pg num = 4
osd crush chooseleaf type = 0
osd objectstore = memstore
mon data = $directory/mon
osd data = $directory/osd
admin socket = $directory/run/\$name.\$pid.asok
pid file = $directory/run/\$name.pid
log file = $directory/log/\$name.log
keyring = $directory/keyring
mon data avail crit = 1
[client.rgw.a]
ms mon client mode = crc
auth client required = none
rgw frontends = beast endpoint=127.0.0.1:$port
rgw data = $directory/rgw
CONF
  [ "$(id -u)" -ne 0 ] || chown -R nobody:nogroup "$directory"
  printf '%s\n' "s3://$bucket?endpoint=http://127.0.0.1:$port" "$access_key" "$secret_key" "$directory" >"$file"
  local conf=(-c "$directory/ceph.conf")
  {
    as_ordinary_user monmaptool --create --clobber --fsid "$cluster" --addv a "[v2:127.0.0.1:$monitor_port]" "$directory/monmap" &&
      as_ordinary_user ceph-mon "${conf[@]}" --mkfs -i a --monmap "$directory/monmap" &&
      as_ordinary_user ceph-mon "${conf[@]}" -i a &&
      as_ordinary_user timeout 60 ceph "${conf[@]}" osd new "$osd" &&
      as_ordinary_user ceph-osd "${conf[@]}" -i 0 --mkfs --osd-uuid "$osd" &&
      as_ordinary_user ceph-osd "${conf[@]}" -i 0 &&
      as_ordinary_user radosgw "${conf[@]}" -n client.rgw.a
  } >"$directory/output" 2>&1 </dev/null || give_up "the store did not start"
  as_ordinary_user timeout 120 radosgw-admin "${conf[@]}" user create --uid=velkor --display-name=velkor \
    --access-key="$access_key" --secret-key="$secret_key" >>"$directory/output" 2>&1 </dev/null || give_up "no user was made"
  for try in $(seq 300); do
    curl -sf --noproxy '*' -o /dev/null -X PUT -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" \
      --aws-sigv4 aws:amz:us-east-1:s3 --user "$access_key:$secret_key" "http://127.0.0.1:$port/$bucket" && return
    sleep 0.2
  done
  give_up "no bucket was made"
}

case $verb in
  start | stop) "$verb" ;;
  *) echo "usage: radosgw.sh start|stop FILE" >&2; exit 2 ;;
esac
