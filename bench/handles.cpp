// The cases of calls between threads and of building handles, the last ones of the table.
#include <zorvix/typed.h>

#include <boost/asio.hpp>

#include "measure.h"

namespace {

using Number = std::uint64_t;

const zorvix::Topic<Number> kTopic{"distance"};
const zorvix::Service<Number, Number> kService{"square"};

Number Square(Number number) { return number * number; }

void Take(std::optional<Number> answer) { benchmark::DoNotOptimize(answer); }

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

// Next to a registration by the plain interface, which is not listed for Inspect.
void BuildPublisher(benchmark::State& state) {
  const zorvix::Publisher keeps_the_name(kTopic);
  const auto build = [] { const zorvix::Publisher publisher(kTopic); };
  const auto register_plain = [] {
    std::shared_ptr<const bridge::Control> control =
        std::make_shared<bridge::Control>(bridge::Control{kTopic.name});
    bridge::Zorvix::GetInstance().RegisterPublisher(control);
    bridge::Zorvix::GetInstance().UnregisterPublisher(control);
  };
  Compare(state, "the plain interface", OneThread(build), OneThread(register_plain));
}

const bool added = [] {
  if (ZORVIX_BENCH_KEEPS_LOG) return true;
  for (const std::size_t burst : {1u, 8u, 64u}) {
    const std::string name = "Call through two inboxes, " + std::to_string(burst) + " at a time";
    benchmark::RegisterBenchmark(name.c_str(), CallThroughInboxes, burst)->Iterations(150);
  }
  benchmark::RegisterBenchmark("Build and destroy a publisher", BuildPublisher)->Iterations(150);
  return true;
}();

}  // namespace
