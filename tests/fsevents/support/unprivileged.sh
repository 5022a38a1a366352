#!/bin/sh
# Runs a program, together with the helpers beside it, as a user without any rights, from copies that such a user can reach.
#   unprivileged.sh PROGRAM [ARGUMENT...]
# UNPRIVILEGED_TESTS: a filter of GoogleTest's, for a run in short. Long cases are shortened, since they run in full with rights;
# an empty KESTRINE_SHORTENED lets them be long here too.
set -eu
program=$1
shift
if [ -n "${UNPRIVILEGED_TESTS-}" ]; then
  set -- "--gtest_filter=$UNPRIVILEGED_TESTS" "$@"
  echo "shortened under the sanitizer: the run without rights has only the suites that depend on them"
fi
# Where the other tests of this run have theirs. A stream watches the folders above what it watches, too, so that a user without rights must be
# able to read the run's own ones.
base=${KESTRINE_TEST_FOLDER:-${TMPDIR:-/tmp}}
for above in "${KESTRINE_RUN_FOLDER-}" "${KESTRINE_TEST_FOLDER-}"; do
  [ -z "$above" ] || { mkdir -p "$above" && chmod a+rx "$above"; }
done
folder=$(mktemp -d "$base/kestrine-XXXXXX")
trap 'chmod -R u+rwx "$folder"; rm -rf "$folder"' EXIT
mkdir "$folder/bin" "$folder/tmp" "$folder/home"
cp "$program" "$(dirname "$program")"/*_helper "$folder/bin/"
chmod -R a+rX "$folder"
chown 65534:65534 "$folder/tmp" "$folder/home"
cd "$folder"
KESTRINE_TEST_FOLDER=$folder/tmp HOME=$folder/home KESTRINE_SHORTENED="${KESTRINE_SHORTENED-without rights}" setpriv --reuid=65534 --regid=65534 --clear-groups --inh-caps=-all --bounding-set=-all \
  "$folder/bin/$(basename "$program")" "$@"
