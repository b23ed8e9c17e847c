#!/usr/bin/env bash
# test.sh MOSQUITTO EXAMPLE: starts a broker, a process that receives and one that sends.
set -Eeuo pipefail
mosquitto=$1 example=$2
work=$(mktemp -d)
mkfifo "$work"/{send,receive}.in
exec 3<>"$work/send.in" 4<>"$work/receive.in" # the processes end when these are closed

finish() {
  [[ $? -eq 0 ]] || tail -n 40 "$work"/*.log >&2
  jobs -p | xargs -r kill 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT

start() { # NAME COMMAND...
  timeout 60 "${@:2}" <&0 >"$work/$1.log" 2>&1 3>&- 4>&- &
}
await() { # NAME TEXT: blocks until the process has printed it
  until grep -q -e "$2" "$work/$1.log"; do
    [[ $SECONDS -lt 60 ]]
    sleep 0.1
  done
}

# A free port, below those that the system assigns.
for port in $(shuf -i 20000-29999); do (: <>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || break; done
start broker "$mosquitto" -p "$port"
for process in receive send; do
  start $process "$example" $process 127.0.0.1 "$port" <"$work/$process.in"
done
await receive 'MQTT subscribed'
echo 'kitchen 21.5' >&3
await receive '^kitchen 21.5$'

exec 3>&- 4>&-
wait %2 %3
