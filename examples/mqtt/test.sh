#!/usr/bin/env bash
# test.sh MOSQUITTO MOSQUITTO_PUB EXAMPLE: two processes share a topic through a broker that goes
# away and comes back, while bad messages arrive from outside and from within.
set -Eeuo pipefail
mosquitto=$1 mosquitto_pub=$2 example=$3
work=$(mktemp -d)
mkfifo "$work"/{send,receive}.in
exec 3<>"$work/send.in" 4<>"$work/receive.in" # the examples end when these are closed

finish() {
  [[ $? -eq 0 ]] || tail -n 40 "$work"/*.log >&2
  jobs -p | xargs -r kill 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT
trap 'echo "failed: $BASH_COMMAND, in line $LINENO, called from ${BASH_LINENO[*]}" >&2' ERR

declare -A pid
start() { # NAME COMMAND...: ends even if nobody ends it
  timeout 60 "${@:2}" <&0 >"$work/$1.log" 2>&1 3>&- 4>&- &
  pid[$1]=$!
}
await() { # COMMAND...: repeats it until it succeeds
  until "$@"; do
    [[ $SECONDS -lt 60 ]]
    sleep 0.1
  done
}
count() { cat "$work"/*.log | grep -c -e "$1" || true; } # PATTERN: prints in how many lines it is
says() { [[ $(count "$1") -ge ${2:-1} ]]; }              # PATTERN [TIMES]: any of them, in all
arrives() { # READING: sends it
  echo "$1" >&3
  says "^$1$"
}

# A port that is free, below those that the system hands out.
for port in $(shuf -i 20000-29999); do (: <>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || break; done
for process in send receive; do
  start $process "$example" $process 127.0.0.1 "$port" <"$work/$process.in"
done
await says 'is away' 2
start broker "$mosquitto" -p "$port"
await says 'is here' 2
await arrives 'garage 7'

printf '%s\n' 'no JSON' '{"sensor": "kitchen"}' '{"sensor": 1, "value": 2}' '[]' '' |
  "$mosquitto_pub" -h 127.0.0.1 -p "$port" -t readings -l
printf 'garage nan\ngarage -inf\n\xff 1\n' >&3 # what JSON cannot carry
await says 'MQTT topic' 6 # 5 of the receiver, 1 of the sender
await arrives 'garage 8'

kill "${pid[broker]}"
wait "${pid[broker]}"
await says 'is away' 4
echo 'attic 1' >&3
printf 'listener %s 127.0.0.1\nallow_anonymous false\n' "$port" >"$work/broker.conf"
start broker "$mosquitto" -c "$work/broker.conf"
await says 'not authorised' 4
kill "${pid[broker]}"
wait "${pid[broker]}"
start broker "$mosquitto" -p "$port"
await says 'is here' 4
await arrives 'garage 9'
says 'is here, 4 messages did not go out' # 3 that could not, 1 while it was away
[[ $(count 'MQTT broker') -eq 8 && $(count 'MQTT topic') -eq 6 ]]

exec 3>&- # the sender ends while the broker is there, and says goodbye
wait "${pid[send]}"
await says 'disconnected\.$'
kill "${pid[broker]}" # the receiver ends while it is away
await says 'is away' 5
exec 4>&-
wait "${pid[receive]}"
