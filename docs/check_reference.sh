#!/bin/sh
# Make the man pages and check them: every exported name has a page, and the formatters that are
# installed have nothing to say against any.
#
#   check_reference.sh PYTHON SOURCE_FOLDER
set -eu
python=$1
source=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$python" -B "$source/docs/reference.py" man "$work" "$source/docs/guide.md" \
    "$source/include/tolvane.h" "$source/timer/ruvo_timer.h"

for name in $(grep -oh '[a-z_][a-z_]*;' "$source/src/tolvane.map" \
    "$source/timer/ruvo_timer.map" | grep -v '^local' | tr -d ';'); do
    [ -s "$work/man3/$name.3" ] || { echo "no page for $name"; exit 1; }
done

cd "$work"
pages=$(grep -L '^\.so ' man*/*) # the others have no text of their own
complaints=$(
    if command -v groff >/dev/null; then
        groff -ww -man -Tutf8 -z $pages 2>&1
    fi
    if command -v mandoc >/dev/null; then
        mandoc -Tlint -Wwarning $pages || true
    fi
)
[ -z "$complaints" ] || { echo "$complaints"; exit 1; }
echo "$(ls man3 man7 | wc -l) pages"
