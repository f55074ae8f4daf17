#!/bin/sh
# Stand-in for /bin/launchctl in sandboxes: records its command line, and for
# `bootout` stops the calling daemon with SIGTERM the way launchd stops a job
# it boots out. launchd does its own bookkeeping before it signals the job;
# the short pause stands for that.
record=${LAUNCHCTL_RECORD:-/tmp/launchctl-calls.txt}
printf '%s\n' "/bin/launchctl $*" >> "$record"
if [ "$1" = bootout ]; then
  sleep "${LAUNCHCTL_BOOTOUT_DELAY:-0.2}"
  kill -TERM "$PPID"
fi
exit 0
