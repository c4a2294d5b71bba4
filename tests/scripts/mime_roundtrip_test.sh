#!/usr/bin/env bash
# The files qbsmtp-host parse makes of generated MIME messages equal what
# Python's email package decodes from the same spool files (mime_roundtrip.py).
set -euo pipefail
work=$(mktemp -d /tmp/qbsmtp-mime-XXXXXX)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 "$QBSMTP_SOURCE_DIR/tests/scripts/mime_roundtrip.py" "$QBSMTP_BUILD_DIR/qbsmtp-host" "$work" 16
