#!/bin/sh
# run_oclgrind.sh LOG TEST [ARGUMENT...]: runs a test on oclgrind, and fails also when oclgrind has found something.
log=$1
shift
rm -f "$log"
OCLGRIND_DATA_RACES=1 OCLGRIND_UNINITIALIZED=1 OCLGRIND_CHECK_API=1 OCLGRIND_LOG=$log "$@" || exit 1
[ ! -s "$log" ] || { cat "$log"; exit 1; }
