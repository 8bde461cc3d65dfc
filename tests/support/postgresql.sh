#!/usr/bin/env bash
# A PostgreSQL server for a run of the tests: it belongs to an ordinary user, lies in a directory of its own and listens on a Unix
# socket in it only.
#   postgresql.sh start FILE   starts one and writes the URL of its administrator's database into FILE
#   postgresql.sh stop FILE    stops that one
set -euo pipefail

verb=$1 file=$2
home=$(dirname "$(find /usr/lib/postgresql -maxdepth 3 -name initdb -path '*/bin/*' 2>/dev/null | sort -V | tail -1)")
[ -x "$home/initdb" ] || { echo "postgresql.sh: PostgreSQL is not installed" >&2; exit 1; }

# The server refuses to run as root.
as_ordinary_user() {
  if [ "$(id -u)" -eq 0 ]; then
    setpriv --reuid=nobody --regid=nogroup --clear-groups "$@"
  else
    "$@"
  fi
}

stop() {
  [ -f "$file" ] || return 0
  local directory
  directory=$(sed -n 's/.*?host=//p' "$file")
  rm -f "$file"
  [ -f "$directory/data/PG_VERSION" ] || return 0
  (cd "$directory" && as_ordinary_user "$home/pg_ctl" -D "$directory/data" -w -m immediate stop >/dev/null) || true
  rm -rf "$directory"
}

start() {
  stop  # one that an interrupted run left behind
  local directory
  directory=$(mktemp -d /tmp/velkor-postgresql-XXXXXX)  # short: the path of a socket has 107 characters at most
  [ "$(id -u)" -ne 0 ] || chown nobody:nogroup "$directory"
  cd "$directory"
  as_ordinary_user "$home/initdb" -D "$directory/data" -U velkor --auth=trust -E UTF8 --locale=C.UTF-8 --no-sync >/dev/null
  # Tests that kill programs need what the server took in, not what it would have after a power cut.
  as_ordinary_user "$home/pg_ctl" -D "$directory/data" -w -l "$directory/log" \
    -o "-c listen_addresses='' -c unix_socket_directories='$directory' -c fsync=off -c max_connections=200" start >/dev/null ||
    { cat "$directory/log" >&2; exit 1; }
  mkdir -p "$(dirname "$file")"
  echo "postgresql://velkor@/postgres?host=$directory" >"$file"
}

case $verb in
  start|stop) "$verb" ;;
  *) echo "usage: postgresql.sh start|stop FILE" >&2; exit 2 ;;
esac
