#!/usr/bin/env bash
# demo.sh BIN [--quick] [--s3] [PATH]: two hosts on one machine, kept in step through velkord on a real tree of files. With --s3 the
# contents of attachments lie in an S3-compatible store, which the demo starts.
set -euo pipefail

bin=$(cd "$1" && pwd)
shift
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
tree=/usr/share/doc
quick=
s3=
while [ $# -gt 0 ]; do
  case $1 in
    --quick) quick=yes ;;
    --s3) s3=yes ;;
    -*) echo "usage: ./dev demo [--quick] [--s3] [PATH]" >&2; exit 2 ;;
    *) tree=$(cd "$1" && pwd) ;;
  esac
  shift
done

work=$(mktemp -d)
service=
cleanup() {
  if [ -n "$service" ]; then kill "$service" 2>/dev/null || true; wait "$service" 2>/dev/null || true; fi
  if [ -n "$s3" ]; then "$root/tests/support/radosgw.sh" stop "$work/s3" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
if [ -n "$quick" ]; then
  tree=$work/quick
  mkdir "$tree"
  cp -R "$root/tests" "$root/fuzz" "$tree" # texts, and what the fuzzers feed on: archives and other binary files
fi

fail() { echo "demo: $*" >&2; exit 1; }
say() { printf '\n%s\n' "$*"; }
now() { date +%s.%N; }
wire() { awk '$1 == "lo:" { print $2 }' /proc/net/dev; }

# phase NAME COMMAND...: runs the command and remembers its time and the bytes that crossed the loopback.
rows=()
phase() {
  local name=$1 begin bytes
  shift
  begin=$(now)
  bytes=$(wire)
  "$@" || fail "$name failed"
  rows+=("$(printf '%s|%s|%s' "$name" "$(($(wire) - bytes))" "$(awk -v a="$begin" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }')")")
}

a() { "$bin/velkor-notes" --data "$work/A" --server "$url" "$@"; }
b() { "$bin/velkor-notes" --data "$work/B" --server "$url" "$@"; }

store=()
if [ -n "$s3" ]; then
  say "Starting an S3-compatible store"
  "$root/tests/support/radosgw.sh" start "$work/s3" || fail "the store did not start"
  mapfile -t s3_store <"$work/s3" # its URL, the access key, the secret key
  store=(--blob-store "${s3_store[0]}")
fi

say "Starting the service with an empty directory"
AWS_ACCESS_KEY_ID=${s3_store[1]-} AWS_SECRET_ACCESS_KEY=${s3_store[2]-} \
  "$bin/velkord" --data "$work/service" --listen 127.0.0.1:0 "${store[@]}" >"$work/service.out" 2>"$work/service.err" &
service=$!
for _ in $(seq 200); do
  url=$(sed -n 's/^velkord: listening on //p' "$work/service.out")
  [ -n "$url" ] && break
  kill -0 "$service" 2>/dev/null || { cat "$work/service.err" >&2; fail "the service did not start"; }
  sleep 0.05
done
[ -n "$url" ] || fail "the service did not start"
echo "velkord serves $url"

say "Host A signs up, imports $tree and syncs"
a signup demo@example.org 'correct horse' || fail "signup failed"
import_tree() {
  a import "$tree" 2>"$work/import.err" || { grep -v '^velkor-notes: skipping ' "$work/import.err" >&2; return 1; }
  echo "$(wc -l <"$work/import.err") entries skipped: symbolic links, and what cannot be read"
}
phase "A imports the tree" import_tree
phase "A sends it" a sync

say "Host B logs in and syncs"
b login demo@example.org 'correct horse' || fail "login failed"
phase "B receives it" b sync

# Notes to change: ten with a text and a plain name in notebooks with plain names.
a dump >"$work/dump"
plain='[A-Za-z0-9._/+-]*'
sed -n "s/^{\"entity\":\"Notebook\",\"guid\":\"\([^\"]*\)\",\"attributes\":{\"guid\":\"[^\"]*\",\"title\":\"\($plain\)\".*/\1 \2/p" "$work/dump" >"$work/notebooks"
sed -n "s/^{\"entity\":\"Note\",\"guid\":\"\([^\"]*\)\",\"attributes\":{\"guid\":\"[^\"]*\",\"title\":\"\($plain\)\",\"body\":.*\"relationships\":{\"notebook\":\"\([^\"]*\)\".*/\3 \1 \2/p" "$work/dump" |
  awk 'NR == FNR { title[$1] = $2; next } $1 in title { print $2, title[$1] "/" $3 }' "$work/notebooks" - |
  awk '{ line[NR] = $0 } END { step = NR > 10 ? int(NR / 10) : 1; for (i = 1; i <= NR && n < 10; i += step) { print line[i]; n++ } }' >"$work/chosen"
[ "$(wc -l <"$work/chosen")" -eq 10 ] || fail "the tree needs at least ten text files with plain names"
mapfile -t guid < <(cut -d' ' -f1 "$work/chosen")
mapfile -t path < <(cut -d' ' -f2 "$work/chosen")
book=$(sed -n 1p "$work/notebooks")
other=$(sed -n '$p' "$work/notebooks")

say "Both change things: different notes, and the same one"
changes() {
  from_a=$(a add "From A" --notebook "${book%% *}" --body "written on A") &&
  from_b=$(b add "From B" --notebook "${book%% *}" --body "written on B") &&
  a edit "${guid[0]}" --body "edited on A" && b edit "${guid[1]}" --body "edited on B" &&
  a edit "${guid[2]}" --tag reviewed && b edit "${guid[3]}" --tag reviewed &&
  a edit "${guid[4]}" --notebook "${other%% *}" --title "Moved by A" &&
  b edit "${guid[5]}" --notebook "${other%% *}" --title "Moved by B" &&
  a rm "${guid[6]}" && b rm "${guid[7]}" &&
  a edit "${guid[8]}" --body "edited on both, here on A" --tag A && b edit "${guid[8]}" --body "edited on both, here on B" --tag B
}
phase "Both change notes" changes

to_rest() {
  local round before=
  for round in 1 2 3 4 5 6; do
    a --json sync >"$work/a.json" && b --json sync >"$work/b.json" || return 1
    if grep -q '"sent":0,"received":0' "$work/a.json" && grep -q '"sent":0,"received":0' "$work/b.json"; then return 0; fi
  done
  echo "demo: the hosts did not come to rest" >&2
  return 1
}
phase "Both sync to rest" to_rest

say "Checking"
a dump >"$work/a.dump"
b dump >"$work/b.dump"
cmp -s "$work/a.dump" "$work/b.dump" || { diff "$work/a.dump" "$work/b.dump" | head -5; fail "the two stores differ"; }
echo "dump: equal on both, $(wc -l <"$work/a.dump") objects"
[ "$(a hash)" = "$(b hash)" ] || fail "the two hashes differ"
echo "hash: equal on both, $(a hash)"
# holds GUID TEXT...: B's note of that guid must hold the texts.
holds() {
  local line text guid=$1
  shift
  line=$(grep -F "{\"entity\":\"Note\",\"guid\":\"$guid\"," "$work/b.dump") || fail "the note $guid is lost"
  for text in "$@"; do
    [[ $line == *"$text"* ]] || fail "the note $guid lacks $text"
  done
}
# tagged GUID NAME: B's note of that guid must have a tag of that name; each host may have made one.
tagged() {
  local tag line
  line=$(grep -F "{\"entity\":\"Note\",\"guid\":\"$1\"," "$work/b.dump") || fail "the note $1 is lost"
  for tag in $(sed -n "s/^{\"entity\":\"Tag\",\"guid\":\"\([^\"]*\)\".*\"name\":\"$2\".*/\1/p" "$work/b.dump"); do
    [[ $line == *"\"tags\":["*"$tag"*"],\"attachments\""* ]] && return
  done
  fail "the note $1 lacks the tag $2"
}
for host in A B; do
  [ $host = A ] && new=$from_a edited=0 reviewed=2 moved=4 removed=6 || new=$from_b edited=1 reviewed=3 moved=5 removed=7
  holds "$new" "\"title\":\"From $host\"" "\"body\":\"written on $host\"" "\"notebook\":\"${book%% *}\""
  holds "${guid[$edited]}" "\"body\":\"edited on $host\""
  tagged "${guid[$reviewed]}" reviewed
  holds "${guid[$moved]}" "\"title\":\"Moved by $host\"" "\"notebook\":\"${other%% *}\""
  ! grep -qF "\"${guid[$removed]}\"" "$work/b.dump" || fail "the note ${guid[$removed]} is back"
  tagged "${guid[8]}" $host
done
holds "${guid[8]}" '"body":"edited on both, here on '
echo "changes: all of both hosts are there"
phase "B exports its notes" b export "$work/export"
except=()
title=$(basename "$tree")
for changed in "${path[0]}" "${path[1]}" "${path[4]}" "${path[5]}" "${path[6]}" "${path[7]}" "${path[8]}" \
  "${other#* }/Moved by A" "${other#* }/Moved by B" "${book#* }/From A" "${book#* }/From B"; do
  except+=(--except "${changed#"$title"/}")
done
"$bin/compare-trees" "$tree" "$work/export/$title" "${except[@]}" || fail "the exported tree is not the imported one"

printf '\n%-24s %14s %9s\n' phase "bytes on wire" seconds
for row in "${rows[@]}"; do
  IFS='|' read -r name bytes seconds <<<"$row"
  printf '%-24s %14s %9s\n' "$name" "$bytes" "$seconds"
done
printf '%-24s %14s\n' "objects in each store" "$(wc -l <"$work/a.dump")"
printf '%-24s %14s\n' "attachments among them" "$(grep -c '^{"entity":"Attachment"' "$work/a.dump" || true)"
say "Both hosts hold the same notes."
