#!/usr/bin/env bash
# mistakes.sh FOLDER COMPILER FLAG...: checks that the first error for a mistake with a handle says
# what is wrong, and that correct uses compile without a warning. Compiles in FOLDER.
#
# Not here, since only the compiler's own words tell them: a copy of a handle; an overloaded function
# as a callable; a generic callable that changes its message.
set -euo pipefail
folder=$1
compile=("${@:2}" -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
failures=0

rm -rf "$folder"
mkdir "$folder"
cd "$folder"
cat >uses.h <<'END'
#include <zorvix/typed.h>

struct Reading {
  int Half() const { return left / 2; }
  int left;
};
struct Screen {
  void Show(const Reading&) {}
};

using bridge::BridgeType;
using namespace zorvix;

inline constexpr Topic<Reading> kReadings{"readings"};
const Topic<short> kShorts{"shorts"};
const Topic<Reading, BridgeType::Async> kQueued{"queued"};
const Service<Reading, int> kSum{"sum"};
const Service<Reading, int, BridgeType::Async> kQueuedSum{"queued_sum"};
const State<Reading> kLatest{"latest"};
END
"${compile[@]}" -x c++-header uses.h -o uses.h.gch  # read instead of uses.h

compile_code() { # CODE
  printf 'void Use(zorvix::Inbox& inbox) {\n  static_cast<void>(inbox);\n  %s\n}\n' "$1" |
    "${compile[@]}" -fsyntax-only -include uses.h -x c++ - >output 2>&1
}

expect() { # WORDS WHAT: in the first error
  local line
  line=$(grep -m 1 'error:' output) || line="no error"
  if [[ $line != *"$1"* ]]; then
    printf '%s\n  %s\n  expected: %s\n' "$2" "$line" "$1"
    failures=$((failures + 1))
  fi
}

mistake() { # WORDS CODE
  compile_code "$2" || true
  expect "$1" "$2"
}

for flag in -fno-rtti -fno-exceptions -std=c++14; do
  "${compile[@]}" "$flag" -fsyntax-only -x c++ - <<<'#include <zorvix/typed.h>' 2>output || true
  expect 'zorvix: compile every file ' "$flag"
done

passed="the callable cannot be invoked with what the handle passes to it"
mutable="the callable takes a non-const reference: let it take a const reference"
order="a depth needs an inbox or Delivery::Queued before it"
number="write the depth as KeepLast{n}, not as a number"
answer="the callable of a server must return a Response"

mistake "$passed" 'Subscriber s(kReadings, [](const std::string&) {});'
mistake "$passed" 'Server s(kSum, [](const std::string&) { return 1; }, inbox);'
mistake "$passed" 'Watcher w(kLatest, [](const std::string&) {});'
mistake "$passed" 'Presence p(kReadings, [](const Reading&) {}, inbox);'
mistake "$passed" 'Client(kSum, inbox).Call(Reading{}, [](const std::string&) {});'
mistake "$mutable" 'Subscriber s(kReadings, [](Reading&) {}, inbox);'
mistake "$mutable" 'Server s(kSum, [](Reading&) { return 1; });'
mistake "a member function needs an object: pass a lambda that calls it" \
  'Subscriber s(kReadings, &Screen::Show);'

type="the Topic, Service or State is of another type than the handle"
name="pass a Topic, a Service or a State, not its name"
callable="a callable is missing: it is the second argument"
address="pass the inbox itself, not its address"
temporary="the inbox must be neither const nor a temporary"
latest="a watcher or presence takes no depth: it has the latest value only"
mistake "$type" 'Subscriber<int> s(kReadings, [](int) {});'
mistake "$type" 'struct Member { Holder<int> h{kLatest}; } m;'
mistake "$type" 'struct Member { Server<int, int> s{kSum, [](int) { return 1; }}; } m;'
mistake "$type" 'struct Member { Client<int, int> c; Member(Inbox& i) : c(kSum, i) {} } m(inbox);'
mistake "a response must be a value, to be copied and moved" 'Service<int, int&> s{"s"};'
mistake "$type" 'Watcher<int> w(kLatest, [](int) {}, inbox);'
mistake "$name" 'Presence p("readings", [](const Matched&) {}, inbox);'
mistake "$name" 'Subscriber s("readings", [](const Reading&) {}, inbox);'
mistake "a publisher or subscriber needs a Topic" 'Subscriber s(kLatest, [](const Reading&) {});'
mistake "a client or server needs a Service" 'Client c(kReadings);'
mistake "a holder or watcher needs a State" 'Holder h(kReadings);'

mistake "$callable" 'Watcher w(kLatest, inbox);'
mistake "$callable" 'Subscriber s(kReadings, inbox, [](const Reading&) {});'
mistake "$address" 'Subscriber s(kReadings, [](const Reading&) {}, &inbox, KeepLast{1});'
mistake "$temporary" 'Subscriber s(kReadings, [](const Reading&) {}, Inbox());'
mistake "$latest" 'Watcher w(kLatest, [](const Reading&) {}, inbox, KeepLast{1});'
mistake "no constructor takes these arguments" 'Publisher p(kReadings, inbox);'

mistake "$order" 'Subscriber s(kReadings, [](const Reading&) {}, KeepLast{1}, inbox);'
mistake "$order" 'Subscriber s(kReadings, [](const Reading&) {}, KeepLast{3});'
mistake "$number" 'Subscriber s(kReadings, [](const Reading&) {}, inbox, 1);'
mistake "$number" 'Client c(kSum, inbox, 1);'

delivery="has a choice of delivery"
mistake "$delivery" 'Subscriber s(kQueued, [](const Reading&) {}, Delivery::Queued);'
mistake "$delivery" 'Client c(kQueuedSum, Delivery::Queued, KeepAll());'
mistake "a task must be a callable without arguments" 'inbox.Post([](int) {});'
mistake "can have an inbox" 'Subscriber s(kQueued, [](const Reading&) {}, inbox);'
mistake "can have an inbox" 'Client c(kQueuedSum, inbox);'
mistake "only a call of a Sync service has a timeout" \
  'Client(kQueuedSum).Call(Reading{}, std::chrono::seconds(1));'
mistake "for a Sync topic only" 'Publisher p(kQueued, Audience::Optional);'
mistake "write the timeout as a std::chrono duration" 'Client(kSum).Call(Reading{}, 100);'

mistake "$answer" 'Server s(kSum, [](const Reading&) { return std::string(); });'
mistake "$answer" 'Server s(kSum, [](const Reading&) {}, inbox);'
mistake "$passed" 'Server s(kSum, [](const Reading&, Reply<char>) {}, inbox);'
mistake "deleted" 'const Publisher p(kReadings); const auto copy = p;'
mistake "nodiscard" 'Subscriber(kReadings, [](const Reading&) {});'
mistake "nodiscard" '[] { return Publisher(kReadings); }();'

if ! compile_code '
  const auto take = [](const Reading&) {};
  const auto make = [] { return [number = std::make_unique<int>(1)](auto&) { return 1; }; };
  const Publisher publisher(kReadings, Audience::Optional);
  const Subscriber by_default(kReadings, take, {});
  const Subscriber queued(kReadings, make(), Delivery::Queued, KeepAll());
  const Subscriber<Reading> with_type = {{"readings"}, take, inbox};
  const Subscriber member(kReadings, &Reading::left);
  const Subscriber getter(kReadings, &Reading::Half, inbox);
  const Subscriber by_reference(kReadings, std::ref(take));
  const Subscriber changing(kReadings, [n = 0](Reading) mutable { ++n; }, inbox);
  const Subscriber forwarding(kReadings, [](auto&&...) {}, inbox);
  const Subscriber converting(kShorts, [](int) {}, inbox);
  const Server server(kSum, make());
  const Server converted(kQueuedSum, [](const Reading&) { return short{1}; });
  const Watcher watcher(kLatest, make());
  const Watcher watcher_in_drains(kLatest, &Reading::Half, inbox);
  const Presence presence(kQueued, [](Matched) {}, inbox);
  const Presence counting(kLatest, &Matched::count, Delivery::Queued);
  const Presence without_callable(kQueuedSum);
  const Client client(kSum, inbox);
  client.Call(Reading{1}, std::chrono::duration<float>(1)).value();
  client.Call(Reading{1}, [number = std::make_unique<int>(1)](const auto&) {});
  inbox.Post([number = std::make_unique<int>(1)]() mutable { number.reset(); });
  const std::string camera = "camera/";
  const Topic<Reading> composed{camera + "1"};
  const Publisher with_composed_name(composed);
  static_assert(std::is_trivially_destructible_v<Topic<Reading>>);
  static_assert(!std::is_convertible_v<Topic<int>, Publisher<Reading>>);
  static_assert(!std::is_constructible_v<Subscriber<Reading>, int, void (*)(const Reading&)>);'; then
  printf 'correct uses do not compile:\n%s\n' "$(grep -m 3 'error' output)"
  failures=$((failures + 1))
fi

[[ $failures == 0 ]]
