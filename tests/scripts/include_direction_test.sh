#!/usr/bin/env bash
# Layers look down only. Every #include "dir/file" under src/ is checked
# against the table below (a layer may include itself and what its row
# names, nothing else), and the system's OS headers may appear only in
# platform. Each offending include is printed as file:line; any fails.
set -euo pipefail
source_dir=${QBSMTP_SOURCE_DIR:-$(cd "$(dirname "$0")/../.." && pwd)}
src="$source_dir/src"
[ -d "$src/frame" ] || { echo "no source tree at $src" >&2; exit 1; }

# layer          may include, besides itself
allowed='
exports          reception decomposition sending frame platform qbsmtp
reception        frame platform qbsmtp
decomposition    frame platform qbsmtp
sending          frame platform qbsmtp
frame            platform qbsmtp
platform
'
# Headers that touch the operating system: platform's alone.
os_headers='unistd|fcntl|dirent|dlfcn|syslog|pthread|netdb|windows|winsock2|ws2tcpip|sys/[a-z_]+|netinet/[a-z_]+|arpa/[a-z_]+'

cd "$src"
find . -mindepth 2 \( -name '*.h' -o -name '*.cpp' \) | sort | sed 's|^\./||' |
  xargs awk -v table="$allowed" -v os="^($os_headers)\\.h$" '
    BEGIN {
      n = split(table, rows, "\n")
      for (i = 1; i <= n; i++) {
        if (split(rows[i], f, " ") == 0) continue
        known[f[1]] = 1
        for (j = 2; j in f; j++) may[f[1] "," f[j]] = 1
      }
    }
    FNR == 1 { split(FILENAME, p, "/"); layer = p[1] }
    /^[ \t]*#[ \t]*include[ \t]*"/ {
      path = $0; sub(/^[^"]*"/, "", path); sub(/".*/, "", path)
      target = index(path, "/") ? substr(path, 1, index(path, "/") - 1) : ""
      if (!(layer in known))
        why = "a directory the table does not know"
      else if (target == "")
        why = "an include without its layer directory"
      else if (target == layer || (layer "," target) in may)
        next
      else
        why = layer " may not include " target
      printf "src/%s:%d: %s: \"%s\"\n", FILENAME, FNR, why, path; bad = 1
    }
    /^[ \t]*#[ \t]*include[ \t]*</ && layer != "platform" {
      path = $0; sub(/^[^<]*</, "", path); sub(/>.*/, "", path)
      if (path ~ os) { printf "src/%s:%d: OS header outside platform: <%s>\n", FILENAME, FNR, path; bad = 1 }
    }
    END { exit bad }'
