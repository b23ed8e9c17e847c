// Calls whose requests or answers are pending: servers and clients with inboxes, or queued.
#include "bridge_test.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using zorvix::Delivery;
using zorvix::Inbox;
using zorvix::KeepLast;
using zorvix::Why;
using Reply = zorvix::Reply<int>;
using Answer = std::optional<int>;
using Answers = std::vector<Answer>;
using IntServer = zorvix::Server<int, int>;
using IntClient = zorvix::Client<int, int>;

const zorvix::Service<int, int> kService{"double"};

int Double(int number) { return 2 * number; }

// Acts when it is moved.
struct Acting {
  Acting() = default;
  Acting(const Acting&) = default;
  Acting(Acting&&) noexcept(false) {
    if (on_move) on_move();
  }
  static inline std::function<void()> on_move;
};
const zorvix::Service<int, Acting> kActing{"acting"};
Acting Act(int) { return {}; }

using ActingServer = zorvix::Server<int, Acting>;

// A service whose requests are pending in one inbox, and its answers in another.
class Calls : public Bridge {
 protected:
  void TearDown() override {
    Acting::on_move = nullptr;
    Bridge::TearDown();
  }

  std::vector<std::function<ActingServer()>> ActingServers() {
    return {[] { return ActingServer(kActing, Act); },
            [] { return ActingServer(kActing, Act, Delivery::Queued); },
            [this] { return ActingServer(kActing, Act, *server_inbox_); }};
  }
  auto Append() {
    return [this](Answer answer) { answers_.push_back(answer); };
  }
  // Returns what calls have been answered with since it was last called, in drains of the client's
  // inbox.
  virtual Answers DrainAnswers() {
    client_inbox_->Drain();
    return std::exchange(answers_, {});
  }

  std::optional<Inbox> server_inbox_{std::in_place};
  std::optional<Inbox> client_inbox_{std::in_place};
  Answers answers_;
};

// Which handle uses the bridge's queue in place of its inbox.
enum class Queued { kNone, kServer, kClient };

class QueuedCalls : public Calls, public testing::WithParamInterface<Queued> {
 protected:
  template <typename Callable>
  IntServer Serve(Callable callable, KeepLast keep = {}) {
    if (GetParam() == Queued::kServer) return {kService, callable, Delivery::Queued, keep};
    return {kService, callable, *server_inbox_, keep};
  }
  IntClient MakeClient() {
    if (GetParam() == Queued::kClient) return IntClient(kService, Delivery::Queued);
    return IntClient(kService, *client_inbox_);
  }
  void DrainServer() {
    server_inbox_->Drain();
    if (GetParam() == Queued::kServer) ZorvixSpinOnce();
  }
  Answers DrainAnswers() override {
    if (GetParam() == Queued::kClient) ZorvixSpinOnce();
    return Calls::DrainAnswers();
  }
};
INSTANTIATE_TEST_SUITE_P(, QueuedCalls,
                         testing::Values(Queued::kNone, Queued::kServer, Queued::kClient));

TEST_P(QueuedCalls, FullServerAnswersTheOldestRequestWithNone) {
  const IntServer server = Serve(Double, KeepLast{2});
  const IntClient client = MakeClient();

  for (const int number : {1, 2, 3}) client.Call(number, Append());
  EXPECT_EQ(answers_, Answers());
  EXPECT_EQ(DrainAnswers(), Answers{std::nullopt});
  DrainServer();

  EXPECT_EQ(DrainAnswers(), (Answers{4, 6}));
}

TEST_F(Calls, AnswersOfOneServerArriveInTheOrderOfTheRequests) {
  const auto fail_with_two = [](int number) {
    if (number == 2) throw std::runtime_error("bad luck");
    return Double(number);
  };
  const IntServer server(kService, fail_with_two, *server_inbox_);
  const IntClient one(kService, *client_inbox_);
  const IntClient two(kService, *client_inbox_);
  Answers expected;

  for (int number = 0; number < 20; ++number) {
    (number % 3 == 0 ? one : two).Call(number, Append());
    expected.push_back(number == 2 ? Answer() : Double(number));
  }
  server_inbox_->Drain();

  EXPECT_EQ(DrainAnswers(), expected);
}

TEST_F(Calls, CallableIsInvokedOnceWithTheReasonIfNobodyAnswers) {
  const zorvix::Service<char, int> other_request{kService.name};
  const zorvix::Service<int, char> other_response{kService.name};
  const auto answer_char = [](int) { return 'x'; };
  const auto fail = [](int) -> int { throw std::runtime_error("bad luck"); };
  const auto fail_with_number = [](int, const Reply&) { throw 1; };
  std::shared_ptr<void> server;
  const auto serve = [&](const auto& service, auto callable, KeepLast keep = {}) {
    return [&, callable, keep] {
      using ItsServer = decltype(zorvix::Server(service, callable, *server_inbox_));
      server = std::make_shared<ItsServer>(service, callable, *server_inbox_, keep);
    };
  };
  const auto nothing = [] {};
  const auto drain = [&] {
    try {
      server_inbox_->Drain();
    } catch (int) {
    }
  };
  const auto destroy_server = [&] { server.reset(); };
  const auto destroy_inbox = [&] { server_inbox_.reset(); };
  const auto call_again = [&] { IntClient(kService, *client_inbox_).Call(2, [](Answer) {}); };
  struct Row {
    Why why;
    std::function<void()> before_the_call;
    std::function<void()> after_the_call;
    const char* logged = nullptr;  // in one line
  };
  const Row rows[] = {
      {Why::NoServer, nothing, nothing, "Call failed, no server, server_name: double"},
      {Why::Destroyed, serve(kService, Double), destroy_server,
       "discarded, kind: Server, name: do"},
      {Why::Destroyed, serve(kService, Double), destroy_inbox, "discarded, kind: Server, name: do"},
      {Why::Destroyed, serve(kService, [](int, const Reply&) {}), drain},
      {Why::Dropped, serve(kService, Double, KeepLast{1}), call_again},
      {Why::Refused, serve(kService, [](int, const Reply& reply) { reply.Refuse(); }), drain},
      {Why::Threw, serve(kService, fail), drain, "callable failed! error: bad luck, name: double"},
      {Why::Threw, serve(kService, [](int) -> int { throw 1; }), drain},
      {Why::Threw, serve(kService, fail_with_number), drain},
      {Why::WrongType, serve(other_request, Double), nothing, "the request is an int"},
      {Why::WrongType, serve(other_response, answer_char), nothing,
       "the answer is a char, the client takes an int"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    server_inbox_.emplace();
    const IntClient client(kService, *client_inbox_);
    row.before_the_call();
    TakeLog();

    std::vector<Why> reasons;
    client.Call(1, [&](const zorvix::Answer<int>& answer) { reasons.push_back(answer.why()); });
    row.after_the_call();

    client_inbox_->Drain();
    EXPECT_EQ(reasons, std::vector{row.why});
    if (row.logged != nullptr) {
      EXPECT_EQ(Count(TakeLog(), row.logged), 1u);
    }
    server.reset();
    client_inbox_->Drain();
    EXPECT_EQ(reasons.size(), 1u);
  }
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
  server_inbox_->Drain();
  EXPECT_EQ(late.use_count(), 2) << "another thread could destroy it after the client";
  client.reset();
  EXPECT_EQ(late.use_count(), 1);
  EXPECT_EQ(answers_, Answers());
}

TEST_P(QueuedCalls, CallableMayDestroyItsClient) {
  const IntServer server = Serve(Double);
  std::optional client(MakeClient());
  auto owned = std::make_shared<int>();
  const std::weak_ptr<int> seen = owned;
  client->Call(1, [&, owned = std::move(owned)](Answer answer) {
    client.reset();
    EXPECT_FALSE(seen.expired()) << "still needed";
    answers_.push_back(answer);
  });
  client->Call(2, Append());
  DrainServer();

  EXPECT_EQ(DrainAnswers(), Answers{2});
  EXPECT_TRUE(seen.expired());
}

// Hangs if it waits for itself, or if a lock is held when the callable is destroyed.
TEST_F(Calls, AnswerThatIsMovedMayDestroyItsClient) {
  for (const auto& serve : ActingServers()) {
    const ActingServer server = serve();
    std::optional client(zorvix::Client(kActing, *client_inbox_));
    Acting::on_move = [&] { client.reset(); };
    const auto post = [&](std::nullptr_t) { client_inbox_->Post([] {}); };

    client->Call(1, [owned = std::shared_ptr<void>(nullptr, post)](const auto&) {
      ADD_FAILURE() << "invoked";
    });
    ZorvixSpinOnce();
    server_inbox_->Drain();

    EXPECT_FALSE(client.has_value());
    EXPECT_EQ(client_inbox_->Drain(), 1u) << "the task that the callable posts at its end";
  }
}

// Lets the moves of answers throw: in each round, one move more succeeds before. Calls
// `call(moves_left)`, which expects an answer unless `moves_left` is negative then.
template <typename Call>
void FailEachMove(const Call& call) {
  const std::function<void()> failures[] = {[] { throw std::runtime_error("bad luck"); },
                                            [] { throw 1; }};
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    int moves_left = round / 2;
    Acting::on_move = [&] {
      if (moves_left-- == 0) failures[round % 2]();
    };
    call(moves_left);
  }
}

TEST_F(Calls, CallableIsInvokedWithNoneIfTheAnswerCannotBeMoved) {
  const zorvix::Client client(kActing, *client_inbox_);
  for (const auto& serve : ActingServers()) {
    const ActingServer server = serve();
    FailEachMove([&](const int& moves_left) {
      std::vector<bool> has_value;
      client.Call(1,
                  [&](std::optional<Acting> answer) { has_value.push_back(answer.has_value()); });
      try {
        ZorvixSpinOnce();
        server_inbox_->Drain();
      } catch (int) {
      }
      client_inbox_->Drain();

      EXPECT_EQ(has_value, std::vector{moves_left >= 0});
    });
  }
}

TEST_F(Calls, FutureHasNoneIfTheAnswerCannotBeMoved) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer hangs in std::promise::set_value if that throws";
#endif
  const zorvix::Service<int, Acting, BridgeType::Async> service{"acting"};
  const zorvix::Server server(service, Act);
  const zorvix::Client client(service);
  FailEachMove([&](const int& moves_left) {
    auto answer = client.Call(1);
    ZorvixSpinOnce();
    Acting::on_move = nullptr;

    const bool is_moved = moves_left >= 0;
    EXPECT_EQ(answer.get().why(), is_moved ? Why::Answered : Why::Threw);
  });
}

TEST_F(Calls, CallWithACallableNeedsAClientWithAnInbox) {
  const IntClient client(kService);

  EXPECT_THROW(client.Call(1, Append()), std::logic_error);
}

// Calls the service without a handle.
Answer CallPlainly(const Endpoint& client) {
  std::any response;
  Zorvix::GetInstance().Call(client, [&](auto& serve) { serve(4, response); });
  return response.has_value() ? std::any_cast<int>(response) : Answer();
}

TEST_P(QueuedCalls, CallThatCouldOnlyWaitForItsOwnThreadReturnsNone) {
  const IntClient blocking(kService);
  const IntClient client = MakeClient();
  auto& plain = Service("double", BridgeType::Sync);
  Zorvix::GetInstance().RegisterClient(plain);
  Answers refused;
  const IntServer server = Serve([&](int number) {
    if (number != 0) return Double(number);
    refused = {blocking.Call(1), blocking.Call(2, hours(1)), client.Call(3), CallPlainly(plain)};
    client.Call(5, Append());
    return 0;
  });

  client.Call(0, Append());
  DrainServer();

  EXPECT_EQ(refused, Answers(4));
  EXPECT_EQ(Count(TakeLog(), "could only answer after that callable returns, name: double"), 4u);
  DrainServer();
  EXPECT_EQ(DrainAnswers(), (Answers{0, 10})) << "a call that does not wait is answered";
}

TEST_F(Calls, ServersWithoutInboxesAnswerBeforeCallReturnsAndTheCallableStillWaits) {
  int requests = 0;
  const IntServer server(kService, [&](int number) {
    ++requests;
    return Double(number);
  });
  const IntClient client(kService, *client_inbox_);

  client.Call(1, Append());
  EXPECT_EQ(requests, 1);
  const auto plain = Server([&](auto&, auto& response) { response = 20; });
  ZorvixRegisterServer(Service("double", BridgeType::Sync), plain);
  client.Call(2, Append());

  EXPECT_EQ(answers_, Answers());
  EXPECT_EQ(DrainAnswers(), (Answers{2, 20}));
}

}  // namespace
