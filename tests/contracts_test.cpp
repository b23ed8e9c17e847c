// What each operation does and logs, on one thread.
#include "bridge_test.h"

namespace {

std::string Pointer(const void* address) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", address);
  return text;
}

// The two lines of a callback that failed.
std::string BadCast(const std::string& real_name, const void* handle) {
  return std::string("E: error: ") + std::bad_any_cast().what() +
         ", _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION: 2, real_name: " + real_name +
         ", callback_handle: " + Pointer(handle) +
         ". make sure that the compiler macro _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION=2";
}
std::string Failed(const std::string& what, const std::string& real_name, const void* handle) {
  return "E: callback failed! error: " + what + ", real_name: " + real_name +
         ", callback_handle: " + Pointer(handle);
}

// A request that calls the server with a number and forgets the response.
void Request(const ServerFunction& serve) {
  std::any response;
  serve(1, response);
}

TEST_F(Bridge, RealNameJoinsNameModuleAndTypeAndIsCutInTheLogOnly) {
  const std::string modules[] = {"Unknown", "Topic", "Service", "Unknown"};
  const std::string types[] = {"Unknown", "Sync", "Async", "SignleAsync", "Unknown"};
  const auto cut = [](const std::string& line) { return line.substr(0, 3 + 1023); };
  for (int module = -1; module <= 2; ++module) {
    for (int type = -1; type <= 3; ++type) {
      const auto suffix = "/" + modules[module + 1] + "/" + types[type + 1];
      // The longest that is composed in place and the shortest that is not among them.
      for (const auto& name : {std::string("camera"), std::string(), std::string("a/b%d%s"),
                               std::string(127 - suffix.size(), 'x'),
                               std::string(128 - suffix.size(), 'x'), std::string(2000, 'x')}) {
        SCOPED_TRACE(name + suffix);
        Endpoint endpoint = Make({name, BridgeModule{module}, BridgeType{type}});
        Lines log;
        for (const auto* line : {"W: Call failed, no server, server_name: ",
                                 "E: UnregisterPublisher failed, real_topic_name: "}) {
          if (module < 0 || module > 1) log.push_back("E(zorvix.h): Unknown BridgeModule!");
          if (type < 0 || type > 2) log.push_back("E(zorvix.h): Unknown BridgeType!");
          log.push_back(cut(line + name + suffix));
        }
        EXPECT_FALSE(ZorvixCall(endpoint, nullptr));
        ZorvixUnregisterPublisher(endpoint);
        EXPECT_EQ(TakeLog(), log);
      }
    }
  }
}

TEST_F(Bridge, LogLinesOfUsersCarryTheirPosition) {
  int evaluated = 0;
  BRIDGE_LOG(bridge::kLogWarn, "%d%%", ++evaluated);
  EXPECT_EQ(TakeLog(), Lines{"W(contracts_test.cpp:" + std::to_string(__LINE__ - 1) + "): 1%"});
  EXPECT_EQ(evaluated, 1);
}

TEST_F(Bridge, InputThatIsMissingOrUnknownIsLoggedAndChangesNothing) {
  Endpoint none;
  ZorvixRegisterPublisher(none);
  ZorvixUnregisterPublisher(none);
  ZorvixRegisterSubscriber(none, Subscriber([](auto&) {}));
  ZorvixUnregisterSubscriber(none, 0);
  ZorvixRegisterClient(none);
  ZorvixUnregisterClient(none);
  ZorvixRegisterServer(none, Server([](auto&, auto&) {}));
  ZorvixUnregisterServer(none);
  EXPECT_FALSE(ZorvixPublish(none, 1));
  EXPECT_FALSE(ZorvixCall(none, nullptr));
  Zorvix::GetInstance().SignleAsyncAutoRemove(none, nullptr);

  Endpoint topics[] = {Topic("t", BridgeType::Sync), Topic("t", BridgeType::Sync)};
  Endpoint services[] = {Service("s", BridgeType::Sync), Service("s", BridgeType::Sync)};
  std::any message = 1;
  bridge::RequestCallback request = Request;
  EXPECT_FALSE(ZorvixPublish(topics[0], std::any()));
  EXPECT_FALSE(ZorvixPublish(topics[0], std::move(message)));
  EXPECT_FALSE(ZorvixCall(services[0], std::move(request)));
  EXPECT_TRUE(message.has_value() && request);
  ZorvixRegisterSubscriber(topics[0], nullptr);  // must not enter the name either
  ZorvixRegisterServer(services[0], nullptr);
  ZorvixUnregisterSubscriber(topics[0], 0);
  ZorvixUnregisterPublisher(topics[1]);
  ZorvixUnregisterServer(services[0]);
  ZorvixUnregisterClient(services[1]);
  for (const auto* ends : {topics, services}) EXPECT_TRUE(!ends[0] && !ends[1]);
  EXPECT_EQ(TakeLog(), (Lines{"E: RegisterPublisher failed, control is nullptr!",
                              "W: UnregisterPublisher failed, control is nullptr!",
                              "E: RegisterSubscriber failed, control is nullptr!",
                              "E: UnregisterSubscriber failed, control is nullptr!",
                              "E: RegisterClient failed, control is nullptr!",
                              "W: UnregisterClient failed, control is nullptr!",
                              "E: RegisterServer failed, control is nullptr!",
                              "E: UnregisterServer failed, control is nullptr!",
                              "E: Publish failed, control is nullptr!",
                              "E: Call failed, control is nullptr!",
                              "E: control is nullptr!",
                              "E: Publish failed, message is empty!",
                              "W: Publish failed, no subscriber, name: t",
                              "W: Call failed, no server, server_name: s/Service/Sync",
                              "E: RegisterSubscriber failed, callback is nullptr!",
                              "E: RegisterServer failed, callback is nullptr!",
                              "E: UnregisterSubscriber failed, real_topic_name: t/Topic/Sync",
                              "E: UnregisterPublisher failed, real_topic_name: t/Topic/Sync",
                              "E: UnregisterSubscriber failed, real_name: s/Service/Sync",
                              "E: UnregisterClient failed, real_name: s/Service/Sync"}));
}

// Publishers and clients differ in their words only.
TEST_F(Bridge, LastParticipantOutRemovesTheName) {
  const struct {
    decltype(&ZorvixRegisterPublisher) join, leave;
    BridgeModule module;
    std::string removed;
  } kinds[] = {
      {ZorvixRegisterPublisher, ZorvixUnregisterPublisher, BridgeModule::Topic,
       "I: control has been unregistered, real_topic_name: r/Topic/Async"},
      {ZorvixRegisterClient, ZorvixUnregisterClient, BridgeModule::Service,
       "I: control has been unregistered, real_name: r/Service/Async"},
  };
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.removed);
    const auto join = [&] {
      Endpoint endpoint =
          std::make_shared<bridge::Control>(bridge::Control{"r", kind.module, BridgeType::Async});
      kind.join(endpoint);
      return endpoint;
    };
    Endpoint first = join(), second = join(), copy = first;
    EXPECT_EQ(second, first);
    kind.join(first);
    EXPECT_EQ(first, second);
    kind.leave(first);
    kind.leave(second);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(TakeLog(), Lines{}) << "a copy still owns the name";
    kind.leave(copy);
    EXPECT_EQ(TakeLog(), Lines{kind.removed});

    first = join();
    first.reset();
    first = join();
    EXPECT_EQ(TakeLog(), Lines{"W: register control is expired!"});
    EXPECT_EQ(join(), first) << "the name now stands for the new object";
    Endpoint stranger = std::make_shared<bridge::Control>(*first);
    first.reset();
    kind.leave(stranger);
    EXPECT_EQ(stranger, nullptr);
    EXPECT_EQ(TakeLog(), Lines{kind.removed});
  }
}

TEST_F(Bridge, SyncTopicDeliversTheOneMessageInOrder) {
  auto& publisher = Topic("t", BridgeType::Sync);
  auto& subscriber = Topic("t", BridgeType::Sync);
  std::any message = std::string("hello");
  std::string order;
  const auto append = [&](char letter) {
    return Subscriber([&order, &message, letter](const std::any& received) {
      EXPECT_EQ(&received, &message);
      order += letter;
      if (letter == 'b') throw std::runtime_error("bad luck");
    });
  };
  const auto a = append('a'), b = append('b'), c = append('c');
  const auto failed = Failed("bad luck", "t/Topic/Sync", b.get());
  Endpoint keep_a = subscriber, keep_b = subscriber;
  ZorvixRegisterSubscriber(keep_a, a);
  ZorvixRegisterSubscriber(keep_b, b);
  ZorvixRegisterSubscriber(keep_a, a);
  ZorvixRegisterSubscriber(subscriber, c);
  ZorvixRegisterPublisher(publisher);
  EXPECT_EQ(publisher, subscriber);
  EXPECT_TRUE(ZorvixPublish(publisher, std::move(message)));
  EXPECT_EQ(order, "abac");
  EXPECT_TRUE(message.has_value());

  ZorvixUnregisterSubscriber(keep_b, 12345);
  EXPECT_EQ(keep_b, nullptr);
  ZorvixUnregisterSubscriber(keep_a, Handle(a));
  EXPECT_TRUE(ZorvixPublish(publisher, std::move(message)));
  EXPECT_EQ(order, "abacbc");
  EXPECT_EQ(TakeLog(), Lines(2, failed));

  Endpoint again = publisher, once_more = publisher, last = publisher;
  ZorvixUnregisterSubscriber(again, Handle(b));
  ZorvixUnregisterSubscriber(subscriber, Handle(c));
  EXPECT_FALSE(ZorvixPublish(publisher, std::move(message)));
  ZorvixUnregisterSubscriber(once_more, Handle(c));
  ZorvixRegisterSubscriber(last, a);
  publisher.reset();
  ZorvixUnregisterSubscriber(last, 0);
  EXPECT_EQ(a.use_count(), 1) << "the callbacks of a name that ends go with it";
  EXPECT_EQ(TakeLog(), (Lines{"I: callback_list has been clear, real_topic_name: t/Topic/Sync",
                              "W: Publish failed, no subscriber, name: t",
                              "I: callback not find, maybe has been unregistered, real_topic_name: "
                              "t/Topic/Sync",
                              "I: control has been unregistered, real_topic_name: t/Topic/Sync"}));
}

// Counts its copies.
struct Payload {
  Payload() = default;
  Payload(const Payload& other) : copies(other.copies) { ++*copies; }
  Payload(Payload&&) noexcept = default;
  std::shared_ptr<int> copies = std::make_shared<int>(0);
};

TEST_F(Bridge, QueuedTopicMovesNameAndMessageIntoTheFirstTask) {
  for (const auto type : {BridgeType::Async, BridgeType::SignleAsync}) {
    // Short enough and too long to be stored inside a string.
    for (const std::string name : {"t", "a topic with a name of more than 22 characters"}) {
      auto& endpoint = Topic(name, type);
      int delivered = 0, empty = 0;
      const auto count = Subscriber([&](const std::any& message) {
        ++(message.has_value() ? delivered : empty);
        throw std::runtime_error("bad luck");
      });
      const auto cast = Subscriber([](auto& message) { (void)std::any_cast<Payload>(message); });
      for (const auto& callback : {count, cast, count})
        ZorvixRegisterSubscriber(endpoint, callback);
      Payload payload;
      const auto copies = payload.copies;
      std::any message = std::move(payload);
      EXPECT_TRUE(ZorvixPublish(endpoint, std::move(message)));
      EXPECT_FALSE(message.has_value());
      EXPECT_EQ(delivered, 0);
      ZorvixSpinOnce();
      EXPECT_EQ(delivered, 1);
      EXPECT_EQ(empty, 1);
      EXPECT_EQ(*copies, 0);
      EXPECT_EQ(copies.use_count(), 1) << "the message goes with its task";
      const bool one_shot = type == BridgeType::SignleAsync;
      EXPECT_EQ(ZorvixPublish(endpoint, 1), !one_shot);
      ZorvixSpinOnce();
      auto log = TakeLog();
      log.resize(7);
      EXPECT_EQ(log, (Lines{"I: event queue size: 2",
                            Failed("bad luck", Zorvix::GetRealName(endpoint), count.get()),
                            "I: event queue size: 1", BadCast("", cast.get()),
                            "I: event queue size: 0", Failed("bad luck", "", count.get()),
                            one_shot ? "W: Publish failed, no subscriber, name: " + name
                                     : "I: event queue size: 2"}));
    }
  }
}

TEST_F(Bridge, OneShotEndpointsLoseTheirReceivers) {
  auto& bridge = Zorvix::GetInstance();
  auto& topic = Topic("t", BridgeType::SignleAsync);
  auto& sync = Topic("t", BridgeType::Sync);
  auto& service = Service("s", BridgeType::SignleAsync);
  auto& neither = Make({"n", BridgeModule{7}, BridgeType::SignleAsync});
  int runs = 0;
  const auto one = Subscriber([&](auto&) { runs += 1; });
  const auto ten = Subscriber([&](auto&) { runs += 10; });
  const auto nothing = Server([](auto&, auto&) {});
  const std::string gone = "W: Call failed, no server, server_name: s/Service/SignleAsync";
  const std::string invalid = "E: bridge_module is invalid!";
  for (const auto& callback : {one, ten, one}) ZorvixRegisterSubscriber(topic, callback);
  ZorvixRegisterSubscriber(sync, one);
  bridge.SignleAsyncAutoRemove(sync, one);  // of another type: stays
  EXPECT_TRUE(ZorvixPublish(sync, 1));
  ZorvixRegisterServer(service, nothing);
  bridge.SignleAsyncAutoRemove(service, nullptr);
  EXPECT_FALSE(ZorvixCall(service, nullptr));
  ZorvixRegisterSubscriber(service, one);
  ZorvixRegisterServer(service, nothing);
  EXPECT_TRUE(ZorvixPublish(service, 1));  // costs the service its server
  EXPECT_FALSE(ZorvixCall(service, nullptr));
  EXPECT_EQ(TakeLog(), Lines(2, gone));
  ZorvixRegisterServer(topic, Server([&](auto&, auto&) { runs += 100; }));
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(ZorvixCall(topic, Request));  // a topic's server stays
  bridge.SignleAsyncAutoRemove(topic, nullptr);
  EXPECT_EQ(TakeLog(), Lines(3, invalid));
  bridge.SignleAsyncAutoRemove(topic, one);
  EXPECT_TRUE(ZorvixPublish(topic, 1));
  bridge.SignleAsyncAutoRemove(topic, one);
  for (int i = 0; i < 2; ++i) ZorvixRegisterSubscriber(neither, one);
  TakeLog();
  EXPECT_TRUE(ZorvixPublish(neither, 1));
  EXPECT_EQ(TakeLog(), (Lines{"E(zorvix.h): Unknown BridgeModule!", invalid, invalid}));
  ZorvixSpinOnce();
  EXPECT_EQ(runs, 1 + 1 + 200 + 10 + 2);
}

TEST_F(Bridge, WhatIsNoStandardExceptionPassesThroughAndLeavesNoLock) {
  int after = 0;
  const auto throws = Subscriber([](auto&) { throw 1; });
  for (const auto type : {BridgeType::Sync, BridgeType::Async}) {
    auto& topic = Topic("t", type);
    auto& service = Service("s", type);
    ZorvixRegisterSubscriber(topic, throws);
    ZorvixRegisterSubscriber(topic, Subscriber([&](auto&) { ++after; }));
    ZorvixRegisterServer(service, Server([](auto&, auto&) { throw 1; }));
    const auto publish_and_drain = [&] { return ZorvixPublish(topic, 1) && ZorvixRunOneceStep(); };
    EXPECT_THROW(publish_and_drain(), int);
    EXPECT_EQ(after, 0) << "not run, or still queued";
    ZorvixSpinOnce();
    EXPECT_EQ(std::exchange(after, 0), type == BridgeType::Async);
    const auto call_and_drain = [&] {
      return ZorvixCall(service, Request) && ZorvixRunOneceStep();
    };
    EXPECT_THROW(call_and_drain(), int);
  }
  EXPECT_FALSE(ZorvixRunOneceStep());
  EXPECT_EQ(throws.use_count(), 3) << "held by the two topics only";
}

TEST_F(Bridge, CallReachesTheServerItFound) {
  for (const auto type : {BridgeType::Sync, BridgeType::Async, BridgeType::SignleAsync}) {
    auto& server = Service("s", type);
    auto& client = Service("s", type);
    const auto name = Zorvix::GetRealName(client);
    SCOPED_TRACE(name);
    const bool queued = type != BridgeType::Sync, one_shot = type == BridgeType::SignleAsync;
    std::any answer;
    const ServerFunction* reached = nullptr;
    const auto request = [&](const ServerFunction& function) {
      reached = &function;
      function(20, answer);
    };
    EXPECT_FALSE(ZorvixCall(client, request));
    ZorvixRegisterClient(client);
    const auto doubles =
        Server([](auto& number, auto& response) { response = 2 * std::any_cast<int>(number); });
    const auto casts = Server([](auto& number, auto&) { (void)std::any_cast<char>(number); });
    ZorvixRegisterServer(server, casts);
    ZorvixRegisterServer(server, doubles);
    EXPECT_EQ(server, client);
    EXPECT_EQ(casts.use_count(), 1);
    EXPECT_EQ(TakeLog(), (Lines{"W: Call failed, no server, server_name: " + name,
                                "W: callback is motified, real_name: " + name}));
    EXPECT_TRUE(ZorvixCall(client, request));
    EXPECT_EQ(answer.has_value(), !queued);
    EXPECT_EQ(ZorvixCall(client, request), !one_shot);
    ZorvixUnregisterServer(server);
    EXPECT_EQ(server, nullptr);
    ZorvixSpinOnce();
    EXPECT_EQ(std::any_cast<int>(answer), 40);
    EXPECT_EQ(reached, doubles.get());
    EXPECT_EQ(doubles.use_count(), 1);

    for (const bool empty : {false, true}) {
      server = client;
      ZorvixRegisterServer(server, casts);
      EXPECT_TRUE(ZorvixCall(client, empty ? nullptr : bridge::RequestCallback(request)));
      ZorvixSpinOnce();
      EXPECT_EQ(TakeLog().back(), empty ? Failed(std::bad_function_call().what(), name, casts.get())
                                        : BadCast(name, casts.get()));
    }

    ZorvixUnregisterServer(server);
    Endpoint copy = client;
    Zorvix::GetInstance().UnregisterServer(copy, 42);
    ZorvixUnregisterServer(client);
    EXPECT_EQ(TakeLog(),
              (Lines{std::string("I: callback ") + (one_shot ? "not find, maybe " : "") +
                         "has been unregistered, real_name: " + name,
                     "I: callback not find, maybe has been unregistered, real_name: " + name,
                     "I: control has been unregistered, real_name: " + name}));
  }
}

TEST_F(Bridge, InvalidTypeIsRefusedAndTakesNothing) {
  for (const auto module : {BridgeModule::Topic, BridgeModule::Service}) {
    auto& endpoint = Make({"x", module, BridgeType{3}});
    ZorvixRegisterSubscriber(endpoint, Subscriber([](auto&) { FAIL(); }));
    ZorvixRegisterServer(endpoint, Server([](auto&, auto&) { FAIL(); }));
    TakeLog();
    std::any message = 1;
    bridge::RequestCallback request = Request;
    EXPECT_FALSE(ZorvixPublish(endpoint, std::move(message)));
    EXPECT_FALSE(ZorvixCall(endpoint, std::move(request)));
    EXPECT_FALSE(ZorvixRunOneceStep());
    EXPECT_TRUE(message.has_value());
    EXPECT_TRUE(request);
    const std::string unknown = "E(zorvix.h): Unknown BridgeType!";
    const std::string invalid = "E: Call failed, bridge_type is invalid!";
    EXPECT_EQ(TakeLog(), (Lines{unknown, invalid, unknown, invalid}));
  }
}

TEST_F(Bridge, FullQueueLosesItsOldestTask) {
  auto& endpoint = Topic("t", BridgeType::Async);
  std::vector<int> received;
  ZorvixRegisterSubscriber(endpoint, Subscriber([&](auto& message) {
                             received.push_back(std::any_cast<int>(message));
                           }));
  EXPECT_FALSE(ZorvixRunOneceStep());
  std::vector<int> expected;
  for (int i = 1; i <= 102; ++i) {
    EXPECT_TRUE(ZorvixPublish(endpoint, i));
    if (i > 2) expected.push_back(i);
  }
  EXPECT_EQ(TakeLog(), (Lines(2, "W: event queue overflow, size: 100")));
  EXPECT_TRUE(ZorvixRunOneceStep());
  EXPECT_EQ(TakeLog(), Lines{"I: event queue size: 99"});
  ZorvixSpinOnce();
  EXPECT_EQ(received, expected);
}

// The innermost of several nested runs adds and removes subscribers of the publication under way.
TEST_F(Bridge, CallbacksMayCallEveryOperation) {
  auto& sync = Topic("outer", BridgeType::Sync);
  auto& async = Topic("outer", BridgeType::Async);
  auto& service = Service("outer", BridgeType::Sync);
  int depth = 0, late = 0, removed = 0;
  const auto added = Subscriber([&](auto&) { ++late; });
  const auto leaving = Subscriber([&](auto&) { ++removed; });
  const auto use_everything = [&] {
    if (++depth > 4) return;
    Endpoint topic = Topic("inner", BridgeType::Async), subscriber = sync, gone = sync;
    Endpoint client = Service("inner", BridgeType::Sync), server = client;
    ZorvixRegisterPublisher(topic);
    ZorvixRegisterClient(client);
    ZorvixRegisterServer(server, Server([](auto&, auto&) {}));
    ZorvixRegisterSubscriber(subscriber, added);
    ZorvixUnregisterSubscriber(gone, Handle(leaving));
    EXPECT_TRUE(ZorvixCall(client, Request));
    EXPECT_FALSE(ZorvixPublish(topic, 1));
    ZorvixSpinOnce();
    ZorvixSpin(0);
    ZorvixStopSpin();
    ZorvixUnregisterServer(server);
    ZorvixUnregisterPublisher(topic);
    ZorvixUnregisterClient(client);
  };
  const auto runs = Subscriber([&](auto&) { use_everything(); });
  for (const auto& callback : {runs, leaving}) ZorvixRegisterSubscriber(sync, callback);
  ZorvixRegisterSubscriber(async, runs);
  ZorvixRegisterServer(service, Server([&](auto&, auto&) { use_everything(); }));
  EXPECT_TRUE(ZorvixPublish(sync, 1));
  EXPECT_EQ(late, 0);
  EXPECT_EQ(removed, 1) << "a publication keeps the subscribers that it found";
  EXPECT_TRUE(ZorvixPublish(async, 1));
  EXPECT_TRUE(ZorvixCall(service, [&](auto& serve) {
    use_everything();
    Request(serve);
  }));
  ZorvixSpinOnce();
  EXPECT_EQ(depth, 4);
  ZorvixPublish(sync, 1);
  EXPECT_EQ(late, 4);
  EXPECT_EQ(removed, 1);
}

}  // namespace
