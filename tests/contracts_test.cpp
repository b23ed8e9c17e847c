// What each operation does and logs, on one thread.
#include "bridge_test.h"

namespace {

// The two lines of a callback that failed.
std::string BadCast(const std::string& real_name, const void* handle) {
  return std::string("E: error: ") + std::bad_any_cast().what() +
         ", _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION: 2, real_name: " + real_name +
         ", callback_handle: " + testing::PrintToString(handle) +
         ". make sure that the compiler macro _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION=2";
}
std::string Failed(const std::string& what, const std::string& real_name, const void* handle) {
  return "E: callback failed! error: " + what + ", real_name: " + real_name +
         ", callback_handle: " + testing::PrintToString(handle);
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
        const auto real_name = name + suffix;
        SCOPED_TRACE(real_name);
        Endpoint endpoint = Make({name, BridgeModule{module}, BridgeType{type}});
        Lines log;
        for (const auto* line : {"W: Call failed, no server, server_name: ",
                                 "E: UnregisterPublisher failed, real_topic_name: "}) {
          if (module < 0 || module > 1) log.push_back("E(zorvix.h): Unknown BridgeModule!");
          if (type < 0 || type > 2) log.push_back("E(zorvix.h): Unknown BridgeType!");
          log.push_back(cut(line + real_name));
        }
        EXPECT_FALSE(ZorvixCall(endpoint, nullptr));
        ZorvixUnregisterPublisher(endpoint);
        EXPECT_EQ(TakeLog(), log);
      }
    }
  }
}

TEST_F(Bridge, LogLinesOfUsersCarryTheirPosition) {
  BRIDGE_LOG(bridge::kLogWarn, "%d%%", 1);
  EXPECT_EQ(TakeLog(), Lines{"W(contracts_test.cpp:" + std::to_string(__LINE__ - 1) + "): 1%"});
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
  for (const auto module : {BridgeModule::Topic, BridgeModule::Service}) {
    const bool topic = module == BridgeModule::Topic;
    const auto leave = topic ? ZorvixUnregisterPublisher : ZorvixUnregisterClient;
    const auto join = [&] {
      Endpoint end = std::make_shared<bridge::Control>(bridge::Control{"r", module, {}});
      topic ? ZorvixRegisterPublisher(end) : ZorvixRegisterClient(end);
      return end;
    };
    const Lines removed{topic ? "I: control has been unregistered, real_topic_name: r/Topic/Sync"
                              : "I: control has been unregistered, real_name: r/Service/Sync"};
    Endpoint first = join(), second = join(), copy = first;
    EXPECT_EQ(second, first);
    topic ? ZorvixRegisterPublisher(first) : ZorvixRegisterClient(first);
    EXPECT_EQ(first, second);
    leave(first);
    leave(second);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(TakeLog(), Lines{}) << "a copy still owns the name";
    leave(copy);
    EXPECT_EQ(TakeLog(), removed);

    first = join();
    first.reset();
    first = join();
    EXPECT_EQ(TakeLog(), Lines{"W: register control is expired!"});
    EXPECT_EQ(join(), first) << "the name now stands for the new object";
    Endpoint stranger = std::make_shared<bridge::Control>(*first);
    first.reset();
    leave(stranger);
    EXPECT_EQ(stranger, nullptr);
    EXPECT_EQ(TakeLog(), removed);
  }
}

TEST_F(Bridge, SyncTopicDeliversTheOneMessageInOrder) {
  std::any message = std::string("hello");
  std::string order;
  const auto append = [&](char letter) {
    return Subscriber([&order, &message, letter](const std::any& received) {
      EXPECT_EQ(&received, &message);
      order += letter;
      if (letter == 'b') throw std::runtime_error("bad luck");
      if (letter == 'd') throw letter;
    });
  };
  const auto a = append('a'), b = append('b'), c = append('c'), d = append('d');
  auto& publisher = Topic("t", BridgeType::Sync);
  auto& subscriber = Subscribed("t", BridgeType::Sync, {a, b, a, c});
  ZorvixRegisterPublisher(publisher);
  EXPECT_EQ(publisher, subscriber);
  EXPECT_TRUE(ZorvixPublish(publisher, std::move(message)));
  EXPECT_EQ(std::exchange(order, ""), "abac");
  EXPECT_TRUE(message.has_value());

  const auto leave = [&](unsigned long handle) {
    Endpoint end = publisher;
    ZorvixUnregisterSubscriber(end, handle);
    EXPECT_EQ(end, nullptr);
  };
  leave(12345);
  leave(Handle(a));
  EXPECT_TRUE(ZorvixPublish(publisher, std::move(message)));
  EXPECT_EQ(std::exchange(order, ""), "bc");
  leave(Handle(b));
  for (const auto& callback : {d, a}) ZorvixRegisterSubscriber(subscriber, callback);
  EXPECT_THROW(ZorvixPublish(publisher, std::move(message)), char);
  EXPECT_EQ(order, "cd") << "what is no std::exception passes through, and leaves no lock";
  for (const auto& callback : {c, d, a}) leave(Handle(callback));
  EXPECT_FALSE(ZorvixPublish(publisher, std::move(message)));
  leave(Handle(c));
  ZorvixRegisterSubscriber(subscriber, a);
  publisher.reset();
  ZorvixUnregisterSubscriber(subscriber, 0);
  EXPECT_EQ(a.use_count(), 1) << "the callbacks of a name that ends go with it";
  const auto failed = Failed("bad luck", "t/Topic/Sync", b.get());
  const std::string missing =
      "I: callback not find, maybe has been unregistered, real_topic_name: ";
  EXPECT_EQ(TakeLog(),
            (Lines{failed, failed, "I: callback_list has been clear, real_topic_name: t/Topic/Sync",
                   "W: Publish failed, no subscriber, name: t", missing + "t/Topic/Sync",
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
      int delivered = 0, empty = 0;
      const auto count = Subscriber([&](const std::any& message) {
        ++(message.has_value() ? delivered : empty);
        throw std::runtime_error("bad luck");
      });
      const auto cast = Subscriber([](auto& message) { (void)std::any_cast<Payload>(message); });
      auto& topic = Subscribed(name, type, {count, cast, count});
      Payload payload;
      const auto copies = payload.copies;
      std::any message = std::move(payload);
      EXPECT_TRUE(ZorvixPublish(topic, std::move(message)));
      EXPECT_FALSE(message.has_value());
      EXPECT_EQ(delivered, 0);
      ZorvixSpinOnce();
      EXPECT_TRUE(delivered == 1 && empty == 1);
      EXPECT_EQ(*copies, 0);
      EXPECT_EQ(copies.use_count(), 1) << "the message goes with its task";
      const bool one_shot = type == BridgeType::SignleAsync;
      EXPECT_EQ(ZorvixPublish(topic, 1), !one_shot);
      ZorvixSpinOnce();
      auto log = TakeLog();
      log.resize(7);
      EXPECT_EQ(log, (Lines{"I: event queue size: 2",
                            Failed("bad luck", Zorvix::GetRealName(topic), count.get()),
                            "I: event queue size: 1", BadCast("", cast.get()),
                            "I: event queue size: 0", Failed("bad luck", "", count.get()),
                            one_shot ? "W: Publish failed, no subscriber, name: " + name
                                     : "I: event queue size: 2"}));
    }
  }
}

TEST_F(Bridge, OneShotEndpointsLoseTheirReceivers) {
  auto& bridge = Zorvix::GetInstance();
  int runs = 0;
  const auto one = Subscriber([&](auto&) { runs += 1; });
  const auto ten = Subscriber([&](auto&) { runs += 10; });
  const auto hundred = Server([&](auto&, auto&) { runs += 100; });
  auto& topic = Subscribed("t", BridgeType::SignleAsync, {one, ten, one});
  auto& sync = Subscribed("t", BridgeType::Sync, {one});
  auto& service = Service("s", BridgeType::SignleAsync);
  auto& neither = Make({"n", BridgeModule{7}, BridgeType::SignleAsync});
  const std::string gone = "W: Call failed, no server, server_name: s/Service/SignleAsync";
  const std::string invalid = "E: bridge_module is invalid!";
  bridge.SignleAsyncAutoRemove(sync, one);  // of another type: stays
  EXPECT_TRUE(ZorvixPublish(sync, 1));
  ZorvixRegisterServer(service, hundred);
  bridge.SignleAsyncAutoRemove(service, nullptr);
  EXPECT_FALSE(ZorvixCall(service, nullptr));
  ZorvixRegisterSubscriber(service, one);
  ZorvixRegisterServer(service, hundred);
  EXPECT_TRUE(ZorvixPublish(service, 1));  // costs the service its server
  EXPECT_FALSE(ZorvixCall(service, nullptr));
  EXPECT_EQ(TakeLog(), Lines(2, gone));
  ZorvixRegisterServer(topic, hundred);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(ZorvixCall(topic, Request));  // a topic's server stays
  bridge.SignleAsyncAutoRemove(topic, nullptr);
  EXPECT_EQ(TakeLog(), Lines(3, invalid));
  bridge.SignleAsyncAutoRemove(topic, one);
  EXPECT_TRUE(ZorvixPublish(topic, 1));
  bridge.SignleAsyncAutoRemove(topic, one);
  ZorvixRegisterSubscriber(topic, one);
  bridge.SignleAsyncAutoRemove(topic, one);
  EXPECT_FALSE(ZorvixPublish(topic, 1));
  for (int i = 0; i < 2; ++i) ZorvixRegisterSubscriber(neither, one);
  TakeLog();
  bridge.SignleAsyncAutoRemove(neither, one);  // removes none
  EXPECT_TRUE(ZorvixPublish(neither, 1));
  EXPECT_EQ(TakeLog(), (Lines{invalid, "E(zorvix.h): Unknown BridgeModule!", invalid, invalid}));
  ZorvixSpinOnce();
  EXPECT_EQ(runs, 1 + 1 + 200 + 10 + 2);
}

TEST_F(Bridge, CallReachesTheServerItFound) {
  for (const auto type : {BridgeType::Sync, BridgeType::Async, BridgeType::SignleAsync}) {
    auto& server = Service("s", type);
    auto& client = Service("s", type);
    const auto name = Zorvix::GetRealName(client);
    SCOPED_TRACE(name);
    const bool queued = type != BridgeType::Sync, one_shot = type == BridgeType::SignleAsync;
    const auto doubles =
        Server([](auto& number, auto& response) { response = 2 * std::any_cast<int>(number); });
    const auto casts = Server([](auto& number, auto&) { (void)std::any_cast<char>(number); });
    std::any answer;
    const auto request = [&](const ServerFunction& function) {
      EXPECT_TRUE(&function == doubles.get() || &function == casts.get());
      function(20, answer);
    };
    EXPECT_FALSE(ZorvixCall(client, request));
    ZorvixRegisterClient(client);
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
    EXPECT_EQ(doubles.use_count(), 1);

    const auto held = std::make_shared<int>();
    bridge::RequestCallback holds = [=](auto& function) { request(function), (void)held; };
    server = client;
    ZorvixRegisterServer(server, casts);
    EXPECT_TRUE(ZorvixCall(client, std::move(holds)));
    EXPECT_EQ(held.use_count(), 2) << "moved, not copied";
    ZorvixSpinOnce();
    EXPECT_EQ(TakeLog().back(), BadCast(name, casts.get()));
    ZorvixRegisterServer(server, casts);
    EXPECT_TRUE(ZorvixCall(client, nullptr));
    ZorvixSpinOnce();
    EXPECT_EQ(TakeLog().back(), Failed(std::bad_function_call().what(), name, casts.get()));

    ZorvixUnregisterServer(server);
    server = client;
    Zorvix::GetInstance().UnregisterServer(server, 42);
    ZorvixUnregisterServer(client);
    const std::string removed = "I: callback has been unregistered, real_name: ";
    const std::string missing = "I: callback not find, maybe has been unregistered, real_name: ";
    EXPECT_EQ(TakeLog(), (Lines{(one_shot ? missing : removed) + name, missing + name,
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
    EXPECT_TRUE(message.has_value() && request);
    const std::string unknown = "E(zorvix.h): Unknown BridgeType!";
    const std::string invalid = "E: Call failed, bridge_type is invalid!";
    EXPECT_EQ(TakeLog(), (Lines{unknown, invalid, unknown, invalid}));
  }
}

}  // namespace
