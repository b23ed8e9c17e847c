#!/usr/bin/env bash
# test.sh MOSQUITTO MOSQUITTO_PUB EXAMPLE: two processes share a topic through a broker that goes
# away and comes back, while bad messages arrive from outside and from within.
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
await_both() { # NUMBER WHAT: times in all that both say so of the broker
  await "the receiver says that the broker $2" at_least "$1" "MQTT broker.*$2" receive.log
  await "so does the sender" at_least "$1" "MQTT broker.*$2" send.log
}
arrives() { # READING: sends it
  echo "$1" >&3
  at_least 1 "^$1$" receive.out
}
unanswered() { # NUMBER: of attempts to connect to the port that get no answer for a second
  [[ $(grep -c ":$(printf %04X "$port") 02 [^ ]* [^ ]* 0*[1-9]" /proc/net/tcp) -ge $1 ]]
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
await_both 1 'is away'
await "the broker is there" start_broker true
await_both 1 'is here'
await "what one process publishes arrives in the other" arrives 'garage 7'

printf '%s\n' 'no JSON' '{"sensor": "kitchen"' '{"sensor": "kitchen"}' '{"sensor": 1, "value": 2}' '[]' '' \
  '{"sensor": "cellar", "value": -1}' | "$mosquitto_pub" -h 127.0.0.1 -p "$port" -t readings -l
await "so does what comes from elsewhere after bad messages" at_least 1 '^cellar -1$' receive.out
printf 'garage nan\ngarage -inf\n\xff 1\n' >&3
await "the sender goes on after what JSON cannot carry" arrives 'garage 8'
exactly 1 'MQTT topic readings: ' send.log
exactly 6 'MQTT topic readings: ' receive.log

stop_broker
await_both 2 'is away'
echo 'attic 1' >&3
await "the broker is back, but refuses both" start_broker false
await "they have tried again and again" at_least 4 'not authorised' broker.log
stop_broker
await "the broker is back" start_broker true
await_both 2 'is here'
await "readings arrive again" arrives 'garage 9'
for process in receive send; do exactly 4 'MQTT broker' $process.log; done
exactly 1 'is here, 4 messages did not go out' send.log # 3 that could not, 1 while it was away

exec 3>&- # the sender ends while the broker is there, the receiver while it does not answer
end sender $sender
await "it has said goodbye" at_least 1 ' disconnected' broker.log
stop_broker
await "the receiver says that the broker is away" at_least 3 'MQTT broker.*is away' receive.log
kill -STOP -- -$receiver
await "the broker is back" start_broker true
kill -STOP -- -$broker # now it takes what the system queues for it, then answers no more
(while exec {connection}<>/dev/tcp/127.0.0.1/$port; do : "$connection"; done) 2>/dev/null 3>&- 4>&- &
await "the broker does not answer" unanswered 1
kill -CONT -- -$receiver
await "nor does the receiver get an answer" unanswered 2
exec 4>&-
kill -KILL -- -$broker # the next attempt is refused
end receiver $receiver
