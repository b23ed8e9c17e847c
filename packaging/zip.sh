#!/bin/sh
# zip.sh FOLDER FILE: creates an archive of a folder. Equal contents give equal archives.
set -eu
cd "$1"
find . -type f -exec touch -d '1980-01-01 00:00:00 UTC' {} + -exec chmod 644 {} +
find . -type f | sed 's|^\./||' | LC_ALL=C sort | TZ=UTC zip -q -X -D -@ "$2"
