#!/usr/bin/env bash
# Checks the engine's layout: no source file at the top of Engine/, and
# every include of a file under Engine/<subsystem>/ allowed by the
# "May include:" line of that subsystem's README.md (its own folder is
# always allowed).  The bus layer (ipc/), the client library (client/) and
# the tools are never allowed.  Prints each offence; exits 1 when there is one.
set -euo pipefail
top="${1:-$(cd "$(dirname "$0")/.." && pwd)}"
cd "$top"
status=0

for f in Engine/*.h Engine/*.cpp; do
  [ -e "$f" ] || continue
  echo "$f: source file at the top of Engine/ (it belongs in a subsystem's folder)"
  status=1
done

for dir in Engine/*/; do
  dir="${dir%/}"
  readme="$dir/README.md"
  if [ ! -f "$readme" ]; then
    echo "$dir: no README.md"
    status=1
    continue
  fi
  allowed=$(sed -n 's/^May include: *//p' "$readme")
  if [ -z "$allowed" ]; then
    echo "$readme: no \"May include:\" line"
    status=1
    continue
  fi
  while IFS= read -r hit; do
    file="${hit%%:*}"
    rest="${hit#*:}"
    line="${rest%%:*}"
    target=$(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' <<<"${rest#*:}")
    ok=0
    case "$target" in "$dir"/*) ok=1 ;; esac
    for prefix in $allowed; do
      case "$target" in "$prefix"*) ok=1 ;; esac
    done
    case "$target" in ipc/* | client/* | tools/*) ok=0 ;; esac
    if [ "$ok" -eq 0 ]; then
      echo "$file:$line: includes \"$target\", which $dir/ may not (see $readme)"
      status=1
    fi
  done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$dir" --include='*.h' --include='*.cpp' || true)
done
exit $status
