// Uses handles. Built as several modules.
#include <zorvix/inspect.h>
#include <zorvix/state.h>

#include <map>

#include "payload.h"

// All functions of the handles, used or not, for the check of what a module shows to the linker.
template class zorvix::Publisher<Reading>;
template class zorvix::Subscriber<Reading>;
template class zorvix::Client<Reading, Reading>;
template class zorvix::Server<Reading, Reading>;
template class zorvix::Holder<Reading>;
template class zorvix::Watcher<Reading>;

namespace {

void Log(const char* what) { BRIDGE_LOG(bridge::kLogInfo, "%s %s", MODULE, what); }

// Its text and its destructor are code of the module.
struct Failure : std::exception {
  const char* what() const noexcept override { return "failure of " MODULE; }
};

bool copies_fail = false;

}  // namespace

// Logs what is done with it, and whose code does it, such as "visible copies".
struct Traced {
  Traced() = default;
  Traced(const Traced&) {
    Log("copies");
    if (copies_fail) throw Failure();
  }
  Traced(Traced&&) noexcept { Log("moves"); }
  ~Traced() { Log("destroys"); }
};

namespace {

constexpr auto kAsync = bridge::BridgeType::Async;
constexpr auto kSignleAsync = bridge::BridgeType::SignleAsync;
const zorvix::State<Reading> kState{"state"};
const zorvix::Topic<Traced> kTopic{"traced"};
const zorvix::Topic<Failure> kOtherTopic{"traced"};
const zorvix::Service<int, Traced> kService{"traced"};
const zorvix::State<Traced> kTracedState{"traced"};
std::vector<std::shared_ptr<void>> handles;

template <typename Handle>
void Add(Handle handle) {
  handles.push_back(std::make_shared<Handle>(std::move(handle)));
}

zorvix::Inbox& AddInbox() {
  handles.push_back(std::make_shared<zorvix::Inbox>());
  return *static_cast<zorvix::Inbox*>(handles.back().get());
}

zorvix::Inbox& AddInboxWithThread() {
  zorvix::Inbox& inbox = AddInbox();
  handles.push_back(std::make_shared<zorvix::InboxThread>(inbox));
  return inbox;
}

void LogIfAny(const zorvix::Matched& now) {
  if (now.count != 0) Log("is invoked");
}
void LogInvocation(const Traced&) { Log("is invoked"); }
void Ignore(const Failure&) {}
void Fail(const Traced&) { throw Failure(); }
void ThrowNumber(const Traced&) { throw 0; }
Traced Serve(int) { return {}; }

void PublishAndDrain(zorvix::Inbox& inbox) {
  try {
    zorvix::Publisher(kTopic).Publish({});
    inbox.Drain();
  } catch (int) {
  }
}

const std::map<std::string, void (*)()> kActions = {
    {"", [] {}},
    {"subscribe", [] { Add(zorvix::Subscriber(kTopic, LogInvocation)); }},
    {"subscribe with an inbox",
     [] { Add(zorvix::Subscriber(kTopic, LogInvocation, AddInbox(), zorvix::KeepLast{1})); }},
    {"subscribe to another type", [] { Add(zorvix::Subscriber(kOtherTopic, Ignore)); }},
    {"subscribe to another type with an inbox",
     [] { Add(zorvix::Subscriber(kOtherTopic, Ignore, AddInbox())); }},
    {"serve another type with an inbox",
     [] {
       const zorvix::Service<Failure, Traced> service{"traced"};
       Add(zorvix::Server(
           service, [](const Failure&) { return Traced(); }, AddInbox()));
     }},
    {"watch another type", [] { Add(zorvix::Watcher(zorvix::State<Failure>{"traced"}, Ignore)); }},
    {"hold",
     [] {
       zorvix::Holder holder(kTracedState);
       holder.Set({});
       Add(std::move(holder));
     }},
    {"fail to copy",
     [] {
       copies_fail = true;
       Add(zorvix::Subscriber(kTopic, LogInvocation, AddInbox()));
     }},
    {"fail", [] { Add(zorvix::Subscriber(kTopic, Fail)); }},
    {"fail on a thread", [] { Add(zorvix::Subscriber(kTopic, Fail, AddInboxWithThread())); }},
    {"publish", [] { zorvix::Publisher(kTopic).Publish({}); }},
    {"publish twice",
     [] {
       for (int i = 0; i < 2; ++i) zorvix::Publisher(kTopic).Publish({});
     }},
    {"serve", [] { Add(zorvix::Server(kService, Serve)); }},
    {"serve on a thread", [] { Add(zorvix::Server(kService, Serve, AddInboxWithThread())); }},
    {"call", [] { zorvix::Client(kService).Call(1); }},
    {"call with an inbox",
     [] {
       zorvix::Client client(kService, AddInbox());
       client.Call(1, [](const std::optional<Traced>&) {});
       Add(std::move(client));
     }},
    {"watch", [] { Add(zorvix::Watcher(kTracedState, LogInvocation)); }},
    {"set", [] { zorvix::Holder(kTracedState).Set({}); }},
    {"count subscribers", [] { Add(zorvix::Presence(kTopic, LogIfAny)); }},
    {"throws",
     [] {
       Add(zorvix::Subscriber(kTopic, ThrowNumber));
       PublishAndDrain(AddInbox());
     }},
    {"throws_in_drain",
     [] {
       zorvix::Inbox& inbox = AddInbox();
       Add(zorvix::Subscriber(kTopic, ThrowNumber, inbox));
       PublishAndDrain(inbox);
     }},
    {"async_publisher", [] { Add(zorvix::Publisher(zorvix::Topic<int, kAsync>{"async"})); }},
    {"async_subscriber",
     [] { Add(zorvix::Subscriber(zorvix::Topic<int, kSignleAsync>{"async"}, [](int) {})); }},
    {"async_client", [] { Add(zorvix::Client(zorvix::Service<int, int, kSignleAsync>{"async"})); }},
    {"async_server",
     [] {
       Add(zorvix::Server(zorvix::Service<int, int, kAsync>{"async"}, [](int) { return 0; }));
     }},
};

}  // namespace

void Do(const char* action) { kActions.at(action)(); }

void Receive() {
  ForEachPayload([](const std::string& name, auto payload) {
    using Payload = decltype(payload);
    const auto last = std::make_shared<Payload>();
    Add(zorvix::Subscriber(zorvix::Topic<Payload>{name},
                           [last](const Payload& got) { *last = got; }));
    Add(zorvix::Server(zorvix::Service<Payload, Payload>{name},
                       [last](const Payload&) { return std::exchange(*last, {}); }));
  });
}

void Hold(int value) {
  zorvix::Holder holder(kState);
  holder.Set({"a unit too long to be stored inside a string", value});
  Add(std::move(holder));
}

void Watch(const Reading** newest) {
  Add(zorvix::Watcher(kState, [newest](const Reading& reading) { *newest = &reading; }));
}

void UseEachPayload(std::atomic<int>* invocations) {
  zorvix::Inbox& inbox = AddInboxWithThread();
  ForEachPayload([&](const std::string& name, auto payload) {
    using Payload = decltype(payload);
    const zorvix::Topic<Payload> topic{name};
    const zorvix::Service<Payload, Payload> service{name};
    const zorvix::State<Payload> state{name};
    const auto use = [invocations](const Payload& got) {
      ++*invocations;
      return got;
    };
    Add(zorvix::Subscriber(topic, use));
    Add(zorvix::Subscriber(topic, use, inbox));
    Add(zorvix::Subscriber(topic, use, zorvix::Delivery::Queued, zorvix::KeepLast{2}));
    Add(zorvix::Subscriber(
        zorvix::Topic<Failure>{name}, [](const Failure&) {}, inbox));
    Add(zorvix::Server(service, use));
    Add(zorvix::Server(service, use, inbox));
    Add(zorvix::Server(service, use, zorvix::Delivery::Queued));
    Add(zorvix::Server(service, [&inbox](const Payload& got, const zorvix::Reply<Payload>& reply) {
      inbox.Post([got, reply] { reply(got); });
    }));
    zorvix::Holder holder(state);
    holder.Set(payload);
    Add(std::move(holder));
    Add(zorvix::Watcher(state, use));
    Add(zorvix::Watcher(state, use, inbox));
    Add(zorvix::Presence(service, [](auto&) {}));
    zorvix::Client client(service, inbox);
    client.Call(payload, [](const std::optional<Payload>&) {});
    client.Call(payload, std::chrono::milliseconds(1), [](const std::optional<Payload>&) {});
    Add(std::move(client));
  });
}

void SendEachPayload(const std::atomic<bool>* stop) {
  std::vector<std::future<void>> threads;
  ForEachPayload([&](const std::string& name, auto payload) {
    threads.push_back(std::async(std::launch::async, [=] {
      using Payload = decltype(payload);
      const zorvix::Service<Payload, Payload> service{name};
      const zorvix::State<Payload> state{name};
      const zorvix::Publisher publisher(zorvix::Topic<Payload>{name}, zorvix::Audience::Optional);
      const zorvix::Client client(service);
      const zorvix::Server server(service, [](const Payload& got) { return got; });
#ifndef __SANITIZE_THREAD__  // It does not know the loader's lock: values may unload a module.
      const zorvix::Watcher watcher(state);
#endif
      zorvix::Holder holder(state);
      while (!*stop) {
        publisher.Publish(payload);
        client.Call(payload, std::chrono::milliseconds(1));
        holder.Set(payload);
      }
    }));
  });
}

void Subscribe() {
  const zorvix::Topic<int> never_drained{"never drained"};
  Add(zorvix::Subscriber(
      never_drained, [](int) {}, AddInbox(), zorvix::KeepLast{2}));
}

std::size_t CountHandles() { return zorvix::Inspect().size(); }

zorvix::Inbox* MakeInbox() { return &AddInbox(); }

void Post(zorvix::Inbox* inbox) {
  inbox->Post([] {});
}

// The latest first: an inbox and its thread before them.
void Leave() {
  while (!handles.empty()) handles.pop_back();
}
