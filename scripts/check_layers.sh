#!/bin/sh
# Who may lean on whom: tools -> lab -> platform headers <- library.
set -eu
cd "$(dirname "$0")/.."
bad=0

# allow FOLDER PATTERN: every include of the folder's sources matches the pattern.
allow() {
  if grep -rnE '^ *# *include' "$1" --include='*.cpp' --include='*.h' --include='*.c' |
    grep -vE "include +($2)"; then
    echo "$1 includes what it must not (above)" >&2
    bad=1
  fi
}

c_headers='<(arpa/inet|fcntl|unistd|sys/stat)\.h>'
cpp_headers='<c?[a-z]+>|<std(arg|bool|def|int|io|lib)\.h>'
allow infra/platform/include "\"platform/[a-z0-9_]+\.h\"|$cpp_headers"
allow infra/convert_libs/comps/libdatamorph \
  "\"platform/[a-z0-9_]+\.h\"|\"libdatamorph[a-z_]*\.h\"|$cpp_headers|$c_headers"

# deny PATTERN FOLDER...: none of the folders' sources includes it.
deny() {
  pattern=$1
  shift
  if grep -rnE "^ *# *include.*$pattern" "$@" --include='*.cpp' --include='*.h'; then
    echo "the lines above lean the wrong way" >&2
    bad=1
  fi
}
deny 'CLI/|nlohmann|libsmartcols|"(datamorph|tools)/|libdatamorph' infra/platform/lab
deny 'sqlite3|zmq' tools infra/platform/include infra/convert_libs
deny 'libdatamorph_private' tools infra/platform
exit $bad
