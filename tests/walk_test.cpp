// A walk of random operations that the bridge and a plain model of it take in step, on one thread.
#include <cctype>
#include <cstring>
#include <list>
#include <map>
#include <random>

#include "bridge_test.h"

namespace {

using bridge::Control;

struct Operation {
  char kind;  // as in Real
  Endpoint& end;
  std::shared_ptr<void> receiver;  // a ServerFunction for V, else a SubscriberFunction
  std::any message;
  bridge::RequestCallback request;
  unsigned long number;
};

// Through the flat functions where there is one.
struct Real {
  static bool Do(Operation& op) {
    auto& bridge = Zorvix::GetInstance();
    const auto subscriber = std::static_pointer_cast<SubscriberFunction>(op.receiver);
    const auto server = std::static_pointer_cast<ServerFunction>(op.receiver);
    if (op.kind == 'P') ZorvixRegisterPublisher(op.end);
    if (op.kind == 'p') ZorvixUnregisterPublisher(op.end);
    if (op.kind == 'C') ZorvixRegisterClient(op.end);
    if (op.kind == 'c') ZorvixUnregisterClient(op.end);
    if (op.kind == 'S') ZorvixRegisterSubscriber(op.end, subscriber);
    if (op.kind == 's') ZorvixUnregisterSubscriber(op.end, Handle(subscriber));
    if (op.kind == 'V') ZorvixRegisterServer(op.end, server);
    if (op.kind == 'v' && op.number == 0) ZorvixUnregisterServer(op.end);
    if (op.kind == 'v' && op.number != 0) bridge.UnregisterServer(op.end, op.number);
    if (op.kind == 'a') bridge.SignleAsyncAutoRemove(op.end, subscriber);
    if (op.kind == '*') op.number == 0 ? ZorvixSpinOnce() : bridge.SpinOnce();
    if (op.kind == '1') return ZorvixRunOneceStep();
    if (op.kind == '!') return ZorvixPublish(op.end, std::move(op.message));
    return op.kind == '?' && ZorvixCall(op.end, std::move(op.request));
  }
};

// The same as the bridge's header tells it, for one thread.
class Model {
 public:
  bool Do(Operation& op) {
    if (op.kind == '1') return RunOne();
    for (bool more = op.kind == '*'; more;) more = RunOne();
    if (std::strchr("*=0", op.kind)) return false;
    if (op.kind == 'a') return DropOneShot(op.end.get(), op.receiver);
    const auto failed = (op.kind == 'p' || op.kind == 'c' ? "W: " : "E: ") + Failed(op.kind);
    if (!op.end) return Say(failed + "control is nullptr!");
    if (op.kind == '!' && !op.message.has_value()) return Say(failed + "message is empty!");
    if (std::strchr("SV", op.kind) && !op.receiver) return Say(failed + "callback is nullptr!");
    const auto name = Name(*op.end);
    if (std::isalpha(op.kind)) return std::isupper(op.kind) ? Join(op, name) : Leave(op, name);
    return Deliver(op, name);
  }
  bool Say(const std::string& text, const std::string& name = "") {  // up to its first zero byte
    return AddLine((text + name.c_str()).substr(0, 3 + 1023)), false;
  }

 private:
  using Receiver = std::shared_ptr<void>;

  bool Join(Operation& op, const std::string& name) {
    auto& entry = names_.try_emplace(name, op.end).first->second;
    if (entry.expired()) Say("W: register control is expired!"), entry = op.end;
    op.end = entry.lock();
    if (!std::strchr("SV", op.kind)) return false;
    auto& receivers = receivers_[{op.end.get(), op.kind}];
    receivers.push_back(op.receiver);
    if (op.kind == 'S' || receivers.size() == 1) return false;
    receivers.pop_front();
    return Say("W: callback is motified, real_name: ", name);
  }
  bool Leave(Operation& op, const std::string& name) {
    const std::string what = op.kind == 's' || op.kind == 'p' ? "real_topic_name: " : "real_name: ";
    const auto entry = names_.find(name);
    auto& receivers = receivers_[{op.end.get(), std::toupper(op.kind)}];
    op.end.reset();
    if (entry == names_.end())
      return Say("E: " + Failed(op.kind == 'v' ? 's' : op.kind) + what, name);
    if (entry->second.expired()) {
      names_.erase(entry);
      receivers.clear();
      return Say("I: control has been unregistered, " + what, name);
    }
    if (op.kind == 'p' || op.kind == 'c') return false;
    if (receivers.empty())
      return Say("I: callback not find, maybe has been unregistered, " + what, name);
    op.kind == 'v' ? receivers.clear() : receivers.remove(op.receiver);
    if (op.kind == 'v') return Say("I: callback has been unregistered, " + what, name);
    return receivers.empty() && Say("I: callback_list has been clear, " + what, name);
  }
  bool Deliver(Operation& op, std::string name) {
    const bool call = op.kind == '?';
    const auto receivers = receivers_[{op.end.get(), call ? 'V' : 'S'}];
    const auto type = op.end->bridge_type;
    if (receivers.empty())
      return call ? Say("W: Call failed, no server, server_name: ", name)
                  : Say("W: Publish failed, no subscriber, name: ", op.end->name);
    for (const auto& receiver : receivers) DropOneShot(op.end.get(), call ? nullptr : receiver);
    if (type < BridgeType::Sync || type > BridgeType::SignleAsync)
      return Say("E: Call failed, bridge_type is invalid!");
    for (const auto& receiver : receivers) {
      if (type == BridgeType::Sync) Run(call, receiver, op.message, op.request, name);
      if (type == BridgeType::Sync) continue;
      if (queue_.size() == 100) Say("W: event queue overflow, size: 100"), queue_.pop_front();
      queue_.push_back(
          [=, message = std::exchange(op.message, {}), request = std::exchange(op.request, {}),
           name = std::exchange(name, "")] { Run(call, receiver, message, request, name); });
    }
    return true;
  }
  bool DropOneShot(const Control* control, const Receiver& subscriber) {
    if (control == nullptr) return Say("E: control is nullptr!");
    if (control->bridge_type != BridgeType::SignleAsync) return false;
    const auto module = control->bridge_module;
    if (module == BridgeModule::Service) return receivers_[{control, 'V'}].clear(), false;
    if (module != BridgeModule::Topic || !subscriber) return Say("E: bridge_module is invalid!");
    return receivers_[{control, 'S'}].remove(subscriber), false;
  }
  bool RunOne() {
    if (queue_.empty()) return false;
    const auto task = std::move(queue_.front());
    queue_.pop_front();
    Say("I: event queue size: " + std::to_string(queue_.size()));
    return task(), true;
  }
  void Run(bool call, const Receiver& receiver, const std::any& message,
           const bridge::RequestCallback& request, const std::string& name) {
    const std::string macro = "_LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION";
    const auto who = std::string(", real_name: ") + name.c_str() +
                     ", callback_handle: " + testing::PrintToString(receiver.get());
    try {
      call ? request(*static_cast<ServerFunction*>(receiver.get()))
           : (*static_cast<SubscriberFunction*>(receiver.get()))(message);
    } catch (const std::bad_cast& error) {
      Say("E: error: ", error.what() + (", " + macro + ": 2") + who +
                            ". make sure that the compiler macro " + macro + "=2");
    } catch (const std::exception& error) {
      Say("E: callback failed! error: ", error.what() + who);
    }
  }
  std::string Name(const Control& control) {
    const auto module = std::min(static_cast<unsigned>(control.bridge_module), 2u);
    const auto type = std::min(static_cast<unsigned>(control.bridge_type), 3u);
    if (module == 2) Say("E(zorvix.h): Unknown BridgeModule!");
    if (type == 3) Say("E(zorvix.h): Unknown BridgeType!");
    return control.name + Lines{"/Topic", "/Service", "/Unknown"}[module] +
           Lines{"/Sync", "/Async", "/SignleAsync", "/Unknown"}[type];
  }

  static std::string Failed(char kind) {
    const auto end = std::string_view("PCSV!?").find(static_cast<char>(std::toupper(kind)));
    const std::string verb = end > 3 ? "" : std::isupper(kind) ? "Register" : "Unregister";
    const Lines ends{"Publisher", "Client", "Subscriber", "Server", "Publish", "Call"};
    return verb + ends[end] + " failed, ";
  }

  std::map<std::string, std::weak_ptr<const Control>> names_;
  std::map<std::pair<const Control*, int>, std::list<Receiver>> receivers_;  // by S or V
  std::list<bridge::Task> queue_;
};

std::function<void(const std::string&)> react;  // of the walk that takes a step

struct Payload {
  explicit Payload(std::shared_ptr<int> share) : owner(std::move(share)) {}
  Payload(const Payload&) { throw 0; }  // the bridge moves what it is given
  Payload(Payload&&) noexcept = default;
  std::shared_ptr<int> owner;
};

struct Named {
  void operator()(const std::any& message) const {
    react(std::string(name) + (message.has_value() ? " gets the message" : " gets nothing"));
  }
  void operator()(const std::any& request, std::any& response) const {
    react(name);
    response = request;
  }
  const char* name;
};

// Both walks share the function objects, since lines tell their addresses. The last are empty.
SubscriberFunction subscribers[] = {Named{"a"}, Named{"b"}, Named{"c"}, {}};
ServerFunction servers[] = {Named{"server a"}, Named{"server b"}, {}};

template <typename Subject>
class Walk {
 public:
  explicit Walk(unsigned seed) : random_(seed) {
    // Around what is composed in place, around what a line holds, and longer; and in each walk two
    // that are equal up to a zero byte. Seeds have names of their own, since some are left behind.
    static constexpr std::size_t kSizes[] = {0, 115, 970, 1030};
    names_[0] = seed == 0 ? "" : std::to_string(seed);
    names_[0].resize(std::max(names_[0].size(), kSizes[seed % 4]), '%');
    names_[1] = names_[0] + std::string("\0x", 2);
    for (auto& share : shares_) share = std::make_shared<int>();
  }

  // Takes a step of so many operations at most and returns all that came of it. The last one has
  // none and empties the queue.
  std::string Step(int operations) {
    left_ = operations;
    react = [this](const std::string& what) { React(what); };
    Operate(operations == 0 ? '*' : Choose());
    std::string result;
    for (const auto& line : TakeLog()) result += line + '\n';
    for (const auto& share : shares_) result += std::to_string(share.use_count()) + " shares ";
    for (const auto& control : alive_) result += std::to_string(control.use_count()) + " owners ";
    return result;
  }

 private:
  unsigned long Below(unsigned long bound) { return random_() % bound; }

  // One of Real, or copying or dropping an endpoint.
  char Choose() {
    return "PPPCCCSSSSSSSSSVVVVVVppccssssvv!!!!!!!!!!!!????????????a==0111111*"[Below(66)];
  }

  void React(const std::string& what) {
    Log(what);
    for (auto i = Below(3); i > 0 && left_ > 0; --i) Operate(Choose());
    const auto fate = left_ > 0 ? Below(12) : 12;
    if (fate < 2) throw std::runtime_error("bad luck");
    if (fate == 2) throw std::bad_any_cast();
    if (fate == 3) throw std::bad_cast();
    if (fate == 4) throw 1;
  }

  // Takes the first free place, where an earlier Control may have left its callbacks.
  Endpoint Describe() {
    std::size_t place = 0;
    while (!alive_[place].expired()) ++place;
    const BridgeModule module{"00000111112/"[Below(12)] - '0'};
    const BridgeType type{"0001112223/"[Below(11)] - '0'};
    const auto& other = ends_[Below(6)];
    controls_[place] = other && Below(2) ? *other : Control{names_[Below(2)], module, type};
    Endpoint end(std::make_shared<int>(), &controls_[place]);
    alive_[place] = end;
    return end;
  }

  void Operate(char kind) {
    --left_;
    Operation op{kind, ends_[Below(6)], {}, {}, {}, Below(2)};
    const auto i = Below(5);
    if (kind == 'V' && i < 3) op.receiver = {shares_[4 + i], &servers[i]};
    if (kind != 'V' && i < 4) op.receiver = {shares_[i], &subscribers[i]};
    if (kind == '!' && Below(16) > 0) op.message = Payload(shares_[7]);
    if (kind == '?' && Below(16) > 0) {
      op.request = [this, payload = Payload(shares_[7])](auto& serve) {
        React("request to server " + std::to_string(&serve - servers));
        std::any response;
        serve(42, response);
        Log("answer " + std::to_string(std::any_cast<int>(response)));
      };
    }
    if (!op.end && Below(std::isupper(kind) ? 16 : 3) > 0) op.end = Describe();
    if (kind == '=') op.end = ends_[Below(6)];
    if (kind == '0') op.end.reset();
    std::string note(1, kind);
    try {
      note += subject_.Do(op) ? " true" : "";
    } catch (int) {
      note += " throws";
    }
    note += op.message.has_value() || op.request ? " keeps " : " ";
    Log(note + std::to_string(op.end ? op.end.get() - controls_ : -1));
  }

  std::mt19937 random_;
  int left_ = 0;  // operations of this step
  std::string names_[2];
  Control controls_[12];
  std::weak_ptr<const Control> alive_[12];
  std::shared_ptr<int> shares_[8];  // of subscribers, servers, and all messages and requests
  Subject subject_;
  Endpoint ends_[6];
};

TEST_F(Bridge, DoesWhatTheModelDoes) {
  static std::list<Walk<Real>> real;  // kept, since their Controls have callbacks in the bridge
  for (unsigned seed = Seed(), end = seed + 12; seed != end; ++seed) {
    real.emplace_back(seed);
    Walk<Model> model(seed);
    for (int step = 3000; step >= 0; --step) {
      const int most = step > 0 ? 30 : 0;
      ASSERT_EQ(model.Step(most), real.back().Step(most)) << "ZORVIX_SEED=" << seed;
    }
  }
}

}  // namespace
