// The cases of typed calls, of states and of constructing handles.
#include <zorvix/state.h>
#include <zorvix/typed.h>

#include <any>
#include <array>
#include <boost/asio.hpp>
#include <boost/signals2/signal.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "measure.h"

namespace {

using Number = std::uint64_t;
using Value = std::array<Number, 8>;

const zorvix::Topic<Number> kTopic{"distance"};
const zorvix::Service<Number, Number> kService{"square"};
const zorvix::State<Value> kState{"position"};

Number Square(Number number) { return number * number; }

void Take(std::optional<Number> answer) { benchmark::DoNotOptimize(answer); }
void Receive(const Value& value) { benchmark::DoNotOptimize(value[0]); }

void Call(benchmark::State& state) {
  const zorvix::Server server(kService, Square);
  const zorvix::Client client(kService);
  std::shared_ptr<const bridge::Control> control = std::make_shared<bridge::Control>(
      bridge::Control{"cube", bridge::BridgeModule::Service, bridge::BridgeType::Sync});
  const auto serve = [](const std::any& request, std::any& response) {
    response = Square(std::any_cast<Number>(request));
  };
  auto& the_bridge = bridge::Zorvix::GetInstance();
  the_bridge.RegisterServer(control, std::make_shared<bridge::ServerCallback::element_type>(serve));
  const auto call_plain = [&] {
    the_bridge.Call(control, [](const auto& callback) {
      std::any response;
      callback(Number{3}, response);
      Take(std::any_cast<Number>(response));
    });
  };
  Compare(state, "the plain interface", OneThread([&] { Take(client.Call(3)); }),
          OneThread(call_plain));
  the_bridge.UnregisterServer(control, 0);
}

// A request through the server's inbox, and its answer through the client's, both drained on this
// thread: next to a closure that one strand runs and that posts the answer to another strand.
void CallThroughInboxes(benchmark::State& state, std::size_t burst) {
  zorvix::Inbox server_inbox;
  zorvix::Inbox client_inbox;
  const zorvix::Server server(kService, Square, server_inbox);
  const zorvix::Client client(kService, client_inbox);
  const auto call = [&] {
    for (Number i = 0; i < burst; ++i) client.Call(i, Take);
    server_inbox.Drain();
    client_inbox.Drain();
  };

  boost::asio::io_context context;
  const auto server_strand = boost::asio::make_strand(context);
  const auto client_strand = boost::asio::make_strand(context);
  const std::function<Number(Number)> square = Square;
  const auto post = [&] {
    for (Number i = 0; i < burst; ++i) {
      boost::asio::post(server_strand, [&, i] {
        boost::asio::post(client_strand, [answer = square(i)] { Take(answer); });
      });
    }
    context.poll();
    context.restart();
  };

  Compare(state, "Boost.Asio", OneThread(call, burst), OneThread(post, burst));
}

// What a peer of a state has: the latest value, shared.
struct Latest {
  std::shared_ptr<const Value> Set() {
    auto value = std::make_shared<const Value>();
    const std::lock_guard lock(mutex);
    newest = value;
    return value;
  }
  std::shared_ptr<const Value> Get() {
    const std::lock_guard lock(mutex);
    return newest;
  }
  std::mutex mutex;
  std::shared_ptr<const Value> newest;
};

void SetState(benchmark::State& state) {
  zorvix::Holder holder(kState);
  const zorvix::Watcher watcher(kState, Receive);
  Latest latest;
  boost::signals2::signal<void(const Value&)> signal;
  signal.connect(Receive);
  Compare(state, "Boost.Signals2", OneThread([&] { holder.Set(Value{}); }),
          OneThread([&] { signal(*latest.Set()); }));
}

void SetStateForInbox(benchmark::State& state) {
  zorvix::Inbox inbox;
  zorvix::Holder holder(kState);
  const zorvix::Watcher watcher(kState, Receive, inbox);
  const auto set = [&] {
    holder.Set(Value{});
    inbox.Drain();
  };

  boost::asio::io_context context;
  const auto strand = boost::asio::make_strand(context);
  Latest latest;
  const auto post = [&] {
    latest.Set();
    boost::asio::post(strand, [&] { Receive(*latest.Get()); });
    context.poll();
    context.restart();
  };

  Compare(state, "Boost.Asio", OneThread(set), OneThread(post));
}

void ReadState(benchmark::State& state) {
  zorvix::Holder holder(kState);
  const zorvix::Watcher watcher(kState);
  holder.Set(Value{});
  Latest latest;
  latest.Set();
  Compare(state, "a mutex and a shared pointer", OneThread([&] { Receive(*watcher.Latest()); }),
          OneThread([&] { Receive(*latest.Get()); }));
}

// Next to a registration by the plain interface, which is not listed for Inspect.
void BuildPublisher(benchmark::State& state) {
  const zorvix::Publisher keeps_the_name(kTopic);
  const auto build = [] { const zorvix::Publisher publisher(kTopic); };
  const auto register_plain = [] {
    std::shared_ptr<const bridge::Control> control =
        std::make_shared<bridge::Control>(bridge::Control{std::string(kTopic.name)});
    bridge::Zorvix::GetInstance().RegisterPublisher(control);
    bridge::Zorvix::GetInstance().UnregisterPublisher(control);
  };
  Compare(state, "the plain interface", OneThread(build), OneThread(register_plain));
}

template <typename Function, typename... Arguments>
void Add(const std::string& name, Function run, Arguments... arguments) {
  benchmark::RegisterBenchmark(name.c_str(), run, arguments...)->Iterations(150);
}

}  // namespace

void AddHandleCases() {
  Add("Sync call, typed", Call);
  for (const std::size_t burst : {1u, 8u, 64u}) {
    Add("Call through two inboxes, " + std::to_string(burst) + " at a time", CallThroughInboxes,
        burst);
  }
  Add("Set a state with 1 watcher", SetState);
  Add("Set a state with 1 watcher with an inbox, and drain", SetStateForInbox);
  Add("Latest value of a state", ReadState);
  Add("Build and destroy a publisher", BuildPublisher);
}
