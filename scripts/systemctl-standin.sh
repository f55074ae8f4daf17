#!/bin/sh
# Stands in for systemctl in sandboxes (the end-to-end tests, scripts/demo.sh),
# where launchctl (Sources/Platform/Launchd) runs it. It records each command
# line and stops the daemon as systemd would on `disable --now`.
#
#   SYSTEMCTL_RECORD      file each call is appended to as "systemctl <args>"
#                         (required)
#   SYSTEMCTL_UNITS       the units it knows, blank-separated; any other is
#                         not found
#   SYSTEMCTL_OFFLINE=1   answers as systemctl does where systemd is not running
#   SYSTEMCTL_STOP_GATE   a file `disable --now` waits for (30 s at most)
#                         before it stops the unit: holds the stop job so
#                         that the daemon's clean-up can be watched in order
#   SYSTEMCTL_MAIN_COMM   the unit's main process is the nearest ancestor of
#                         this script with this command name (vpn_helper)
#
# `show` answers for the properties Id, LoadState, ActiveState, SubState,
# UnitFileState, MainPID and ExecMainStatus; every other command succeeds.
set -u

if [ -z "${SYSTEMCTL_RECORD:-}" ]; then
  echo "systemctl stand-in: SYSTEMCTL_RECORD is not set" >&2
  exit 2
fi
printf '%s\n' "systemctl $*" >> "$SYSTEMCTL_RECORD"

if [ "${SYSTEMCTL_OFFLINE:-}" = 1 ]; then
  echo "System has not been booted with systemd as init system (PID 1). Can't operate." >&2
  echo "Failed to connect to bus: Host is down" >&2
  exit 1
fi

command=${1:-}
[ $# -gt 0 ] && shift
unit= properties=Id,LoadState,ActiveState,SubState,UnitFileState,MainPID,ExecMainStatus value_only= now=
for arg in "$@"; do
  case $arg in
    --property=*) properties=${arg#--property=} ;;
    --value) value_only=1 ;;
    --now) now=1 ;;
    -*) ;;
    *) unit=$arg ;;
  esac
done

known=
for name in ${SYSTEMCTL_UNITS:-}; do
  [ "$name" = "$unit" ] && known=1
done

# The pid of the unit's main process: the nearest ancestor with its command
# name; nothing when there is none.
main_pid() {
  pid=$$
  while [ "$pid" -gt 1 ]; do
    pid=$(sed -n 's/^PPid:[[:space:]]*//p' "/proc/$pid/status" 2>/dev/null)
    [ -n "$pid" ] || return 0
    comm=
    read -r comm < "/proc/$pid/comm" 2>/dev/null
    if [ "$comm" = "${SYSTEMCTL_MAIN_COMM:-vpn_helper}" ]; then
      echo "$pid"
      return 0
    fi
  done
}

property() {  # property <name>: the unit's value of it
  case $1 in
    Id) echo "$unit" ;;
    LoadState) if [ -n "$known" ]; then echo loaded; else echo not-found; fi ;;
    ActiveState) if [ -n "$known" ]; then echo active; else echo inactive; fi ;;
    SubState) if [ -n "$known" ]; then echo running; else echo dead; fi ;;
    UnitFileState) if [ -n "$known" ]; then echo enabled; else echo; fi ;;
    MainPID) pid=; [ -n "$known" ] && pid=$(main_pid); echo "${pid:-0}" ;;
    ExecMainStatus) echo 0 ;;
    *) echo ;;
  esac
}

case $command in
  show)
    IFS=,
    set -- $properties
    IFS=' 	
'
    for name in "$@"; do
      if [ -n "$value_only" ]; then property "$name"; else echo "$name=$(property "$name")"; fi
    done
    ;;
  enable|disable)
    if [ -z "$known" ]; then
      echo "Failed to $command unit: Unit file $unit does not exist." >&2
      exit 1
    fi
    if [ "$command" = disable ] && [ -n "$now" ]; then
      if [ -n "${SYSTEMCTL_STOP_GATE:-}" ]; then
        tries=0
        until [ -e "$SYSTEMCTL_STOP_GATE" ]; do
          tries=$((tries + 1))
          if [ "$tries" -gt 600 ]; then
            echo "systemctl stand-in: $SYSTEMCTL_STOP_GATE did not appear within 30 s" >&2
            exit 1
          fi
          sleep 0.05
        done
      fi
      pid=$(main_pid)
      if [ -z "$pid" ]; then
        echo "systemctl stand-in: no ancestor named ${SYSTEMCTL_MAIN_COMM:-vpn_helper} to stop" >&2
        exit 1
      fi
      kill -TERM "$pid"
    fi
    ;;
esac
exit 0
