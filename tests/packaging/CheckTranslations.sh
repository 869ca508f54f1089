#!/usr/bin/env bash
# Fails when a text in the sources has no English translation yet:
#   CheckTranslations.sh LUPDATE SOURCE_DIR TS_FILE...
# The translation files themselves are left alone; the check works on copies.
set -euo pipefail

lupdate=$1
source_dir=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

status=0
for ts in "$@"; do
  copy="$work/$(basename "$ts")"
  cp "$ts" "$copy"
  "$lupdate" -silent -locations none -source-language de "$source_dir/src" -ts "$copy"
  # An untranslated message has an unfinished, empty translation after its source text.
  missing=$(awk '
    /<source>/ { source = $0; sub(/.*<source>/, "", source); sub(/<\/source>.*/, "", source) }
    /<translation type="unfinished"><\/translation>/ { print "  " source }' "$copy")
  if [ -n "$missing" ]; then
    echo "$(basename "$ts") lacks translations of:"
    echo "$missing"
    status=1
  fi
done
[ $status -eq 0 ] && echo "every text has its translation"
exit $status
