#!/usr/bin/env bash
# mistakes.sh FOLDER COMPILER FLAG...: checks that the first error for a mistake with a handle says
# what is wrong, and that correct uses compile without a warning. Compiles in FOLDER.
#
# Mistakes that only the compiler's own words tell:
# - a copy of a handle, since a copy constructor that says more would make handles seem copyable;
# - a Service or State of another type than its server's, client's or holder's;
# - the name of an overloaded function as a callable, or of a member function without &;
# - a handle without the type of its name: Subscriber("readings", callable);
# - the inbox before the callable, and an inbox that is const or a temporary object;
# - a generic callable that changes its message: the error is in the callable;
# - Publisher(kReadings); as a statement, which declares a variable kReadings.
set -euo pipefail
folder=$1
compile=("${@:2}" -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
failures=0

rm -rf "$folder"
mkdir "$folder"
cd "$folder"
cat >uses.h <<'END'
#include <zorvix/state.h>

namespace app {
struct Reading {
  int Half() const { return left / 2; }
  int left;
};
struct Screen {
  void Show(const Reading&) {}
};
}  // namespace app

using app::Reading;
using app::Screen;
using bridge::BridgeType;
using namespace zorvix;

const Topic<Reading> kReadings{"readings"};
const Topic<short> kShorts{"shorts"};
const Topic<Reading, BridgeType::Async> kQueued{"queued"};
const Service<Reading, int> kSum{"sum"};
const Service<Reading, int, BridgeType::Async> kQueuedSum{"queued_sum"};
const State<Reading> kLatest{"latest"};
END
"${compile[@]}" -x c++-header uses.h -o uses.h.gch  # read instead of uses.h

body() { # CODE
  printf 'void Use(zorvix::Inbox& inbox) {\n  static_cast<void>(inbox);\n  %s\n}\n' "$1"
}

correct() { # NAME CODE
  if ! body "$2" | "${compile[@]}" -fsyntax-only -include uses.h -x c++ - >output 2>&1; then
    printf '%s does not compile:\n%s\n' "$1" "$(grep -m 3 -E 'error' output)"
    failures=$((failures + 1))
  fi
}

mistake() { # NAME WORDS CODE
  local line
  body "$3" | "${compile[@]}" -fsyntax-only -include uses.h -x c++ - >output 2>&1 || true
  line=$(grep -m 1 'error:' output) || line="no error"
  [[ -z ${VERBOSE:-} ]] || printf '%-40s %3d lines  %s\n' "$1" "$(wc -l <output)" "$line"
  if [[ $line != *"$2"* ]]; then
    printf '%s: %s\n  expected: %s\n' "$1" "$line" "$2"
    failures=$((failures + 1))
  fi
}

passed="the callable cannot be invoked with what the handle passes to it"
mutable="the callable takes a non-const reference: let it take a const reference"
unbound="a member function needs an object: pass a lambda that calls it"
order="a depth needs an inbox or Delivery::Queued before it"
number="write the depth as KeepLast{n}, not as a number"
answer="the callable of a server must return a Response"

mistake "another message type" "$passed" 'Subscriber s(kReadings, [](const std::string&) {});'
mistake "another message type, with an inbox" "$passed" \
  'Subscriber s(kReadings, [](const std::string&) {}, inbox);'
mistake "another request type" "$passed" \
  'Server s(kSum, [](const std::string&) { return 1; });'
mistake "another request type, with an inbox" "$passed" \
  'Server s(kSum, [](const std::string&) { return 1; }, inbox);'
mistake "another value type" "$passed" 'Watcher w(kLatest, [](const std::string&) {});'
mistake "another value type, with an inbox" "$passed" \
  'Watcher w(kLatest, [](const std::string&) {}, inbox);'
mistake "another answer type" "$passed" \
  'Client(kSum, inbox).Call(Reading{}, [](const std::string&) {});'
mistake "a limit that is a number" "write the limit as a std::chrono duration" \
  'Client(kSum).Call(Reading{}, 100);'

mistake "a non-const message" "$mutable" 'Subscriber s(kReadings, [](Reading&) {}, inbox);'
mistake "a non-const request" "$mutable" 'Server s(kSum, [](Reading&) { return 1; });'
mistake "a non-const value" "$mutable" 'Watcher w(kLatest, [](Reading&) {});'
mistake "a non-const answer" "$mutable" \
  'Client(kSum, inbox).Call(Reading{}, [](std::optional<int>&) {});'
mistake "an unbound member function" "$unbound" 'Subscriber s(kReadings, &Screen::Show);'

mistake "a topic of another type" "a subscriber needs a Topic of its own type" \
  'Subscriber<int> s(kReadings, [](int) {});'
mistake "a publisher of another type" "a publisher needs a Topic of its own type" \
  'Publisher<int> p(kReadings);'
mistake "a state of another type" "a watcher needs a State of its own type" \
  'Watcher<int> w(kLatest, [](int) {}, inbox);'
mistake "a service for a subscriber" "a subscriber needs a Topic of its own type" \
  'Subscriber s(kSum, [](const Reading&) {});'

mistake "depth before inbox" "$order" \
  'Subscriber s(kReadings, [](const Reading&) {}, KeepLast{1}, inbox);'
mistake "depth without inbox" "$order" \
  'Subscriber s(kReadings, [](const Reading&) {}, KeepLast{3});'
mistake "depth of a server without inbox" "$order" \
  'Server s(kSum, [](const Reading&) { return 1; }, KeepAll());'
mistake "a number as depth" "$number" 'Subscriber s(kReadings, [](const Reading&) {}, inbox, 1);'
mistake "a number as depth of a server" "$number" \
  'Server s(kSum, [](const Reading&) { return 1; }, inbox, 1);'

mistake "an inbox for a queued topic" "only a Sync topic can have an inbox" \
  'Subscriber s(kQueued, [](const Reading&) {}, inbox);'
mistake "an inbox for a queued service" "only a Sync service can have an inbox" \
  'Server s(kQueuedSum, [](const Reading&) { return 1; }, inbox);'
mistake "an inbox for a queued client" "only a Sync service can have an inbox" \
  'Client c(kQueuedSum, inbox);'
mistake "a limit for a queued call" "only a call of a Sync service has a limit" \
  'Client(kQueuedSum).Call(Reading{}, std::chrono::seconds(1));'
mistake "an optional audience of a queued topic" "for a Sync topic only" \
  'Publisher p(kQueued, Audience::Optional);'

mistake "a server that returns another type" "$answer" \
  'Server s(kSum, [](const Reading&) { return std::string(); });'
mistake "a server that returns nothing" "$answer" \
  'Server s(kSum, [](const Reading&) {}, inbox);'

mistake "a copy of a handle" "deleted" \
  'const Publisher p(kReadings); const auto copy = p;'
mistake "a handle that is dropped" "nodiscard" 'Subscriber(kReadings, [](const Reading&) {});'

correct "a handle of each kind and way" '
  auto publisher = Publisher(kReadings, Audience::Optional);
  const Publisher moved = std::move(publisher);
  const auto take = [](const Reading&) {};
  const Subscriber direct(kReadings, take);
  const Subscriber queued(kReadings, take, Delivery::Queued, KeepAll());
  const Subscriber in_drains(kReadings, take, inbox, KeepLast{1});
  const Subscriber with_braces(kReadings, take, inbox, {1});
  const Subscriber keeps_all(kReadings, take, inbox, KeepAll());
  const Subscriber by_default(kReadings, take, {});
  const Subscriber<Reading> with_type = {{"readings"}, take, inbox};
  const auto answer = [](const Reading&) { return short{1}; };
  const Server server(kSum, answer);
  const Server server_in_drains(kSum, answer, inbox, KeepAll());
  const Server queued_server(kQueuedSum, answer);
  const Client client(kSum);
  const Client client_in_drains(kSum, inbox);
  Holder holder(kLatest);
  const Watcher watcher(kLatest);
  const Watcher watching(kLatest, take);
  const Watcher watching_in_drains(kLatest, take, inbox);'
correct "a callable of each kind" '
  struct Functions {
    static void Take(const Reading&) {}
    static int Sum(Reading reading) { return reading.left; }
  };
  const auto owner = [number = std::make_unique<int>(1)](const Reading&) {};
  const Subscriber function(kReadings, Functions::Take);
  const Subscriber pointer(kReadings, &Functions::Take, inbox);
  const Subscriber member(kReadings, &Reading::left);
  const Subscriber getter(kReadings, &Reading::Half, inbox);
  const Subscriber wrapped(kReadings, std::function<void(Reading)>(Functions::Take));
  const Subscriber by_reference(kReadings, std::ref(owner));
  const Subscriber changing(kReadings, [n = 0](const Reading&) mutable { ++n; }, inbox);
  const Subscriber generic(kReadings, [](auto& reading) { static_cast<void>(reading.left); });
  const Subscriber forwarding(kReadings, [](auto&&...) {}, inbox);
  const Subscriber converting(kShorts, [](int) {}, inbox);
  const Server sum(kSum, Functions::Sum);
  const Server sum_in_drains(kSum, &Reading::left, inbox);
  const Watcher value(kLatest, &Reading::Half, inbox);'
correct "a callable that cannot be copied" '
  const auto make = [] { return [number = std::make_unique<int>(1)](auto&) { return 1; }; };
  const Subscriber direct(kReadings, make());
  const Subscriber queued(kReadings, make(), Delivery::Queued);
  const Subscriber in_drains(kReadings, make(), inbox, KeepLast{1});
  const Server server(kSum, make());
  const Server server_in_drains(kSum, make(), inbox);
  const Watcher watcher(kLatest, make(), inbox);'
correct "calls" '
  const Client client(kSum, inbox);
  std::optional<int> answer = client.Call(Reading{1});
  answer = client.Call(Reading{1}, std::chrono::seconds(1));
  client.Call(Reading{1}, [](const std::optional<int>&) {});
  client.Call(Reading{1}, [number = std::make_unique<int>(1)](auto) {});
  const auto future = Client(kQueuedSum).Call(Reading{1});'
correct "no conversion to a handle" '
  static_assert(!std::is_copy_constructible_v<Subscriber<Reading>>);
  static_assert(!std::is_convertible_v<Topic<int>, Publisher<Reading>>);
  static_assert(!std::is_constructible_v<Subscriber<Reading>, int, void (*)(const Reading&)>);'

[[ $failures == 0 ]]
