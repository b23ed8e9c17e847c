// What each operation does and logs, on one thread.
#include "bridge_test.h"

INSTANTIATE_TEST_SUITE_P(Api, Bridge, testing::Values(kMethods, kFlat),
                         [](const auto& api) { return std::string(api.param.name); });

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
bridge::RequestCallback CallWith(int number) {
  return [=](auto& server) {
    std::any response;
    server(number, response);
  };
}

template <typename Type>
Type Enumerator(int value) {
  return static_cast<Type>(value);
}

TEST(RealName, JoinsNameModuleAndType) {
  const struct {
    int value;
    std::string text;
  } modules[] = {{0, "Topic"}, {1, "Service"}, {2, "Unknown"}, {-1, "Unknown"}},
    types[] = {{0, "Sync"}, {1, "Async"}, {2, "SignleAsync"}, {3, "Unknown"}, {-1, "Unknown"}};
  for (const auto& module : modules) {
    for (const auto& type : types) {
      for (const std::string name : {"camera", "", "a/b"}) {
        const auto expected = name + "/" + module.text + "/" + type.text;
        SCOPED_TRACE(expected);
        EXPECT_EQ(
            Zorvix::GetRealName(std::make_shared<bridge::Control>(bridge::Control{
                name, Enumerator<BridgeModule>(module.value), Enumerator<BridgeType>(type.value)})),
            expected);
        Lines log;
        if (module.text == "Unknown") log.push_back("E(zorvix.h): Unknown BridgeModule!");
        if (type.text == "Unknown") log.push_back("E(zorvix.h): Unknown BridgeType!");
        EXPECT_EQ(TakeLog(), log);
      }
    }
  }
}

TEST(Log, CarriesThePositionAndEvaluatesArgumentsOnce) {
  int evaluated = 0;
  BRIDGE_LOG(bridge::kLogWarn, "%d%%", ++evaluated);
  EXPECT_EQ(LastPosition(), std::string(__FILE__) + ":" + std::to_string(__LINE__ - 1));
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(TakeLog(), Lines{"W(contracts_test.cpp): 1%"});
}

TEST_P(Bridge, LogCutsLongMessagesAndPrintsPercentAsItIs) {
  api.unregister_publisher(Topic(std::string(2000, 'x') + "%d", BridgeType::Sync));
  const std::string text = "UnregisterPublisher failed, real_topic_name: ";
  EXPECT_EQ(TakeLog(), Lines{"E: " + text + std::string(1023 - text.size(), 'x')});
  api.unregister_publisher(Topic("%d%s", BridgeType::Sync));
  EXPECT_EQ(TakeLog(), Lines{"E: " + text + "%d%s/Topic/Sync"});
}

TEST_P(Bridge, MissingInputIsLogged) {
  Endpoint none;
  api.register_publisher(none);
  api.unregister_publisher(none);
  api.register_subscriber(none, Subscriber([](auto&) {}));
  api.unregister_subscriber(none, 0);
  api.register_client(none);
  api.unregister_client(none);
  api.register_server(none, Server([](auto&, auto&) {}));
  api.unregister_server(none);
  EXPECT_FALSE(api.publish(none, 1));
  EXPECT_FALSE(api.publish(Topic("t", BridgeType::Sync), std::any()));
  EXPECT_FALSE(api.call(none, nullptr));
  TheBridge().SignleAsyncAutoRemove(none, nullptr);
  EXPECT_EQ(TakeLog(),
            (Lines{"E: RegisterPublisher failed, control is nullptr!",
                   "W: UnregisterPublisher failed, control is nullptr!",
                   "E: RegisterSubscriber failed, control is nullptr!",
                   "E: UnregisterSubscriber failed, control is nullptr!",
                   "E: RegisterClient failed, control is nullptr!",
                   "W: UnregisterClient failed, control is nullptr!",
                   "E: RegisterServer failed, control is nullptr!",
                   "E: UnregisterServer failed, control is nullptr!",
                   "E: Publish failed, control is nullptr!", "E: Publish failed, message is empty!",
                   "E: Call failed, control is nullptr!", "E: control is nullptr!"}));
}

TEST_P(Bridge, UnknownEndpointsAreLoggedAndEmptied) {
  Endpoint topics[] = {Topic("t", BridgeType::Sync), Topic("t", BridgeType::Sync)};
  Endpoint services[] = {Service("s", BridgeType::Sync), Service("s", BridgeType::Sync)};
  std::any message = 1;
  EXPECT_FALSE(api.publish(topics[0], std::move(message)));
  EXPECT_TRUE(message.has_value());
  bridge::RequestCallback request = [](auto&) {};
  EXPECT_FALSE(api.call(services[0], std::move(request)));
  EXPECT_TRUE(request);
  api.register_subscriber(topics[0], nullptr);  // must not enter the name either
  api.register_server(services[0], nullptr);
  api.unregister_subscriber(topics[0], 0);
  api.unregister_publisher(topics[1]);
  api.unregister_server(services[0]);
  api.unregister_client(services[1]);
  for (const auto* pair : {topics, services}) {
    EXPECT_EQ(pair[0], nullptr);
    EXPECT_EQ(pair[1], nullptr);
  }
  EXPECT_EQ(TakeLog(), (Lines{"W: Publish failed, no subscriber, name: t",
                              "W: Call failed, no server, server_name: s/Service/Sync",
                              "E: RegisterSubscriber failed, callback is nullptr!",
                              "E: RegisterServer failed, callback is nullptr!",
                              "E: UnregisterSubscriber failed, real_topic_name: t/Topic/Sync",
                              "E: UnregisterPublisher failed, real_topic_name: t/Topic/Sync",
                              "E: UnregisterSubscriber failed, real_name: s/Service/Sync",
                              "E: UnregisterClient failed, real_name: s/Service/Sync"}));
}

// Publishers and clients differ in their words only.
TEST_P(Bridge, LastParticipantOutRemovesTheName) {
  const struct {
    decltype(api.register_publisher) join, leave;
    BridgeModule module;
    std::string removed;
  } kinds[] = {
      {api.register_publisher, api.unregister_publisher, BridgeModule::Topic,
       "I: control has been unregistered, real_topic_name: r/Topic/Async"},
      {api.register_client, api.unregister_client, BridgeModule::Service,
       "I: control has been unregistered, real_name: r/Service/Async"},
  };
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.removed);
    const auto make = [&]() -> Endpoint {
      return std::make_shared<bridge::Control>(
          bridge::Control{"r", kind.module, BridgeType::Async});
    };
    Endpoint first = make(), second = make();
    std::weak_ptr<const bridge::Control> replaced = second;
    kind.join(first);
    const auto* const registered = first.get();
    kind.join(first);
    kind.join(second);
    EXPECT_EQ(first.get(), registered);
    EXPECT_EQ(second, first);
    EXPECT_TRUE(replaced.expired());
    Endpoint copy = first;
    kind.leave(first);
    kind.leave(second);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(TakeLog(), Lines{}) << "a copy still owns the name";
    kind.leave(copy);
    EXPECT_EQ(TakeLog(), Lines{kind.removed});

    first = make();
    kind.join(first);
    first = make();
    kind.join(first);
    EXPECT_EQ(TakeLog(), Lines{"W: register control is expired!"});
    second = make();
    kind.join(second);
    EXPECT_EQ(second, first) << "the name now stands for the new object";
    first.reset();
    second.reset();
    Endpoint stranger = make();
    kind.leave(stranger);
    EXPECT_EQ(stranger, nullptr);
    EXPECT_EQ(TakeLog(), Lines{kind.removed});
  }
}

TEST_P(Bridge, SyncTopicDeliversTheOneMessageInOrder) {
  auto& publisher = Topic("t", BridgeType::Sync);
  auto& subscriber = Topic("t", BridgeType::Sync);
  std::any message = std::string("hello");
  std::string order;
  const auto append = [&](char letter) {
    return Subscriber([&order, &message, letter](const std::any& received) {
      EXPECT_EQ(&received, &message);
      order += letter;
    });
  };
  const auto a = append('a'), b = append('b'), c = append('c');
  Endpoint keep_a = subscriber, keep_b = subscriber;
  api.register_subscriber(keep_a, a);
  api.register_subscriber(keep_b, b);
  api.register_subscriber(keep_a, a);
  api.register_subscriber(subscriber, c);
  api.register_publisher(publisher);
  EXPECT_EQ(publisher, subscriber);
  EXPECT_TRUE(api.publish(publisher, std::move(message)));
  EXPECT_EQ(order, "abac");
  EXPECT_TRUE(message.has_value());

  api.unregister_subscriber(keep_b, 12345);
  EXPECT_EQ(keep_b, nullptr);
  api.unregister_subscriber(keep_a, Handle(a));
  EXPECT_TRUE(api.publish(publisher, std::move(message)));
  EXPECT_EQ(order, "abacbc");
  EXPECT_EQ(TakeLog(), Lines{});

  Endpoint again = publisher, once_more = publisher, last = publisher;
  api.unregister_subscriber(again, Handle(b));
  api.unregister_subscriber(subscriber, Handle(c));
  EXPECT_FALSE(api.publish(publisher, std::move(message)));
  api.unregister_subscriber(once_more, Handle(c));
  api.register_subscriber(last, a);
  const std::weak_ptr<std::function<void(const std::any&)>> held = a;
  publisher.reset();
  api.unregister_subscriber(last, 0);
  EXPECT_EQ(held.use_count(), 1) << "the callbacks of a name that ends go with it";
  EXPECT_EQ(TakeLog(), (Lines{"I: callback_list has been clear, real_topic_name: t/Topic/Sync",
                              "W: Publish failed, no subscriber, name: t",
                              "I: callback not find, maybe has been unregistered, real_topic_name: "
                              "t/Topic/Sync",
                              "I: control has been unregistered, real_topic_name: t/Topic/Sync"}));
}

TEST_P(Bridge, RunningPublicationKeepsItsSubscribers) {
  auto& endpoint = Topic("t", BridgeType::Sync);
  Endpoint keep = endpoint;
  int late = 0, second = 0;
  const auto added = Subscriber([&](auto&) { ++late; });
  const auto removed = Subscriber([&](auto&) { ++second; });
  const auto changing = Subscriber([&](auto&) {
    Endpoint copy = keep;
    api.register_subscriber(copy, added);
    api.unregister_subscriber(copy, Handle(removed));
  });
  api.register_subscriber(endpoint, changing);
  api.register_subscriber(endpoint, removed);
  api.publish(endpoint, 1);
  EXPECT_EQ(late, 0);
  EXPECT_EQ(second, 1);
  api.publish(endpoint, 1);
  EXPECT_EQ(late, 1);
  EXPECT_EQ(second, 1);
}

// Counts its copies.
struct Payload {
  Payload() = default;
  Payload(const Payload& other) : copies(other.copies) { ++*copies; }
  Payload(Payload&&) noexcept = default;
  std::shared_ptr<int> copies = std::make_shared<int>(0);
};

TEST_P(Bridge, QueuedTopicMovesNameAndMessageIntoTheFirstTask) {
  for (const auto type : {BridgeType::Async, BridgeType::SignleAsync}) {
    // Short enough and too long to be stored inside a string.
    for (const std::string name : {"t", "a topic with a name of more than 22 characters"}) {
      auto& endpoint = Topic(name, type);
      int delivered = 0, empty = 0;
      const auto count = Subscriber([&](const std::any& message) {
        ++(message.has_value() ? delivered : empty);
        std::any_cast<const Payload&>(message);
      });
      const auto fail = Subscriber([](auto&) { throw std::runtime_error("bad luck"); });
      for (const auto& callback : {count, fail, count}) api.register_subscriber(endpoint, callback);
      Payload payload;
      const auto copies = payload.copies;
      std::any message = std::move(payload);
      EXPECT_TRUE(api.publish(endpoint, std::move(message)));
      EXPECT_FALSE(message.has_value());
      EXPECT_EQ(delivered, 0);
      api.spin_once();
      EXPECT_EQ(delivered, 1);
      EXPECT_EQ(empty, 1);
      EXPECT_EQ(*copies, 0);
      EXPECT_EQ(copies.use_count(), 1) << "the message goes with its task";
      const bool one_shot = type == BridgeType::SignleAsync;
      EXPECT_EQ(api.publish(endpoint, 1), !one_shot);
      api.spin_once();
      const auto log = TakeLog();
      ASSERT_GE(log.size(), 6u);
      EXPECT_EQ(Lines(log.begin(), log.begin() + 5),
                (Lines{"I: event queue size: 2", "I: event queue size: 1",
                       Failed("bad luck", "", fail.get()), "I: event queue size: 0",
                       BadCast("", count.get())}));
      EXPECT_EQ(log[5], one_shot ? "W: Publish failed, no subscriber, name: " + name
                                 : "I: event queue size: 2");
    }
  }
}

TEST_P(Bridge, SignleAsyncAutoRemoveTakesTheReceiverItNames) {
  auto& topic = Topic("t", BridgeType::SignleAsync);
  auto& sync = Topic("t", BridgeType::Sync);
  auto& service = Service("s", BridgeType::SignleAsync);
  auto& neither = Make({"n", Enumerator<BridgeModule>(7), BridgeType::SignleAsync});
  int runs = 0;
  const auto one = Subscriber([&](auto&) { runs += 1; });
  const auto ten = Subscriber([&](auto&) { runs += 10; });
  for (const auto& callback : {one, ten, one}) api.register_subscriber(topic, callback);
  api.register_subscriber(sync, one);
  api.register_server(service, Server([](auto&, auto&) {}));
  api.register_server(topic, Server([&](auto&, auto&) { runs += 100; }));
  TheBridge().SignleAsyncAutoRemove(sync, one);  // of another type: stays
  EXPECT_TRUE(api.publish(sync, 1));
  TheBridge().SignleAsyncAutoRemove(service, nullptr);
  EXPECT_FALSE(api.call(service, nullptr));
  TheBridge().SignleAsyncAutoRemove(topic, nullptr);
  TheBridge().SignleAsyncAutoRemove(neither, one);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(api.call(topic, CallWith(1)));  // a topic's server stays
  TheBridge().SignleAsyncAutoRemove(topic, one);
  api.publish(topic, 1);
  TheBridge().SignleAsyncAutoRemove(topic, one);
  api.spin_once();
  EXPECT_EQ(runs, 1 + 200 + 10);
  const std::string invalid = "E: bridge_module is invalid!";
  EXPECT_EQ(TakeLog(), (Lines{"W: Call failed, no server, server_name: s/Service/SignleAsync",
                              invalid, invalid, invalid, invalid, "I: event queue size: 2",
                              "I: event queue size: 1", "I: event queue size: 0"}));
}

TEST_P(Bridge, FailingCallbacksAreContained) {
  auto& topic = Topic("t", BridgeType::Sync);
  const auto casts = Subscriber([](auto& message) { (void)std::any_cast<std::string>(message); });
  const auto throws = Subscriber([](auto&) { throw std::runtime_error(std::string(2000, 'x')); });
  const auto empty = Subscriber(std::function<void(const std::any&)>());
  int after = 0;
  const auto counts = Subscriber([&](auto&) { ++after; });
  for (const auto& callback : {casts, throws, empty, counts}) {
    api.register_subscriber(topic, callback);
  }
  EXPECT_TRUE(api.publish(topic, 1));
  EXPECT_EQ(after, 1);
  EXPECT_EQ(TakeLog(),
            (Lines{BadCast("t/Topic/Sync", casts.get()),
                   Failed(std::string(2000, 'x'), "", nullptr).substr(0, 3 + 1023),
                   Failed(std::bad_function_call().what(), "t/Topic/Sync", empty.get())}));
}

TEST_P(Bridge, OtherExceptionsPassThroughAndLeaveNoLock) {
  auto& sync = Topic("t", BridgeType::Sync);
  auto& async = Topic("t", BridgeType::Async);
  auto& service = Service("s", BridgeType::Sync);
  auto& later = Service("s", BridgeType::Async);
  int after = 0;
  const auto throws = Subscriber([](auto&) { throw 1; });
  for (auto* endpoint : {&sync, &async}) {
    api.register_subscriber(*endpoint, throws);
    api.register_subscriber(*endpoint, Subscriber([&](auto&) { ++after; }));
  }
  for (auto* endpoint : {&service, &later}) {
    api.register_server(*endpoint, Server([](auto&, auto&) { throw 1; }));
  }
  EXPECT_THROW(api.publish(sync, 1), int);
  EXPECT_EQ(after, 0);
  EXPECT_THROW(api.call(service, CallWith(1)), int);
  EXPECT_TRUE(api.publish(async, 1));
  EXPECT_TRUE(api.call(later, CallWith(1)));
  EXPECT_THROW(api.run_onece_step(), int);
  EXPECT_TRUE(api.run_onece_step());
  EXPECT_EQ(after, 1);
  EXPECT_THROW(api.spin_once(), int);
  EXPECT_FALSE(api.run_onece_step());
  EXPECT_EQ(throws.use_count(), 3) << "held by the two topics only";
}

TEST_P(Bridge, CallReachesTheServerItFound) {
  for (const auto type : {BridgeType::Sync, BridgeType::Async, BridgeType::SignleAsync}) {
    auto& server = Service("s", type);
    auto& client = Service("s", type);
    const auto name = Zorvix::GetRealName(client);
    SCOPED_TRACE(name);
    const bool queued = type != BridgeType::Sync, one_shot = type == BridgeType::SignleAsync;
    std::any answer;
    const ServerFunction* reached = nullptr;
    const auto call = [&] {
      return api.call(client, [&](const ServerFunction& function) {
        reached = &function;
        function(20, answer);
      });
    };
    EXPECT_FALSE(call());
    api.register_client(client);
    const auto doubles =
        Server([](auto& request, auto& response) { response = 2 * std::any_cast<int>(request); });
    const auto casts = Server([](auto& request, auto&) { (void)std::any_cast<char>(request); });
    api.register_server(server, casts);
    api.register_server(server, doubles);
    EXPECT_EQ(server, client);
    EXPECT_EQ(casts.use_count(), 1);
    EXPECT_EQ(TakeLog(), (Lines{"W: Call failed, no server, server_name: " + name,
                                "W: callback is motified, real_name: " + name}));
    EXPECT_TRUE(call());
    EXPECT_EQ(answer.has_value(), !queued);
    EXPECT_EQ(call(), !one_shot);
    api.unregister_server(server);
    EXPECT_EQ(server, nullptr);
    TakeLog();
    api.spin_once();
    EXPECT_EQ(std::any_cast<int>(answer), 40);
    EXPECT_EQ(reached, doubles.get());
    EXPECT_EQ(doubles.use_count(), 1);
    TakeLog();

    for (const bool empty : {false, true}) {
      server = client;
      api.register_server(server, casts);
      TakeLog();
      EXPECT_TRUE(empty ? api.call(client, nullptr) : call());
      api.spin_once();
      EXPECT_EQ(TakeLog().back(), empty ? Failed(std::bad_function_call().what(), name, casts.get())
                                        : BadCast(name, casts.get()));
    }

    api.unregister_server(server);
    Endpoint copy = client;
    api.unregister_server(copy);
    api.unregister_server(client);
    EXPECT_EQ(TakeLog(),
              (Lines{std::string("I: callback ") + (one_shot ? "not find, maybe " : "") +
                         "has been unregistered, real_name: " + name,
                     "I: callback not find, maybe has been unregistered, real_name: " + name,
                     "I: control has been unregistered, real_name: " + name}));
  }
}

TEST_P(Bridge, InvalidTypeIsRefusedAndTakesNothing) {
  for (const auto module : {BridgeModule::Topic, BridgeModule::Service}) {
    auto& endpoint = Make({"x", module, Enumerator<BridgeType>(3)});
    int runs = 0;
    api.register_subscriber(endpoint, Subscriber([&](auto&) { ++runs; }));
    api.register_server(endpoint, Server([&](auto&, auto&) { ++runs; }));
    TakeLog();
    std::any message = 1;
    bridge::RequestCallback request = [](auto&) {};
    EXPECT_FALSE(api.publish(endpoint, std::move(message)));
    EXPECT_FALSE(api.call(endpoint, std::move(request)));
    EXPECT_FALSE(api.run_onece_step());
    EXPECT_EQ(runs, 0);
    EXPECT_TRUE(message.has_value());
    EXPECT_TRUE(request);
    const std::string unknown = "E(zorvix.h): Unknown BridgeType!";
    const std::string invalid = "E: Call failed, bridge_type is invalid!";
    EXPECT_EQ(TakeLog(), (Lines{unknown, invalid, unknown, invalid}));
  }
}

TEST_P(Bridge, FullQueueLosesItsOldestTask) {
  auto& endpoint = Topic("t", BridgeType::Async);
  std::vector<int> received;
  api.register_subscriber(endpoint, Subscriber([&](auto& message) {
                            received.push_back(std::any_cast<int>(message));
                          }));
  EXPECT_FALSE(api.run_onece_step());
  for (int i = 1; i <= 102; ++i) EXPECT_TRUE(api.publish(endpoint, i));
  EXPECT_EQ(TakeLog(), (Lines(2, "W: event queue overflow, size: 100")));
  EXPECT_TRUE(api.run_onece_step());
  EXPECT_EQ(TakeLog(), Lines{"I: event queue size: 99"});
  api.spin_once();
  std::vector<int> expected;
  for (int i = 3; i <= 102; ++i) expected.push_back(i);
  EXPECT_EQ(received, expected);
}

TEST_P(Bridge, CallbacksMayCallEveryOperation) {
  int depth = 0;
  const auto use_everything = [&] {
    if (++depth > 4) return;
    auto& topic = Topic("inner", BridgeType::Async);
    auto& service = Service("inner", BridgeType::Sync);
    const auto callback = Subscriber([](auto&) {});
    api.register_publisher(topic);
    api.register_client(service);
    Endpoint subscriber = topic, server = service;
    api.register_subscriber(subscriber, callback);
    api.register_server(server, Server([](auto&, auto&) {}));
    EXPECT_TRUE(api.publish(topic, 1));
    EXPECT_TRUE(api.call(service, [](auto&) {}));
    api.spin_once();
    api.spin(0);
    api.stop_spin();
    api.unregister_subscriber(subscriber, Handle(callback));
    api.unregister_server(server);
    api.unregister_publisher(topic);
    api.unregister_client(service);
  };
  auto& sync = Topic("outer", BridgeType::Sync);
  auto& async = Topic("outer", BridgeType::Async);
  auto& service = Service("outer", BridgeType::Sync);
  api.register_subscriber(sync, Subscriber([&](auto&) { use_everything(); }));
  api.register_subscriber(async, Subscriber([&](auto&) { use_everything(); }));
  api.register_server(service, Server([&](auto&, auto&) { use_everything(); }));
  EXPECT_TRUE(api.publish(sync, 1));
  EXPECT_TRUE(api.publish(async, 1));
  EXPECT_TRUE(api.call(service, [&](auto& server) {
    use_everything();
    CallWith(1)(server);
  }));
  api.spin_once();
  EXPECT_EQ(depth, 4);
}

}  // namespace
