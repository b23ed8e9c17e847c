// Why calls have no answer, replies that come later, and calls with timeouts.
#include <poll.h>

#include "bridge_test.h"
#include "threads.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using zorvix::Delivery;
using zorvix::Inbox;
using zorvix::KeepLast;
using zorvix::Why;
using Answer = zorvix::Answer<int>;
using Reply = zorvix::Reply<int>;
using IntServer = zorvix::Server<int, int>;
using IntClient = zorvix::Client<int, int>;

const zorvix::Service<int, int> kService{"double"};

int Double(int number) { return 2 * number; }
void Ignore(const Answer&) {}

// What calls are answered with.
struct Seen {
  Seen(const Answer& answer) : text(answer ? std::to_string(*answer) : NameOf(answer.why())) {}
  Seen(int answer) : text(std::to_string(answer)) {}
  Seen(Why why) : text(NameOf(why)) {}
  bool operator==(const Seen& other) const { return text == other.text; }
  std::string text;
};
void PrintTo(const Seen& seen, std::ostream* out) { *out << seen.text; }
using AllSeen = std::vector<Seen>;

class Answers : public Bridge {
 protected:
  auto Append() {
    return [this](const Answer& answer) { answers_.emplace_back(answer); };
  }
  // Returns what calls with callables have been answered with, in drains of the client's inbox.
  AllSeen DrainAnswers() {
    client_inbox_->Drain();
    return std::exchange(answers_, {});
  }
  // Keeps its replies, which other threads may take.
  auto Keep() {
    return [this](int, const Reply& reply) {
      kept_.push_back(reply);
      Log("kept");
    };
  }

  std::optional<Inbox> server_inbox_{std::in_place};
  std::optional<Inbox> client_inbox_{std::in_place};
  AllSeen answers_;
  std::vector<Reply> kept_;
};

template <BridgeType kType>
using ServiceOf = zorvix::Service<int, int, kType>;

// Why the calls of a server have no answer, and what makes the server.
struct Failing {
  Why why;
  std::function<std::shared_ptr<void>()> serve;
};

// Serves "s" until the result is destroyed.
template <BridgeType kType, typename Request, typename Response, typename Callable>
std::shared_ptr<void> Serve(Callable callable) {
  const zorvix::Service<Request, Response, kType> service{"s"};
  return std::make_shared<zorvix::Server<Request, Response, kType>>(service, callable);
}
template <BridgeType kType>
std::shared_ptr<void> ServePlainly(ServerFunction function) {
  auto control = MakeControl("s", BridgeModule::Service, kType);
  ZorvixRegisterServer(control, Server(std::move(function)));
  return {nullptr, [control](auto) mutable { ZorvixUnregisterServer(control); }};
}

template <BridgeType kType>
std::vector<Failing> FailingServers() {
  constexpr auto kServe = [](auto callable) { return Serve<kType, int, int>(callable); };
  constexpr auto kServePlainly = ServePlainly<kType>;
  const auto fail = [](int) -> int { throw std::bad_any_cast(); };
  const auto fail_with_reply = [](int, const Reply&) { throw 1; };
  const auto forget = [](int, const Reply&) {};
  const auto refuse = [](int, const Reply& reply) { reply.Refuse(); };
  return {
      {Why::NoServer, [] { return nullptr; }},
      {Why::Threw, [=] { return kServe(fail); }},
      {Why::Threw, [=] { return kServe(fail_with_reply); }},
      {Why::Threw, [] { return kServePlainly([](auto&, auto&) { throw 1; }); }},
      {Why::Destroyed, [=] { return kServe(forget); }},
      {Why::Refused, [=] { return kServe(refuse); }},
      {Why::Unknown, [] { return kServePlainly([](auto&, auto& it) { it.reset(); }); }},
      {Why::Unknown, [] { return kServePlainly([](auto&, auto&) {}); }},
      {Why::WrongType, [] { return kServePlainly([](auto&, auto& it) { it = 'x'; }); }},
      {Why::WrongType, [] { return Serve<kType, char, int>([](char) { return 1; }); }},
      {Why::WrongType, [] { return Serve<kType, int, char>([](int) { return 'x'; }); }},
  };
}

TEST_F(Answers, SayWhyADirectServerHasNotAnswered) {
  const IntClient client(zorvix::Service<int, int>{"s"}, *client_inbox_);
  for (const auto& [why, serve] : FailingServers<BridgeType::Sync>()) {
    const auto server = serve();
    EXPECT_EQ(Seen(client.Call(1)), why);
    EXPECT_EQ(Seen(client.Call(1, hours(1))), why);
    client.Call(1, Append());
    client.Call(1, hours(1), Append());
    EXPECT_EQ(DrainAnswers(), (AllSeen{why, why}));
  }
}

TEST_F(Answers, OfFuturesSayWhyAServerHasNotAnswered) {
  constexpr auto kAsync = BridgeType::Async;
  zorvix::Client client(ServiceOf<kAsync>{"s"});
  for (const auto& [why, serve] : FailingServers<kAsync>()) {
    const auto failing = serve();
    auto answer = client.Call(1);
    ZorvixSpinOnce();
    EXPECT_EQ(Seen(answer.get()), why);
  }

  std::optional server(zorvix::Server(ServiceOf<kAsync>{"s"}, Double));
  auto destroyed = client.Call(1);
  server.reset();
  ZorvixSpinOnce();
  EXPECT_EQ(Seen(destroyed.get()), Why::Destroyed);

  server.emplace(ServiceOf<kAsync>{"s"}, Double);
  auto dropped = client.Call(1);
  for (int i = 0; i < 100; ++i) client.Call(2);
  EXPECT_EQ(Seen(dropped.get()), Why::Dropped);
  ZorvixSpinOnce();
  const auto moved_to = std::move(client);
  EXPECT_EQ(Seen(client.Call(1).get()), Why::Unknown);
}

// Hangs if a lock is held while a request is dropped.
TEST_F(Answers, OfDroppedRequestsMayBePendingInTheInboxOfTheServer) {
  const zorvix::Service<std::string, int> service{"length"};
  const auto length = [](const std::string& it) { return static_cast<short>(it.size()); };
  const zorvix::Server server(service, length, *client_inbox_, KeepLast{1});
  const zorvix::Client client(service, *client_inbox_);

  for (const auto* request : {"a", "bb"}) client.Call(request, Append());

  EXPECT_EQ(DrainAnswers(), AllSeen{Why::Dropped});
  EXPECT_EQ(DrainAnswers(), AllSeen{2});
}

TEST_F(Answers, OfTooManyCallsAreDropped) {
  std::vector<int> requests;
  const auto serve = [&](int number) {
    requests.push_back(number);
    return Double(number);
  };
  const IntServer server(kService, serve, *server_inbox_);
  const IntClient client(kService, *client_inbox_, KeepLast{2});
  const auto call = [&](int from, int to) {
    for (int number = from; number <= to; ++number) client.Call(number, hours(1), Append());
  };

  call(1, 4);
  EXPECT_EQ(answers_, AllSeen());
  EXPECT_EQ(DrainAnswers(), (AllSeen{Why::Dropped, Why::Dropped}));
  server_inbox_->Drain();
  call(5, 5);  // the answers are still pending
  EXPECT_EQ(DrainAnswers(), (AllSeen{2, 4, Why::Dropped}));
  call(6, 7);
  server_inbox_->Drain();

  EXPECT_EQ(DrainAnswers(), (AllSeen{12, 14}));
  EXPECT_EQ(requests, (std::vector{1, 2, 6, 7}));
  const auto log = TakeLog();
  EXPECT_EQ(Count(log, "drops new ones, name: double, module: zorvix_test, depth: 2"), 1u);
  EXPECT_EQ(Count(log, "kind: Client, name: double, module: zorvix_test, dropped: 3"), 1u);

  const IntClient queued(kService, Delivery::Queued, KeepLast{1});
  for (int number = 8; number <= 9; ++number) queued.Call(number, Append());
  ZorvixSpinOnce();
  EXPECT_EQ(answers_, AllSeen{Why::Dropped});
  EXPECT_THROW(const IntClient none(kService, *client_inbox_, KeepLast{0}), std::invalid_argument);
}

TEST_F(Answers, MayBeGivenLaterOnAnotherThread) {
  const IntClient blocking(kService);
  const IntClient client(kService, *client_inbox_);
  const zorvix::Client future(ServiceOf<BridgeType::Async>{"double"});
  auto& plain = Service("double", BridgeType::Sync);
  Zorvix::GetInstance().RegisterClient(plain);
  const std::function<Seen()> calls[] = {
      [&] { return blocking.Call(1); },
      [&] { return blocking.Call(1, hours(1)); },
      [&] {
        client.Call(1, hours(1), Append());
        client_inbox_->Wait(hours(1));
        return DrainAnswers().at(0);
      },
      [&] {
        std::any response;
        Zorvix::GetInstance().Call(plain, [&](auto& serve) { serve(1, response); });
        return std::any_cast<int>(response);
      },
      [&] { return future.Call(1).get(); },
  };
  const std::function<IntServer()> servers[] = {
      [&] { return IntServer(kService, Keep()); },
      [&] { return IntServer(kService, Keep(), Delivery::Queued); },
      [&] { return IntServer(kService, Keep(), *server_inbox_); },
  };
  for (const auto& serve : servers) {
    for (const auto& call : calls) {
      std::optional server(serve());
      std::optional async_server(zorvix::Server(ServiceOf<BridgeType::Async>{"double"}, Keep()));
      TakeLog();
      auto answer = InBackground(call);
      EXPECT_TRUE(ComesTrue([&] {
        server_inbox_->Drain();
        ZorvixSpinOnce();
        return Count(TakeLog(), "kept") != 0;
      }));
      server.reset();
      async_server.reset();

      const auto replies = std::exchange(kept_, {});
      replies.at(0)(7);

      EXPECT_EQ(answer.get(), 7) << "although the reply is still kept";
    }
  }
}

TEST_F(Answers, OfAKeptReplyReachACallOnlyOnce) {
  const IntServer server(kService, Keep(), *server_inbox_);
  std::optional client(IntClient(kService, *client_inbox_));
  for (int number = 0; number < 4; ++number) client->Call(number, Append());
  const auto owned = std::make_shared<int>();
  client->Call(4, [owned](const Answer&) {});
  server_inbox_->Drain();
  const auto copies = kept_;

  kept_.erase(kept_.begin());
  EXPECT_EQ(DrainAnswers(), AllSeen()) << "there is a copy";
  copies[1].Refuse();
  copies[1](1);
  EXPECT_EQ(DrainAnswers(), AllSeen{Why::Refused});
  Reply from = kept_[1];
  const Reply to = std::move(from);
  kept_.erase(kept_.begin());
  from.Refuse();
  to(2);
  EXPECT_EQ(DrainAnswers(), AllSeen{2});

  copies[4](4);
  EXPECT_EQ(DrainAnswers(), AllSeen());
  EXPECT_EQ(owned.use_count(), 1) << "the callable is destroyed, although the reply is kept";

  client->Call(5, Append());
  for (const std::size_t used : {1u, 2u, 4u}) copies[used](9);
  EXPECT_EQ(DrainAnswers(), AllSeen()) << "none is the reply of the new call";
  client.reset();
  copies[0](0);
  EXPECT_EQ(DrainAnswers(), AllSeen());
}

bool IsReadable(const Inbox& inbox, milliseconds timeout = milliseconds(0)) {
  pollfd it = {inbox.fd(), POLLIN, 0};
  return poll(&it, 1, static_cast<int>(timeout.count())) == 1;
}

TEST_F(Answers, OfCallsWithTimeoutsWakeWhoWaitsInTime) {
  const IntServer server(kService, Keep(), *server_inbox_);
  const IntClient client(kService, *client_inbox_);
  const std::function<void()> waits[] = {
      [&] { EXPECT_TRUE(client_inbox_->Wait(hours(1))); },
      [&] { client_inbox_->Wait(); },
      [&] { EXPECT_TRUE(IsReadable(*client_inbox_, hours(1))); },
  };
  client.Call(0, hours(1), Ignore);
  for (const auto& wait : waits) {
    const auto begin = std::chrono::steady_clock::now();
    client.Call(1, milliseconds(500), Append());
    client.Call(2, milliseconds(20), Append());
    EXPECT_FALSE(client_inbox_->Wait(milliseconds(-1)));
    EXPECT_FALSE(IsReadable(*client_inbox_));

    wait();

    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(20));
    EXPECT_EQ(DrainAnswers(), AllSeen{Why::TimedOut});
    EXPECT_FALSE(IsReadable(*client_inbox_));
    wait();
    EXPECT_EQ(DrainAnswers(), AllSeen{Why::TimedOut});
  }
  server_inbox_->Drain();
  for (const auto& reply : kept_) reply(1);
  EXPECT_EQ(DrainAnswers(), AllSeen()) << "all of them are late, or ignored";
}

TEST_F(Answers, OfCallsWithTimeoutsAreTakenInTheNextDrain) {
  const IntServer server(kService, Keep(), *server_inbox_);
  std::optional client(IntClient(kService, *client_inbox_));
  const auto call_and_look = [&](const Answer&) {
    client->Call(2, milliseconds(0), Append());
    EXPECT_FALSE(IsReadable(*client_inbox_)) << "a drain is in progress";
  };
  client_inbox_->fd();

  client->Call(1, milliseconds(0), call_and_look);
  EXPECT_EQ(DrainAnswers(), AllSeen());
  EXPECT_TRUE(IsReadable(*client_inbox_, hours(1)));
  EXPECT_EQ(DrainAnswers(), AllSeen{Why::TimedOut});

  client->Call(3, milliseconds(1), Append());
  server_inbox_->Drain();
  kept_.at(2)(3);
  std::this_thread::sleep_for(milliseconds(2));
  EXPECT_EQ(DrainAnswers(), AllSeen{3}) << "answered before anybody looked";

  client->Call(5, milliseconds(1), Append());
  client.reset();
  EXPECT_FALSE(client_inbox_->Wait(milliseconds(5)));
  EXPECT_FALSE(IsReadable(*client_inbox_));
  EXPECT_THROW(IntClient(kService, Delivery::Queued).Call(1, hours(1), Ignore), std::logic_error);
}

TEST_F(Answers, AreStandardOptionals) {
  const zorvix::Service<bool, bool> same{"same"};
  const zorvix::Server server(same, [](bool it) { return it; });
  const zorvix::Client client(same, *client_inbox_);
  std::vector<std::optional<bool>> answers;
  const auto append = [&](std::optional<bool> answer) { answers.push_back(answer); };

  for (const bool it : {false, true}) {
    const std::optional<bool> copied = client.Call(it);
    client.Call(it, append);
    client.Call(it, [&](auto answer) { append(answer); });
    client_inbox_->Drain();
    EXPECT_EQ(std::exchange(answers, {}), (std::vector<std::optional<bool>>{it, it}));
    EXPECT_EQ(copied, it);
    EXPECT_TRUE(client.Call(it) == copied && copied == client.Call(it));
    EXPECT_FALSE(client.Call(it) != copied || copied != client.Call(it));
  }
  const zorvix::Answer<bool> none;
  const std::optional<bool> also_none;
  const zorvix::Answer<bool> dropped(std::nullopt, Why::Dropped);
  EXPECT_TRUE(none == also_none && also_none == none && none == dropped);
  EXPECT_FALSE(none != also_none || also_none != none || none != dropped);
}

}  // namespace
