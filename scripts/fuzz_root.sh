#!/bin/sh
# Runs a program in a root of its own, where the library's fixed names are folders in memory:
# scripts/fuzz_root.sh FOLDER COMMAND... ; FOLDER is /fuzz there, and where the command runs.
set -eu
if [ "${1:-}" != --inside ]; then
  # Whoever is not root becomes so in a name space of users.
  [ "$(id -u)" -eq 0 ] && as_root= || as_root=--map-root-user
  # shellcheck disable=SC2086 # an option, or none
  exec unshare $as_root --mount -- "$0" --inside "$@"
fi
shift
folder=$1
shift
root=/tmp
mount --make-rprivate /
exec 3<"$folder" # it may lie below /tmp, which is hidden now
mount -t tmpfs -o mode=755 none "$root"
for path in usr bin sbin lib lib32 lib64 libx32 proc dev; do
  [ -d "/$path" ] || continue
  if [ -L "/$path" ]; then
    cp -P "/$path" "$root/$path"
  else
    mkdir "$root/$path"
    mount --rbind "/$path" "$root/$path"
  fi
done
for path in fuzz tmp mnt/pss bootflash cfg images var/run/mts; do
  mkdir -p "$root/$path"
done
mount -t tmpfs none "$root/dev/shm"
mount --bind /proc/self/fd/3/ "$root/fuzz"
exec 3<&-
export TZ=UTC
exec chroot "$root" /bin/sh -c 'cd /fuzz && exec "$@"' sh "$@"
