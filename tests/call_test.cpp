// Calls between threads: servers and clients with inboxes, calls, drains and stops with a limit.
#include <poll.h>

#include <future>

#include "bridge_test.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using zorvix::Inbox;
using zorvix::InboxThread;
using zorvix::KeepLast;
using Answer = std::optional<int>;
using Answers = std::vector<Answer>;
using IntServer = zorvix::Server<int, int>;
using IntClient = zorvix::Client<int, int>;

constexpr milliseconds kNoLimit{-1};
const zorvix::Service<int, int> kService{"double"};

int Double(int number) { return 2 * number; }

// A service whose requests are pending in one inbox, and its answers in another.
class Calls : public Bridge {
 protected:
  auto Append() {
    return [this](Answer answer) { answers_.push_back(answer); };
  }
  // Returns what calls have been answered with since it was last called, in drains of the client's
  // inbox.
  Answers DrainAnswers() {
    client_inbox_->Drain();
    return std::exchange(answers_, {});
  }

  std::optional<Inbox> server_inbox_{std::in_place};
  std::optional<Inbox> client_inbox_{std::in_place};
  Answers answers_;
};

TEST_F(Calls, ServerAndCallableAreInvokedOnlyInDrainsOfTheirInboxes) {
  int requests = 0;
  const auto count = [&](int number) {
    ++requests;
    return Double(number);
  };
  const IntServer server(kService, count, *server_inbox_);
  const IntClient client(kService, *client_inbox_);

  client.Call(1, Append());
  EXPECT_EQ(client_inbox_->Drain(), 0u);
  EXPECT_EQ(requests, 0);

  EXPECT_EQ(server_inbox_->Drain(), 1u);
  EXPECT_EQ(requests, 1);
  EXPECT_EQ(answers_, Answers());

  EXPECT_EQ(client_inbox_->Drain(), 1u);
  EXPECT_EQ(answers_, Answers{2});
}

TEST_F(Calls, FullServerAnswersTheOldestRequestWithNone) {
  const IntServer server(kService, Double, *server_inbox_, KeepLast{2});
  const IntClient client(kService, *client_inbox_);

  for (const int number : {1, 2, 3}) client.Call(number, Append());
  EXPECT_EQ(DrainAnswers(), Answers{std::nullopt});
  EXPECT_EQ(server_inbox_->Drain(), 2u);

  EXPECT_EQ(DrainAnswers(), (Answers{4, 6}));
  const Lines log = TakeLog();
  EXPECT_EQ(Count(log, ": a full queue drops its oldest messages, kind: Server, name: double"), 1u);
  EXPECT_EQ(Count(log, ": a queue has dropped messages, kind: Server, name: double"), 1u);
}

TEST_F(Calls, AnswersOfOneServerArriveInTheOrderOfTheRequests) {
  const auto fail_with_two = [](int number) {
    if (number == 2) throw std::runtime_error("bad luck");
    return Double(number);
  };
  const IntServer server(kService, fail_with_two, *server_inbox_);
  const IntClient one(kService, *client_inbox_);
  const IntClient two(kService, *client_inbox_);

  for (const int number : {1, 2, 3}) (number % 2 == 0 ? one : two).Call(number, Append());
  server_inbox_->Drain();

  EXPECT_EQ(DrainAnswers(), (Answers{2, std::nullopt, 6}));
}

// Each row is a reason for which nobody answers. The client has an inbox.
class Unanswered : public Calls {
 protected:
  struct Row {
    const char* name;
    std::function<void()> before_the_call;
    std::function<void()> after_the_call;
    const char* logged;  // in one line
  };

  template <typename Callable>
  auto Serve(Callable callable) {
    return [=] { server_.emplace(kService, callable, *server_inbox_); };
  }
  template <typename Callable>
  auto ServeDirectly(Callable callable) {
    return [=] { server_.emplace(kService, callable); };
  }
  // A server that does not agree with the client about the types.
  template <typename Request, typename Response>
  auto ServeOthers() {
    return [this] {
      const zorvix::Service<Request, Response> service{kService.name};
      const auto answer = [](const Request&) { return Response(); };
      using Other = zorvix::Server<Request, Response>;
      other_ = std::make_shared<Other>(service, answer, *server_inbox_);
    };
  }

  std::vector<Row> Rows() {
    const auto fail = [](int) -> int { throw std::runtime_error("bad luck"); };
    const auto throw_int = [](int number) -> int { throw number; };
    const auto nothing = [] {};
    const auto serve_char = [this] {
      Endpoint end = std::make_shared<bridge::Control>(
          bridge::Control{kService.name, BridgeModule::Service, BridgeType::Sync});
      ZorvixRegisterServer(end, Server([](auto&, auto& response) { response = 'x'; }));
      other_ = {nullptr, [end](void*) mutable { ZorvixUnregisterServer(end); }};
    };
    const auto drain = [this] { server_inbox_->Drain(); };
    const auto drain_and_catch = [this] { EXPECT_THROW(server_inbox_->Drain(), int); };
    const auto destroy_server = [this] { server_.reset(); };
    const auto destroy_inbox = [this] { server_inbox_.reset(); };
    const auto serve_destroyed_inbox = [=] {
      Serve(Double)();
      server_inbox_.reset();
    };
    return {
        {"no server", nothing, nothing, "Call failed, no server, server_name: double"},
        {"destroyed", Serve(Double), destroy_server, "discarded, kind: Server, name: double"},
        {"inbox destroyed", Serve(Double), destroy_inbox, "discarded, kind: Server, name: double"},
        {"inbox destroyed before", serve_destroyed_inbox, nothing, ""},
        {"throws", Serve(fail), drain, "E(queue.h"},
        {"throws an int", Serve(throw_int), drain_and_catch, ""},
        {"throws directly", ServeDirectly(fail), nothing, "E: callback failed! error: bad luck"},
        {"throws an int directly", ServeDirectly(throw_int), nothing, "no std::exception"},
        {"without a handle, of another response", serve_char, nothing, "the answer is a char"},
        {"of another request", ServeOthers<char, int>(), drain, "the request is an int"},
        {"of another response", ServeOthers<int, char>(), nothing, "the answer is a char"},
    };
  }

  std::optional<IntServer> server_;
  std::shared_ptr<void> other_;
};

TEST_F(Unanswered, CallableIsInvokedOnceWithNone) {
  for (const auto& row : Rows()) {
    SCOPED_TRACE(row.name);
    server_inbox_.emplace();
    const IntClient client(kService, *client_inbox_);
    row.before_the_call();
    TakeLog();

    client.Call(1, Append());
    row.after_the_call();

    EXPECT_EQ(DrainAnswers(), Answers{std::nullopt});
    if (*row.logged != '\0') {
      EXPECT_EQ(Count(TakeLog(), row.logged), 1u);
    }
    server_.reset();
    other_.reset();
    EXPECT_EQ(DrainAnswers(), Answers());
  }
}

// Each row is where a call may be when its client is destroyed.
TEST_F(Calls, DestroyedClientDestroysItsCallablesWhereverTheirCallsAre) {
  const auto nothing = [] {};
  std::future<void> drain;
  const auto begin_to_serve = [&] {
    HoldLog("serving");
    drain = std::async(std::launch::async, [&] { server_inbox_->Drain(); });
    WaitForLog("serving");
  };
  const auto end_to_serve = [&] {
    HoldLog("");
    drain.get();
  };
  struct Row {
    const char* name;
    std::function<void()> after_the_call;
    std::function<void()> after_the_client;
  };
  const Row rows[] = {
      {"pending in the server's inbox", nothing, [&] { server_inbox_->Drain(); }},
      {"in progress", begin_to_serve, end_to_serve},
      {"answered", [&] { server_inbox_->Drain(); }, nothing},
  };
  const auto log = [](int number) {
    Log("serving");
    return number;
  };
  const IntServer server(kService, log, *server_inbox_);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> seen = owned;
    std::optional client(IntClient(kService, *client_inbox_));

    client->Call(1, [owned = std::move(owned)](Answer) { ADD_FAILURE() << "invoked"; });
    row.after_the_call();
    client.reset();

    EXPECT_TRUE(seen.expired());
    row.after_the_client();
    EXPECT_EQ(client_inbox_->Drain(), 0u);
    TakeLog();
  }
}

// The first callable that is destroyed lets the server go on with both calls.
TEST_F(Calls, NoOtherThreadDestroysACallableAfterTheDestructorOfItsClient) {
  std::future<void> drain;
  std::vector<std::thread::id> destroyed_on;
  const auto destroy = [&](std::nullptr_t) {
    destroyed_on.push_back(std::this_thread::get_id());
    auto first = std::move(drain);
    if (!first.valid()) return;
    HoldLog("");
    first.get();
  };
  const auto log = [](int number) {
    Log("serving");
    return number;
  };
  const IntServer server(kService, log, *server_inbox_);
  std::optional client(IntClient(kService, *client_inbox_));
  for (const int number : {1, 2}) {
    client->Call(number, [owned = std::shared_ptr<void>(nullptr, destroy)](Answer) {});
  }
  HoldLog("serving");
  drain = std::async(std::launch::async, [&] { server_inbox_->Drain(); });
  WaitForLog("serving");

  client.reset();

  EXPECT_EQ(destroyed_on, std::vector(2, std::this_thread::get_id()));
}

TEST_F(Calls, CallablesAreDestroyedWithTheInboxOfTheirClientOrWithTheClient) {
  const auto answered = std::make_shared<int>();
  const auto late = std::make_shared<int>();
  const IntServer server(kService, Double, *server_inbox_);
  const IntClient other(kService, *client_inbox_);
  std::optional client(IntClient(kService, *client_inbox_));
  other.Call(1, [answered](Answer) { ADD_FAILURE() << "invoked"; });
  server_inbox_->Drain();
  client->Call(2, [late](Answer) { ADD_FAILURE() << "invoked"; });

  client_inbox_.reset();
  EXPECT_EQ(answered.use_count(), 1);

  server_inbox_->Drain();
  client->Call(3, Append());
  EXPECT_EQ(late.use_count(), 2) << "another thread could destroy it after the client";
  client.reset();
  EXPECT_EQ(late.use_count(), 1);
  EXPECT_EQ(answers_, Answers());
}

TEST_F(Calls, CallableMayDestroyItsClient) {
  const IntServer server(kService, Double);
  std::optional client(IntClient(kService, *client_inbox_));
  auto owned = std::make_shared<int>();
  const std::weak_ptr<int> seen = owned;
  client->Call(1, [&, owned = std::move(owned)](Answer answer) {
    client.reset();
    EXPECT_FALSE(seen.expired()) << "still needed";
    answers_.push_back(answer);
  });
  client->Call(2, Append());

  EXPECT_EQ(DrainAnswers(), Answers{2});
  EXPECT_TRUE(seen.expired());
}

TEST_F(Calls, MovedClientKeepsItsCalls) {
  const IntServer server(kService, Double, *server_inbox_);
  IntClient client(kService, *client_inbox_);
  IntClient other(kService, *client_inbox_);
  client.Call(1, Append());
  other.Call(2, Append());
  client.Call(3, Append());

  other = std::move(client);
  client.Call(4, Append());
  EXPECT_EQ(client.Call(5, kNoLimit), std::nullopt);
  server_inbox_->Drain();

  EXPECT_EQ(DrainAnswers(), (Answers{2, 6})) << "without the calls of what was assigned to";
}

TEST_F(Calls, CallWithACallableNeedsAClientWithAnInbox) {
  const IntServer server(kService, Double);
  const IntClient client(kService);

  EXPECT_THROW(client.Call(1, Append()), std::logic_error);
}

// Calls the service without a handle.
Answer CallPlainly(const Endpoint& client) {
  std::any response;
  Zorvix::GetInstance().Call(client, [&](auto& serve) { serve(4, response); });
  return response.has_value() ? std::any_cast<int>(response) : Answer();
}

TEST_F(Calls, CallThatCouldOnlyWaitForItsOwnThreadReturnsNone) {
  const IntServer server(kService, Double, *server_inbox_);
  const IntClient client(kService);
  const IntClient with_inbox(kService, *client_inbox_);
  auto& plain = Service("double", BridgeType::Sync);
  Zorvix::GetInstance().RegisterClient(plain);
  server_inbox_->Post([&] {
    answers_ = {client.Call(1), client.Call(2, hours(1)), with_inbox.Call(3), CallPlainly(plain)};
    with_inbox.Call(5, Append());
  });

  EXPECT_EQ(server_inbox_->Drain(), 1u);

  EXPECT_EQ(answers_, Answers(4));
  EXPECT_EQ(Count(TakeLog(), "would wait forever, name: double"), 4u);
  server_inbox_->Drain();
  client_inbox_->Drain();
  EXPECT_EQ(answers_.back(), 10) << "what does not wait is answered by the next drain";
}

TEST_F(Calls, CallReturnsNoneAtItsLimitAndIgnoresALateAnswer) {
  const IntServer server(kService, Double, *server_inbox_);
  const IntClient client(kService, *client_inbox_);
  const auto begin = std::chrono::steady_clock::now();

  EXPECT_EQ(client.Call(1, milliseconds(20)), std::nullopt);

  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(20));
  EXPECT_EQ(server_inbox_->Drain(), 1u);
  client.Call(2, Append());
  server_inbox_->Drain();
  EXPECT_EQ(DrainAnswers(), Answers{4});
  EXPECT_EQ(Count(TakeLog(), "E"), 0u);
}

TEST_F(Calls, ServersWithoutInboxesAnswerBeforeCallReturnsAndTheCallableStillWaits) {
  int requests = 0;
  std::optional server(IntServer(kService, [&](int number) {
    ++requests;
    return Double(number);
  }));
  const IntClient client(kService, *client_inbox_);

  client.Call(1, Append());
  server.reset();
  const auto plain = Server([&](auto& request, auto& response) {
    ++requests;
    response = 10 * std::any_cast<int>(request);
  });
  ZorvixRegisterServer(Service("double", BridgeType::Sync), plain);
  client.Call(2, Append());

  EXPECT_EQ(requests, 2);
  EXPECT_EQ(answers_, Answers());
  EXPECT_EQ(DrainAnswers(), (Answers{2, 20}));
}

TEST_F(Calls, ClientsWithoutHandlesBlockUntilAServerWithAnInboxHasAnswered) {
  std::optional server(IntServer(kService, Double, *server_inbox_));
  auto& plain = Service("double", BridgeType::Sync);
  Zorvix::GetInstance().RegisterClient(plain);
  const auto call = [&] { return CallPlainly(plain); };

  auto answered = std::async(std::launch::async, call);
  server_inbox_->Wait(kNoLimit);
  server_inbox_->Drain();
  auto refused = std::async(std::launch::async, call);
  server_inbox_->Wait(kNoLimit);
  server.reset();

  EXPECT_EQ(answered.get(), 8);
  EXPECT_EQ(refused.get(), std::nullopt);
}

// Builds and destroys servers of all kinds until there are no callers.
void ServeInTurns(const std::atomic<int>& callers) {
  const auto pause = [] { std::this_thread::sleep_for(milliseconds(1)); };
  while (callers > 0) {
    Inbox drained;
    Inbox never_drained;
    const InboxThread thread(drained);
    std::optional server(IntServer(kService, Double, drained));
    pause();
    server.emplace(kService, Double, drained, KeepLast{1});
    pause();
    server.emplace(kService, Double, never_drained, KeepLast{2});
    pause();
    server.emplace(kService, Double);
    pause();
    server.reset();
  }
}

// The calls of one thread, and how often each was answered.
struct CallCounts {
  int Begin() {
    answered.push_back(0);
    return static_cast<int>(answered.size()) - 1;
  }
  void End(int number, Answer answer) {
    ++answered[static_cast<std::size_t>(number)];
    if (!answer) return;
    EXPECT_EQ(*answer, Double(number));
    ++with_a_value;
  }
  std::deque<int> answered;
  int with_a_value = 0;
};

TEST_F(Calls, EachCallIsAnsweredExactlyOnceWhileServersComeAndGo) {
  const IntClient client(kService);
  const IntClient with_inbox(kService, *client_inbox_);
  const auto owned = std::make_shared<int>();
  CallCounts blocking;
  CallCounts limited;
  CallCounts pending;
  const auto call_blocking = [&](int number) { blocking.End(number, client.Call(number)); };
  const auto call_limited = [&](int number) {
    limited.End(number, with_inbox.Call(number, milliseconds(number % 3)));
  };
  const auto call_without_waiting = [&](int number) {
    with_inbox.Call(number, [&pending, number](Answer answer) { pending.End(number, answer); });
    // Of a client that is destroyed before the next drain.
    IntClient(kService, *client_inbox_).Call(number, [owned](Answer) { ADD_FAILURE(); });
    client_inbox_->Drain();
  };
  std::atomic<int> callers{3};
  const auto begin = [&](CallCounts& counts, const auto& call) {
    return std::async(std::launch::async, [&] {
      while (counts.with_a_value < 200) call(counts.Begin());
      --callers;
    });
  };

  const std::future<void> threads[] = {begin(blocking, call_blocking), begin(limited, call_limited),
                                       begin(pending, call_without_waiting)};
  ServeInTurns(callers);
  client_inbox_->Drain();

  for (const auto* const counts : {&blocking, &limited, &pending}) {
    EXPECT_EQ(counts->answered, std::deque<int>(counts->answered.size(), 1));
  }
  EXPECT_EQ(owned.use_count(), 1) << "all callables are destroyed";
}

TEST_F(Calls, DrainWithALimitInvokesOneCallableAtLeastAndLeavesTheRestInOrder) {
  std::vector<int> invoked;
  for (const int number : {1, 2, 3, 4}) {
    server_inbox_->Post([&invoked, number] { invoked.push_back(number); });
  }
  pollfd descriptor{server_inbox_->fd(), POLLIN, 0};

  EXPECT_EQ(server_inbox_->Drain(milliseconds(0)), 1u);
  EXPECT_EQ(poll(&descriptor, 1, 0), 1);
  EXPECT_TRUE(server_inbox_->Wait(milliseconds(0)));
  server_inbox_->Post([&] { invoked.push_back(5); });
  EXPECT_EQ(server_inbox_->Drain(milliseconds(0)), 1u);
  EXPECT_EQ(server_inbox_->Drain(hours(1)), 3u);

  EXPECT_EQ(invoked, (std::vector{1, 2, 3, 4, 5}));
  EXPECT_EQ(poll(&descriptor, 1, 0), 0);
}

// Posts tasks that take a millisecond each while `slow` is true, and append their numbers.
void PostTasks(Inbox& inbox, const std::atomic<bool>& slow, std::vector<int>& done) {
  for (int number = 0; number < 5000; ++number) {
    inbox.Post([&slow, &done, number] {
      done.push_back(number);
      if (slow) std::this_thread::sleep_for(milliseconds(1));
    });
  }
}

TEST_F(Calls, StopWithALimitLeavesTheRestInTheInboxInOrder) {
  for (const milliseconds limit : {milliseconds(0), milliseconds(20)}) {
    std::atomic<bool> slow{true};
    std::vector<int> done;
    PostTasks(*server_inbox_, slow, done);
    InboxThread thread(*server_inbox_);

    EXPECT_FALSE(thread.Stop(limit));
    EXPECT_FALSE(thread.Stop(kNoLimit)) << "stopped already";

    slow = false;
    const std::size_t processed = done.size();
    EXPECT_EQ(server_inbox_->Drain(), 5000 - processed);
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
  }
}

TEST_F(Calls, StopProcessesWhatIsPendingWithinItsLimit) {
  for (const milliseconds limit : {milliseconds(hours(1)), kNoLimit}) {
    const std::atomic<bool> slow{false};
    std::vector<int> done;
    PostTasks(*server_inbox_, slow, done);
    InboxThread thread(*server_inbox_);

    EXPECT_TRUE(thread.Stop(limit));
    EXPECT_TRUE(thread.Stop(milliseconds(0))) << "stopped already";

    EXPECT_EQ(done.size(), 5000u);
  }
}

TEST_F(Calls, StopOnItsOwnThreadEndsTheProcess) {
  const auto die = [&] {
    HoldLog("E(inbox.h");
    InboxThread thread(*server_inbox_);
    server_inbox_->Post([&] { thread.Stop(milliseconds(0)); });
    WaitForLog("E(inbox.h");
    HoldLog("");
    server_inbox_->Wait(kNoLimit);
    std::_Exit(0);
  };
  EXPECT_EXIT(die(), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
