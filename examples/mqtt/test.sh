#!/usr/bin/env bash
# test.sh MOSQUITTO MOSQUITTO_PUB EXAMPLE: two processes share a topic through a broker that goes
# away and comes back, while bad messages arrive from outside.
set -euo pipefail
mosquitto=$1 mosquitto_pub=$2 example=$3
work=$(mktemp -d)
mkfifo "$work"/{send,receive}.in
exec 3<>"$work/send.in" 4<>"$work/receive.in" # the examples end when these are closed

finish() {
  status=$?
  local pid
  for pid in $(jobs -p); do kill -KILL -- "-$pid" "$pid" 2>/dev/null || true; done
  [[ $status -eq 0 ]] || tail -n 40 "$work"/*.{out,log} >&2
  rm -rf "$work"
}
trap finish EXIT
trap 'exit 1' HUP INT TERM

start() { # COMMAND...: in a process group of its own, which ends even if nobody is left to end it
  timeout -k 1 100 "$@" <&0 3>&- 4>&- &
}
await() { # WHAT COMMAND...: repeats the command until it succeeds
  local end=$((SECONDS + 30))
  until "${@:2}"; do
    [[ $SECONDS -lt $end ]] || fail "not within 30 s: $1"
    sleep 0.1
  done
  echo "$1"
}
fail() {
  echo "$1" >&2
  exit 1
}
ended() { ! kill -0 "$1" 2>/dev/null; }
count() { grep -c -e "$1" "$work/$2" || true; } # PATTERN FILE: prints the number of lines
at_least() { [[ $(count "$2" "$3") -ge $1 ]]; } # NUMBER PATTERN FILE
exactly() { [[ $(count "$2" "$3") -eq $1 ]] || fail "not $1 times in $3: $2"; }
publish() { "$mosquitto_pub" -h 127.0.0.1 -p "$port" -t readings "$@"; }

start_broker() { # WHETHER-IT-LETS-ALL-IN: fails when another has the port
  printf 'listener %s 127.0.0.1\nallow_anonymous %s\n' $port "$1" >"$work/broker.conf"
  start "$mosquitto" -c "$work/broker.conf" >"$work/broker.log" 2>&1
  broker=$!
  until grep -q ' running$' "$work/broker.log"; do
    ! ended $broker || return 1
    sleep 0.1
  done
}
stop_broker() {
  kill $broker
  await "the broker has ended" ended $broker
}
await_away() { # NUMBER: of times in all
  await "the receiver says that the broker is away" at_least "$1" 'MQTT broker.*is away' receive.log
  await "so does the sender" at_least "$1" 'MQTT broker.*is away' send.log
}
end() { # WHAT PID
  await "the $1 has ended" ended "$2"
  wait "$2" || fail "the $1 ended with an error"
}

# A port that is free, below those that the system hands out.
until
  port=$((20000 + RANDOM % 10000))
  start_broker true
do :; done
stop_broker

start "$example" receive 127.0.0.1 $port <"$work/receive.in" >"$work/receive.out" 2>"$work/receive.log"
receiver=$!
start "$example" send 127.0.0.1 $port <"$work/send.in" >"$work/send.out" 2>"$work/send.log"
sender=$!
await_away 1
await "the broker is there" start_broker true
await "what one process publishes arrives in the other" at_least 3 '^time [0-9.]*$' receive.out

publish -m '{"sensor": "kitchen", "value": 21.5}'
await "so does what comes from elsewhere" at_least 1 '^kitchen 21.5$' receive.out

for bad in 'no JSON' '{"sensor": "kitchen"' '{"sensor": "kitchen"}' '{"sensor": 1, "value": 2}' '[]'; do
  publish -m "$bad"
done
publish -n # an empty message
publish -m '{"sensor": "cellar", "value": -1}'
await "the receiver goes on after bad messages" at_least 1 '^cellar -1$' receive.out
exactly 6 'MQTT topic readings: ' receive.log
exactly 1 kitchen receive.out

stop_broker
await_away 2
arrived=$(count ^time receive.out)
await "the broker is back, but refuses both" start_broker false
await "they have tried again and again" at_least 4 'not authorised' broker.log
stop_broker
await "the broker is back" start_broker true
await "readings arrive again" at_least $((arrived + 1)) ^time receive.out
for process in receive send; do
  exactly 2 'MQTT broker.*is away' $process.log
  exactly 2 'MQTT broker.*is here' $process.log
done
grep 'is here' "$work/send.log" | tail -n 1 | grep -q ', [1-9][0-9]* messages did not go out' ||
  fail "the sender does not say that messages are lost"

exec 3>&- # the sender ends while the broker is there, the receiver while it is not
end sender $sender
stop_broker
await "the receiver says that the broker is away" at_least 3 'MQTT broker.*is away' receive.log
exec 4>&-
end receiver $receiver
