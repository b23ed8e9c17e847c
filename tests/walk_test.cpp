// Random walks: the bridge and a plain model of it execute the same operations, on one thread, and
// must return the same, log the same and own the same.
#include <list>
#include <map>
#include <random>

#include "bridge_test.h"

namespace {

using bridge::Control;
using bridge::RequestCallback;
using bridge::ServerCallback;
using bridge::SubscriberCallback;

// The bridge, through its flat functions.
struct Real {
  static constexpr auto RegisterPublisher = ZorvixRegisterPublisher;
  static constexpr auto UnregisterPublisher = ZorvixUnregisterPublisher;
  static constexpr auto RegisterSubscriber = ZorvixRegisterSubscriber;
  static constexpr auto UnregisterSubscriber = ZorvixUnregisterSubscriber;
  static constexpr auto Publish = ZorvixPublish;
  static constexpr auto RegisterClient = ZorvixRegisterClient;
  static constexpr auto UnregisterClient = ZorvixUnregisterClient;
  static constexpr auto RegisterServer = ZorvixRegisterServer;
  static constexpr auto UnregisterServer = ZorvixUnregisterServer;
  static constexpr auto Call = ZorvixCall;
  static constexpr auto RunOneceStep = ZorvixRunOneceStep;
  static constexpr auto SpinOnce = ZorvixSpinOnce;
  static void SignleAsyncAutoRemove(const Endpoint& control, const SubscriberCallback& callback) {
    Zorvix::GetInstance().SignleAsyncAutoRemove(control, callback);
  }
};

// What the comments in zorvix.h promise, for one thread.
class Model {
 public:
  void RegisterPublisher(Endpoint& control) { Join(control, "RegisterPublisher"); }
  void RegisterClient(Endpoint& control) { Join(control, "RegisterClient"); }
  void UnregisterPublisher(Endpoint& control) {
    if (LogIf(!control, "W: UnregisterPublisher failed, control is nullptr!")) return;
    Leave(control, "UnregisterPublisher", "real_topic_name: ");
  }
  void UnregisterClient(Endpoint& control) {
    if (LogIf(!control, "W: UnregisterClient failed, control is nullptr!")) return;
    Leave(control, "UnregisterClient", "real_name: ");
  }

  void RegisterSubscriber(Endpoint& control, const SubscriberCallback& callback) {
    if (!Join(control, "RegisterSubscriber", callback != nullptr)) return;
    subscribers_[control.get()].push_back(callback);
  }
  void UnregisterSubscriber(Endpoint& control, unsigned long callback_handle) {
    if (LogIf(!control, "E: UnregisterSubscriber failed, control is nullptr!")) return;
    const Control* const key = control.get();
    const auto [others, name] = Leave(control, "UnregisterSubscriber", "real_topic_name: ");
    if (others == Others::kNone) subscribers_.erase(key);
    if (others != Others::kSome) return;
    const bool found = subscribers_.count(key) == 1;
    RemoveSubscriber(key, callback_handle);
    LogIf(!found, "I: callback not find, maybe has been unregistered, " + name);
    LogIf(found && subscribers_.count(key) == 0, "I: callback_list has been clear, " + name);
  }

  void RegisterServer(Endpoint& control, const ServerCallback& callback) {
    const auto name = Join(control, "RegisterServer", callback != nullptr);
    if (!name) return;
    auto& server = servers_[control.get()];
    LogIf(server != nullptr, "W: callback is motified, real_name: " + Printed(*name));
    server = callback;
  }
  void UnregisterServer(Endpoint& control) {
    if (LogIf(!control, "E: UnregisterServer failed, control is nullptr!")) return;
    const Control* const key = control.get();
    const auto [others, name] = Leave(control, "UnregisterSubscriber", "real_name: ");
    if (others == Others::kNone) servers_.erase(key);
    if (others != Others::kSome) return;
    const bool removed = servers_.erase(key) == 1;
    LogIf(removed, "I: callback has been unregistered, " + name);
    LogIf(!removed, "I: callback not find, maybe has been unregistered, " + name);
  }

  bool Publish(const Endpoint& control, std::any&& message) {
    if (LogIf(!control, "E: Publish failed, control is nullptr!")) return false;
    if (LogIf(!message.has_value(), "E: Publish failed, message is empty!")) return false;
    auto name = RealName(*control);
    const auto missing = "W: Publish failed, no subscriber, name: " + Printed(control->name);
    if (LogIf(subscribers_.count(control.get()) == 0, missing)) return false;
    const auto receivers = subscribers_[control.get()];
    for (const auto& receiver : receivers) SignleAsyncAutoRemove(control, receiver);
    if (!IsValid(control->bridge_type)) return false;
    const bool sync = control->bridge_type == BridgeType::Sync;
    for (const auto& receiver : receivers) {
      if (sync) {
        Guard(*receiver, message, name, receiver.get());
      } else {  // the first receiver takes the message and the name
        Post([receiver, message = std::exchange(message, {}), name = std::exchange(name, {})] {
          Guard(*receiver, message, name, receiver.get());
        });
      }
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
    if (!IsValid(control->bridge_type)) return false;
    if (control->bridge_type == BridgeType::Sync) {
      Guard(request, *server, name, server.get());
    } else {
      Post([server, name, request = std::exchange(request, {})] {
        Guard(request, *server, name, server.get());
      });
    }
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
  void SpinOnce() {
    while (RunOneceStep()) {
    }
  }

 private:
  enum class Others { kUnknown, kNone, kSome };

  // The log prints a name up to its first zero byte, and the first 1023 characters of a message.
  static std::string Printed(const std::string& name) { return name.c_str(); }
  static void LogLine(const std::string& line) { AddLine(line.substr(0, 3 + 1023)); }
  static bool LogIf(bool condition, const std::string& line) {
    if (condition) LogLine(line);
    return condition;
  }
  static bool IsValid(BridgeType type) {
    const bool valid = type >= BridgeType::Sync && type <= BridgeType::SignleAsync;
    LogIf(!valid, "E: Call failed, bridge_type is invalid!");
    return valid;
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
  // Empties `control` and removes the name if there is no other owner. Returns the name to print.
  std::pair<Others, std::string> Leave(Endpoint& control, const std::string& operation,
                                       const std::string& label) {
    const auto real_name = RealName(*control);
    const auto name = label + Printed(real_name);
    const auto entry = names_.find(real_name);
    control.reset();
    const bool unknown = entry == names_.end();
    if (LogIf(unknown, "E: " + operation + " failed, " + name)) return {Others::kUnknown, name};
    if (!entry->second.expired()) return {Others::kSome, name};
    names_.erase(entry);
    LogLine("I: control has been unregistered, " + name);
    return {Others::kNone, name};
  }

  void RemoveSubscriber(const Control* key, unsigned long callback_handle) {
    auto& callbacks = subscribers_[key];
    callbacks.remove_if([=](const auto& callback) { return Handle(callback) == callback_handle; });
    if (callbacks.empty()) subscribers_.erase(key);
  }

  void Post(bridge::Task task) {
    if (LogIf(queue_.size() == 100, "W: event queue overflow, size: 100")) queue_.pop_front();
    queue_.push_back(std::move(task));
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
  std::list<bridge::Task> queue_;
};

std::function<void(const std::string&)> react;  // called by callbacks; set by the walk that steps

struct Payload {
  explicit Payload(std::shared_ptr<int> share) : owner(std::move(share)) {}
  Payload(const Payload&) { throw 0; }  // the bridge moves messages and requests
  Payload(Payload&&) noexcept = default;
  std::shared_ptr<int> owner;
};

struct Named {
  void operator()(const std::any& message) const {
    react(name + (message.has_value() ? " gets the message" : " gets nothing"));
  }
  void operator()(const std::any& request, std::any& response) const {
    react(name);
    response = request;
  }
  std::string name;
};

// Shared by both walks, since the log contains their addresses. The last ones are empty.
SubscriberFunction subscribers[] = {Named{"a"}, Named{"b"}, Named{"c"}, {}};
ServerFunction servers[] = {Named{"server a"}, Named{"server b"}, {}};

// How often a random choice gives which value.
template <typename Value>
struct Choice {
  unsigned percent;
  Value value;
};
constexpr Choice<int> kModules[] = {{42, 0}, {42, 1}, {8, 2}, {8, -1}};
constexpr Choice<int> kTypes[] = {{28, 0}, {28, 1}, {28, 2}, {8, 3}, {8, -1}};
// How callbacks end.
constexpr Choice<void (*)()> kEnds[] = {{58, [] {}},
                                        {18, [] { throw std::runtime_error("bad luck"); }},
                                        {8, [] { throw std::bad_any_cast(); }},
                                        {8, [] { throw std::bad_cast(); }},
                                        {8, [] { throw 1; }}};

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
    {3, "UnregisterServer", [](auto& s, auto& a) { s.UnregisterServer(a.control); }},
    {19, "Call", [](auto& s, auto& a) { a.result = s.Call(a.control, std::move(a.request)); }},
    {9, "RunOneceStep", [](auto& s, auto& a) { a.result = s.RunOneceStep(); }},
    {1, "SpinOnce", [](auto& s, auto&) { s.SpinOnce(); }},
    {2, "drop the control", [](auto&, auto& a) { a.control.reset(); }},
};

template <typename Subject>
class Walk {
 public:
  explicit Walk(unsigned seed) : random_(seed) {
    // Of sizes around those of the library's buffers, and longer. The two names are equal up to a
    // zero byte. No other walk has them, since some stay registered.
    static constexpr std::size_t kSizes[] = {0, 115, 970, 1030};
    names_[0] = seed == 0 ? "" : std::to_string(seed);
    names_[0].resize(std::max(names_[0].size(), kSizes[seed % 4]), '%');
    names_[1] = names_[0] + std::string("\0x", 2);
    for (auto& share : shares_) share = std::make_shared<int>();
  }

  // Executes an operation, and at most `limit` in its callbacks. With a limit of 0 it empties the
  // queue. Returns what was logged, and how many owners everything has.
  std::string Step(int limit) {
    left_ = limit;
    react = [this](const std::string& event) { React(event); };
    if (limit > 0) {
      Execute(Choose(kOperations<Subject>));
    } else {
      subject_.SpinOnce();
    }
    std::string result;
    for (const auto& line : TakeLog()) result += line + '\n';
    for (const auto& share : shares_) result += std::to_string(share.use_count()) + " shares ";
    for (const auto& control : alive_) result += std::to_string(control.use_count()) + " owners ";
    return result;
  }

 private:
  unsigned Below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

  template <typename Row, std::size_t kSize>
  const Row& Choose(const Row (&rows)[kSize]) {
    const Row* row = rows;
    for (unsigned left = Below(100); left >= row->percent; ++row) left -= row->percent;
    return *row;
  }

  void React(const std::string& event) {
    Log(event);
    for (auto i = Below(3); i > 0 && left_ > 0; --i) {
      --left_;
      Execute(Choose(kOperations<Subject>));
    }
    if (left_ > 0) Choose(kEnds).value();
  }

  // Takes the first free place, where an earlier Control may have left callbacks.
  Endpoint NewControl() {
    std::size_t place = 0;
    while (!alive_[place].expired()) ++place;
    const auto& other = controls_[Below(6)];
    if (other && Below(2) == 0) {
      places_[place] = *other;
    } else {
      places_[place] = {names_[Below(2)], BridgeModule{Choose(kModules).value},
                        BridgeType{Choose(kTypes).value}};
    }
    Endpoint control(std::make_shared<int>(), &places_[place]);
    alive_[place] = control;
    return control;
  }

  Arguments ChooseArguments() {
    Arguments a{controls_[Below(6)], {}, {}, {}, {}};
    if (!a.control && Below(8) > 0) a.control = NewControl();
    const auto i = Below(5);
    if (i < 4) a.subscriber = {shares_[i], &subscribers[i]};
    if (i < 3) a.server = {shares_[4 + i], &servers[i]};
    if (Below(16) == 0) return a;
    a.message = Payload(shares_[7]);
    a.request = [this, payload = Payload(shares_[7])](auto& serve) {
      React("request to server " + std::to_string(&serve - servers));
      std::any response;
      serve(42, response);
      Log("answer " + std::to_string(std::any_cast<int>(response)));
    };
    return a;
  }

  void Execute(const Operation<Subject>& operation) {
    auto arguments = ChooseArguments();
    std::string result = operation.name;
    try {
      operation.execute(subject_, arguments);
    } catch (int) {
      result += " throws";
    }
    if (arguments.result) result += " true";
    if (arguments.message.has_value()) result += " keeps the message";
    if (arguments.request) result += " keeps the request";
    if (arguments.control) result += " " + std::to_string(arguments.control.get() - places_);
    Log(result);
  }

  std::mt19937 random_;
  int left_ = 0;  // operations of this step
  std::string names_[2];
  Control places_[12];
  std::weak_ptr<const Control> alive_[12];
  std::shared_ptr<int> shares_[8];  // of subscribers, servers, and all messages and requests
  Subject subject_;
  Endpoint controls_[6];
};

TEST_F(Bridge, DoesWhatTheModelDoes) {
  static std::list<Walk<Real>> real;  // never destroyed, since their Controls have callbacks
  const unsigned first = Seed();
  for (unsigned seed = first; seed != first + 12; ++seed) {
    real.emplace_back(seed);
    Walk<Model> model(seed);
    for (int step = 3000; step >= 0; --step) {
      const int limit = step > 0 ? 30 : 0;
      ASSERT_EQ(model.Step(limit), real.back().Step(limit)) << "ZORVIX_SEED=" << seed;
    }
  }
}

}  // namespace
