#!/usr/bin/env bash
# test.sh MOSQUITTO MOSQUITTO_PUB EXAMPLE: two processes share a topic through a broker that goes
# away and comes back, while bad messages arrive from outside and from within.
set -Eeuo pipefail
mosquitto=$1 mosquitto_pub=$2 example=$3
work=$(mktemp -d)
mkfifo "$work"/{send,receive}.in
exec 3<>"$work/send.in" 4<>"$work/receive.in" # the examples end when these are closed

finish() {
  status=$?
  local pid
  for pid in $(jobs -p); do kill -KILL -- "-$pid" "$pid" 2>/dev/null || true; done
  [[ $status -eq 0 ]] || tail -n 40 "$work"/*.log >&2
  rm -rf "$work"
}
trap finish EXIT
trap 'exit 1' HUP INT TERM
trap 'echo "failed: $BASH_COMMAND, in line $LINENO, called from ${BASH_LINENO[*]}" >&2' ERR

declare -A pid
start() { # NAME COMMAND...: in a process group of its own, which ends even if nobody ends it
  timeout -k 1 100 "${@:2}" <&0 >"$work/$1.log" 2>&1 3>&- 4>&- &
  pid[$1]=$!
}
await() { # COMMAND...: repeats it until it succeeds, for 30 s
  local end=$((SECONDS + 30))
  until "$@"; do
    [[ $SECONDS -lt $end ]]
    sleep 0.1
  done
}
ended() { ! kill -0 "${pid[$1]}" 2>/dev/null; }
end() { # NAME: ends by itself, without an error
  await ended "$1"
  wait "${pid[$1]}"
}
count() { grep -c -e "$2" "$work/$1.log" || true; } # NAME PATTERN: prints the number of lines
says() { [[ $(count "$1" "$2") -ge ${3:-1} ]]; } # NAME PATTERN [TIMES]
says_exactly() { [[ $(count "$1" "$2") -eq $3 ]]; }

start_broker() { # WHETHER-IT-LETS-ALL-IN
  printf 'listener %s 127.0.0.1\nallow_anonymous %s\n' $port "$1" >"$work/broker.conf"
  start broker "$mosquitto" -c "$work/broker.conf"
  await says broker ' running$'
}
stop_broker() {
  kill "${pid[broker]}"
  end broker
}
await_both() { # WHAT TIMES: in all, as both say of the broker
  for process in send receive; do await says $process "MQTT broker.*$1" "$2"; done
}
arrives() { # READING: sends it
  echo "$1" >&3
  says receive "^$1$"
}
unanswered() { # NUMBER: of attempts to connect to the port that get no answer for a second
  [[ $(grep -c ":$(printf %04X "$port") 02 [^ ]* [^ ]* 0*[1-9]" /proc/net/tcp) -ge $1 ]]
}

# A port that is free, below those that the system hands out.
while
  port=$((20000 + RANDOM % 10000))
  (: <>/dev/tcp/127.0.0.1/$port) 2>/dev/null
do :; done

for process in send receive; do
  start $process "$example" $process 127.0.0.1 $port <"$work/$process.in"
done
await_both 'is away' 1
start_broker true
await_both 'is here' 1
await arrives 'garage 7'

printf '%s\n' 'no JSON' '{"sensor": "kitchen"' '{"sensor": "kitchen"}' '{"sensor": 1, "value": 2}' '[]' '' \
  '{"sensor": "cellar", "value": -1}' | "$mosquitto_pub" -h 127.0.0.1 -p "$port" -t readings -l
await says receive '^cellar -1$'
printf 'garage nan\ngarage -inf\n\xff 1\n' >&3 # what JSON cannot carry
await arrives 'garage 8'
says_exactly send 'MQTT topic readings: ' 1
says_exactly receive 'MQTT topic readings: ' 6

stop_broker
await_both 'is away' 2
echo 'attic 1' >&3
start_broker false
await says broker 'not authorised' 4
stop_broker
start_broker true
await_both 'is here' 2
await arrives 'garage 9'
for process in send receive; do says_exactly $process 'MQTT broker' 4; done
says_exactly send 'is here, 4 messages did not go out' 1 # 3 that could not, 1 while it was away

exec 3>&- # the sender ends while the broker is there, and says goodbye
end send
await says broker ' disconnected'
kill -STOP -- "-${pid[broker]}" # now it takes what the system queues for it, then answers no more
(while exec {connection}<>/dev/tcp/127.0.0.1/$port; do : "$connection"; done) 2>/dev/null 3>&- 4>&- &
await unanswered 1
start late "$example" receive 127.0.0.1 $port </dev/null
await unanswered 2
exec 4>&-
end receive
kill -KILL -- "-${pid[broker]}" # the next attempt is refused
end late
