#!/bin/sh
# Runs a program with its temporary folders on the disk that a folder is on.
#   on_disk.sh FOLDER PROGRAM [ARGUMENT...]
# Long cases are shortened, since they run in full elsewhere.
set -eu
folder=$1
shift
if [ "${ON_DISK_SANITIZER-}" = thread ]; then
  echo "left out: the run on a disk, because the address sanitizer's build makes it, and ThreadSanitizer has the same tests in memory"
  exit 77
fi
case "$(stat -f -c %T "$folder")" in
  tmpfs | ramfs)
    echo "left out: the run on a disk, because the build folder is in memory, too"
    exit 77
    ;;
esac
export KESTRINE_TEST_FOLDER="$folder/on-disk" KESTRINE_SHORTENED="on a disk"
exec "$@"
