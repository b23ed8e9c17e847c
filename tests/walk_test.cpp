// Random walks: the bridge and a plain model of it execute the same operations, on one thread, and
// must return the same, log the same and own the same.
#include <list>
#include <map>
#include <random>

#include "bridge_test.h"

namespace {

using namespace bridge;

// What the comments in zorvix.h promise, for one thread.
class Model {
 public:
  void RegisterPublisher(Endpoint& control) { Join(control, "RegisterPublisher"); }
  void RegisterClient(Endpoint& control) { Join(control, "RegisterClient"); }
  void UnregisterPublisher(Endpoint& control) {
    Leave(control, 'W', "UnregisterPublisher", kTopic);
  }
  void UnregisterClient(Endpoint& control) { Leave(control, 'W', "UnregisterClient", kService); }

  void RegisterSubscriber(Endpoint& control, const SubscriberCallback& callback) {
    if (!Join(control, "RegisterSubscriber", callback != nullptr)) return;
    subscribers_[control.get()].push_back(callback);
  }
  void UnregisterSubscriber(Endpoint& control, unsigned long callback_handle) {
    const Control* const key = control.get();
    const auto name = Leave(control, 'E', "UnregisterSubscriber", kTopic, &subscribers_);
    if (!name) return;
    const bool found = subscribers_.count(key) == 1;
    RemoveSubscriber(key, callback_handle);
    LogIf(!found, "I: callback not find, maybe has been unregistered, " + *name);
    LogIf(found && subscribers_.count(key) == 0, "I: callback_list has been clear, " + *name);
  }

  void RegisterServer(Endpoint& control, const ServerCallback& callback) {
    const auto name = Join(control, "RegisterServer", callback != nullptr);
    if (!name) return;
    auto& server = servers_[control.get()];
    LogIf(server != nullptr, "W: callback is motified, real_name: " + Printed(*name));
    server = callback;
  }
  void UnregisterServer(Endpoint& control, unsigned long) {
    if (LogIf(!control, "E: UnregisterServer failed, control is nullptr!")) return;
    const Control* const key = control.get();
    const auto name = Leave(control, 'E', "UnregisterSubscriber", kService, &servers_);
    if (!name) return;
    const bool removed = servers_.erase(key) == 1;
    LogIf(removed, "I: callback has been unregistered, " + *name);
    LogIf(!removed, "I: callback not find, maybe has been unregistered, " + *name);
  }

  bool Publish(const Endpoint& control, std::any&& message) {
    if (LogIf(!control, "E: Publish failed, control is nullptr!")) return false;
    if (LogIf(!message.has_value(), "E: Publish failed, message is empty!")) return false;
    auto name = RealName(*control);
    const auto missing = "W: Publish failed, no subscriber, name: " + Printed(control->name);
    if (LogIf(subscribers_.count(control.get()) == 0, missing)) return false;
    const auto receivers = subscribers_[control.get()];
    for (const auto& receiver : receivers) SignleAsyncAutoRemove(control, receiver);
    const auto type = static_cast<unsigned>(control->bridge_type);
    if (LogIf(type > 2, "E: Call failed, bridge_type is invalid!")) return false;
    for (const auto& receiver : receivers) {
      Run(type, [=] { Guard(*receiver, message, name, receiver.get()); });
      if (type == 0) continue;
      message.reset();  // the first receiver has taken the message and the name
      name.clear();
    }
    return true;
  }

  bool Call(const Endpoint& control, RequestCallback&& request) {
    if (LogIf(!control, "E: Call failed, control is nullptr!")) return false;
    const auto name = RealName(*control);
    const auto missing = "W: Call failed, no server, server_name: " + Printed(name);
    if (LogIf(servers_.count(control.get()) == 0, missing)) return false;
    const auto server = servers_[control.get()];
    SignleAsyncAutoRemove(control, nullptr);
    const auto type = static_cast<unsigned>(control->bridge_type);
    if (LogIf(type > 2, "E: Call failed, bridge_type is invalid!")) return false;
    Run(type, [=] { Guard(request, *server, name, server.get()); });
    if (type != 0) request = nullptr;
    return true;
  }

  void SignleAsyncAutoRemove(const Endpoint& control, const SubscriberCallback& callback) {
    if (LogIf(!control, "E: control is nullptr!")) return;
    if (control->bridge_type != BridgeType::SignleAsync) return;
    if (control->bridge_module == BridgeModule::Service) {
      servers_.erase(control.get());
    } else if (control->bridge_module == BridgeModule::Topic && callback) {
      RemoveSubscriber(control.get(), Handle(callback));
    } else {
      LogLine("E: bridge_module is invalid!");
    }
  }

  bool RunOneceStep() {
    if (queue_.empty()) return false;
    const auto task = std::move(queue_.front());
    queue_.pop_front();
    LogLine("I: event queue size: " + std::to_string(queue_.size()));
    task();
    return true;
  }

 private:
  static constexpr const char* kTopic = "real_topic_name: ";
  static constexpr const char* kService = "real_name: ";

  // The log prints a name up to its first zero byte, and the first 1023 characters of a message.
  static std::string Printed(const std::string& name) { return name.substr(0, name.find('\0')); }
  static void LogLine(const std::string& line) { AddLine(line.substr(0, 3 + 1023)); }
  static bool LogIf(bool condition, const std::string& line) {
    if (condition) LogLine(line);
    return condition;
  }

  static std::string RealName(const Control& control) {
    static const Lines modules{"/Topic", "/Service", "/Unknown"};
    static const Lines types{"/Sync", "/Async", "/SignleAsync", "/Unknown"};
    const auto module = std::min(static_cast<unsigned>(control.bridge_module), 2u);
    const auto type = std::min(static_cast<unsigned>(control.bridge_type), 3u);
    LogIf(module == 2, "E(zorvix.h): Unknown BridgeModule!");
    LogIf(type == 3, "E(zorvix.h): Unknown BridgeType!");
    return control.name + modules[module] + types[type];
  }

  // Replaces `control` by the object that is registered under its name. Returns the name.
  std::optional<std::string> Join(Endpoint& control, const std::string& operation,
                                  bool has_callback = true) {
    if (LogIf(!control, "E: " + operation + " failed, control is nullptr!")) return {};
    if (LogIf(!has_callback, "E: " + operation + " failed, callback is nullptr!")) return {};
    const auto name = RealName(*control);
    auto& registered = names_.try_emplace(name, control).first->second;
    if (LogIf(registered.expired(), "W: register control is expired!")) registered = control;
    control = registered.lock();
    return name;
  }
  // Empties `control`. Removes the name with its `callbacks` if there is no other owner, or else
  // returns the name to print.
  template <typename Callbacks = std::map<const Control*, ServerCallback>>
  std::optional<std::string> Leave(Endpoint& control, char priority, const std::string& operation,
                                   const std::string& label, Callbacks* callbacks = nullptr) {
    const auto null = priority + (": " + operation) + " failed, control is nullptr!";
    if (LogIf(!control, null)) return {};
    const Control* const key = control.get();
    const auto real_name = RealName(*control);
    const auto name = label + Printed(real_name);
    const auto entry = names_.find(real_name);
    control.reset();
    if (LogIf(entry == names_.end(), "E: " + operation + " failed, " + name)) return {};
    if (!entry->second.expired()) return name;
    names_.erase(entry);
    if (callbacks) callbacks->erase(key);
    LogLine("I: control has been unregistered, " + name);
    return {};
  }

  void RemoveSubscriber(const Control* key, unsigned long callback_handle) {
    auto& callbacks = subscribers_[key];
    callbacks.remove_if([=](const auto& callback) { return Handle(callback) == callback_handle; });
    if (callbacks.empty()) subscribers_.erase(key);
  }

  // Runs a delivery of a Sync endpoint, and queues any other.
  void Run(unsigned type, const Task& delivery) {
    if (type == 0) return delivery();
    if (LogIf(queue_.size() == 100, "W: event queue overflow, size: 100")) queue_.pop_front();
    queue_.push_back(delivery);
  }
  // Calls `function` and logs what it throws.
  template <typename Function, typename Argument>
  static void Guard(const Function& function, const Argument& argument, const std::string& name,
                    const void* callback_handle) {
    const std::string macro = "_LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION";
    const auto where = ", real_name: " + Printed(name) +
                       ", callback_handle: " + testing::PrintToString(callback_handle);
    try {
      function(argument);
    } catch (const std::bad_cast& error) {
      LogLine(std::string("E: error: ") + error.what() + ", " + macro + ": 2" + where +
              ". make sure that the compiler macro " + macro + "=2");
    } catch (const std::exception& error) {
      LogLine(std::string("E: callback failed! error: ") + error.what() + where);
    }
  }

  std::map<std::string, std::weak_ptr<const Control>> names_;
  std::map<const Control*, std::list<SubscriberCallback>> subscribers_;
  std::map<const Control*, ServerCallback> servers_;
  std::list<Task> queue_;
};

std::function<void(const std::string&)> react;  // called by callbacks; set by the walk that steps

SubscriberFunction Receive(const std::string& name) {
  return [=](auto& message) { react(name + (message.has_value() ? " message" : " nothing")); };
}
ServerFunction Serve(const std::string& name) {
  return [=](auto& request, auto& response) {
    react(name);
    response = request;
  };
}
void Ask(const ServerFunction& serve) {
  std::any response;
  serve(42, response);
  react("answer " + std::to_string(std::any_cast<int>(response)));
}
// Shared by both walks, since the log contains their addresses. The last ones are empty.
SubscriberFunction subscribers[] = {Receive("a"), Receive("b"), Receive("c"), {}};
ServerFunction servers[] = {Serve("server a"), Serve("server b"), {}};

constexpr int kModules[] = {0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 2, -1};
constexpr int kTypes[] = {0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, -1};
// How half of the callbacks end.
void (*const kEnds[])() = {[] {}, [] { throw std::runtime_error("bad luck"); },
                           [] { throw std::bad_cast(); }, [] { throw 1; }};

struct Arguments {
  Endpoint& control;
  SubscriberCallback subscriber;
  ServerCallback server;
  std::any message;
  RequestCallback request;
  bool result = false;
};

template <typename Subject>
struct Operation {
  unsigned percent;
  const char* name;
  void (*execute)(Subject&, Arguments&);
};
template <typename Subject>
constexpr Operation<Subject> kOperations[] = {
    {5, "RegisterPublisher", [](auto& s, auto& a) { s.RegisterPublisher(a.control); }},
    {3, "UnregisterPublisher", [](auto& s, auto& a) { s.UnregisterPublisher(a.control); }},
    {14, "RegisterSubscriber",
     [](auto& s, auto& a) { s.RegisterSubscriber(a.control, a.subscriber); }},
    {6, "UnregisterSubscriber",
     [](auto& s, auto& a) { s.UnregisterSubscriber(a.control, Handle(a.subscriber)); }},
    {19, "Publish",
     [](auto& s, auto& a) { a.result = s.Publish(a.control, std::move(a.message)); }},
    {2, "SignleAsyncAutoRemove",
     [](auto& s, auto& a) { s.SignleAsyncAutoRemove(a.control, a.subscriber); }},
    {5, "RegisterClient", [](auto& s, auto& a) { s.RegisterClient(a.control); }},
    {3, "UnregisterClient", [](auto& s, auto& a) { s.UnregisterClient(a.control); }},
    {9, "RegisterServer", [](auto& s, auto& a) { s.RegisterServer(a.control, a.server); }},
    {3, "UnregisterServer", [](auto& s, auto& a) { s.UnregisterServer(a.control, 0); }},
    {19, "Call", [](auto& s, auto& a) { a.result = s.Call(a.control, std::move(a.request)); }},
    {10, "RunOneceStep", [](auto& s, auto& a) { a.result = s.RunOneceStep(); }},
    {2, "drop the control", [](auto&, auto& a) { a.control.reset(); }},
};

template <typename Subject>
class Walk {
 public:
  Walk(unsigned seed, Subject& subject) : random_(seed), subject_(subject) {
    // Of sizes around those of the library's buffers, and longer. The two names are equal up to a
    // zero byte. No other walk has them, since some stay registered.
    static constexpr std::size_t kSizes[] = {0, 114, 969, 1029};
    names_[0] = std::to_string(seed) + std::string(kSizes[seed % 4], '%');
    names_[1] = names_[0] + std::string("\0x", 2);
    for (auto& share : shares_) share = std::make_shared<int>();
  }

  // Executes an operation, and at most 30 in its callbacks. Returns what was logged, and how many
  // owners everything has.
  std::string Step() {
    left_ = 31;
    react = [this](const std::string& event) { React(event); };
    Execute();
    std::string result;
    for (const auto& line : TakeLog()) result += line + '\n';
    for (const auto& share : shares_) result += std::to_string(share.use_count()) + " shares ";
    for (const auto& control : alive_) result += std::to_string(control.use_count()) + " owners ";
    return result;
  }

 private:
  std::size_t Below(std::size_t bound) { return random_() % bound; }

  const Operation<Subject>& ChooseOperation() {
    const auto* row = kOperations<Subject>;
    for (auto left = Below(100); left >= row->percent; ++row) left -= row->percent;
    return *row;
  }

  void React(const std::string& event) {
    Log(event);
    for (auto i = Below(3); i > 0; --i) Execute();
    if (left_ > 0 && Below(2) == 0) kEnds[Below(std::size(kEnds))]();
  }

  // Takes the first free place, where an earlier Control may have left callbacks.
  Endpoint NewControl() {
    std::size_t place = 0;
    while (!alive_[place].expired()) ++place;
    places_[place] = {names_[Below(2)], BridgeModule{kModules[Below(std::size(kModules))]},
                      BridgeType{kTypes[Below(std::size(kTypes))]}};
    Endpoint control(std::make_shared<int>(), &places_[place]);
    alive_[place] = control;
    return control;
  }

  void Execute() {
    if (--left_ < 0) return;
    const auto& operation = ChooseOperation();
    Arguments a{controls_[Below(6)], {}, {}, {}, {}};
    if (!a.control && Below(8) > 0) a.control = NewControl();
    const auto i = Below(5);
    if (i < 4) a.subscriber = {shares_[i], &subscribers[i]};
    if (i < 3) a.server = {shares_[4 + i], &servers[i]};
    if (Below(16) > 0) {
      a.message = shares_[7];
      // Too large to be stored inside a std::function: then a move always leaves an empty one.
      a.request = [owned = shares_[7], more = std::string()](auto& serve) { Ask(serve); };
    }
    std::string result = operation.name;
    try {
      operation.execute(subject_, a);
    } catch (int) {
      result += " throws";
    }
    if (a.result) result += " true";
    if (a.message.has_value()) result += " keeps the message";
    if (a.request) result += " keeps the request";
    if (a.control) result += " " + std::to_string(a.control.get() - places_);
    Log(result);
  }

  std::mt19937 random_;
  Subject& subject_;
  int left_ = 0;  // operations of this step
  std::string names_[2];
  Control places_[12];
  std::weak_ptr<const Control> alive_[12];
  std::shared_ptr<int> shares_[8];  // of subscribers, servers, and all messages and requests
  Endpoint controls_[6];
};

using BridgeWalk = Bridge;

TEST_F(BridgeWalk, DoesWhatTheModelDoes) {
  static std::list<Walk<Zorvix>> real;  // never destroyed, since their Controls have callbacks
  const unsigned first = Seed();
  for (unsigned seed = first; seed != first + 12; ++seed) {
    real.emplace_back(seed, Zorvix::GetInstance());
    Model model;
    Walk<Model> predicted(seed, model);
    for (int step = 0; step < 3000; ++step) {
      ASSERT_EQ(predicted.Step(), real.back().Step()) << "ZORVIX_SEED=" << seed;
    }
    react = [](auto&) {};
    ZorvixSpinOnce();
    TakeLog();
  }
}

}  // namespace
