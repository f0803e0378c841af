#!/bin/sh
# Stands in for a Java runtime: passes over the virtual machine's own arguments and runs what lies in the jar's place.
while [ $# -gt 0 ]; do
  if [ "$1" = -jar ] && [ $# -gt 1 ]; then
    jar=$2
    shift 2
    exec "$jar" "$@"
  fi
  shift
done
echo "java: no -jar argument" >&2
exit 1
