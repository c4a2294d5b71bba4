#!/usr/bin/env bash
# Decoded files of generated MIME messages equal what Python's email
# package decodes from the same spool files (see mime_roundtrip.py).
set -euo pipefail
driver="$QBSMTP_BUILD_DIR/tests/spool_parse_driver"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 "$QBSMTP_SOURCE_DIR/tests/scripts/mime_roundtrip.py" "$driver" "$work" 16
