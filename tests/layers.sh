#!/usr/bin/env bash
# Includes run downwards only: fails, naming the line, when a file includes a layer that it must not know.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# layer: the layers that its files may include
rules='
platform/base: platform/base
platform/concurrency: platform/base platform/concurrency
platform/persistence: platform/base platform/persistence
platform/observation: platform/base platform/concurrency platform/observation
platform/url: platform/base platform/concurrency platform/persistence platform/url
json: platform json
objectstore: platform objectstore
PelmoLib/encodings: platform json PelmoLib/encodings
PelmoLib: platform json objectstore PelmoLib
Sync: platform json objectstore PelmoLib Sync
service: platform json PelmoLib/encodings service
examples: VelkorSync examples
'

failed=0
while IFS=: read -r layer allowed; do
  [ -n "$layer" ] || continue
  pattern=$(printf '%s' "$allowed" | sed 's/^ //; s/ /|/g')
  while IFS= read -r hit; do
    file=${hit%%:*}
    # A nested layer has a rule of its own.
    case "$layer:$file" in PelmoLib:PelmoLib/encodings/*) continue ;; esac
    echo "layers: $layer may include only $allowed: $hit"
    failed=1
  done < <(grep -rnE '^#include "' --include='*.h' --include='*.cpp' "$layer" 2>/dev/null | grep -vE "#include \"($pattern)/|#include \"[^/]+\"$" || true)
done <<<"$rules"

# The object store and the platform could be lifted out whole: they say nothing of synchronisation.
if grep -rniE '\bvlk_?|sync(controller|able)|velkorsync\b' --include='*.h' --include='*.cpp' objectstore platform | grep -vE "VELKORSYNC_RESOURCES|^platform/persistence/Bundle\.cpp:.*\bshare\b.*VelkorSync|org\.velkor\.sync|VelkorErrorDomain"; then
  echo "layers: platform and objectstore must not speak of synchronisation"
  failed=1
fi
[ $failed -eq 0 ] && echo "layers: all includes run downwards"
exit $failed
