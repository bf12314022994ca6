#!/bin/sh
# Doxygen makes two entries of each page in Markdown: the page, and a file without content, to which
# the list of files leads. Let the second lead to the first, and their folder, blank too, to the guide.
#
#   lead_to_pages.sh FOLDER
set -eu
cd "$1"

lead() { # FILE PAGE
    echo "<!DOCTYPE html><meta http-equiv=\"refresh\" content=\"0; url=$2\">" >"$1"
}

for file in *_8md.html; do
    page=index.html # the guide is the first page
    for candidate in md_docs_*"${file%_8md.html}".html; do
        [ ! -f "$candidate" ] || page=$candidate
    done
    lead "$file" "$page"
done
for folder in $(grep -l 'docs Directory Reference' dir_*.html); do
    lead "$folder" index.html
done
