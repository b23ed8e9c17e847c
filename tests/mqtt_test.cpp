// MQTT against a real broker. Both sides are in this process: the near one has the prefix "x/", so
// its topic "in" is "x/in" for the far one, which has no prefix.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <zorvix/inspect.h>
#include <zorvix/mqtt.h>
#include <zorvix/publisher.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "broker.h"
#include "log_capture.h"
#include "threads.h"

using namespace std::chrono_literals;
using zorvix::Holder;
using zorvix::KeepLast;
using zorvix::Publisher;
using zorvix::State;
using zorvix::Subscriber;
using zorvix::Topic;
using zorvix::Watcher;
using zorvix::mqtt::Connection;
using zorvix::mqtt::Export;
using zorvix::mqtt::Import;
using zorvix::mqtt::Options;
using zorvix::mqtt::Status;
using zorvix::mqtt::Will;

namespace {

const Topic<std::string> kNear{"in"};
const Topic<std::string> kFar{"x/in"};
const State<std::string> kNearState{"state"};
const State<std::string> kFarState{"x/state"};

const char* const kPersistent = "allow_anonymous true\npersistence true\npersistence_location ./\n";

std::string Text(const std::string& text) { return text; }

template <typename Server>
Options For(const Server& server, const std::string& prefix, const std::string& client_id = "") {
  Options options;
  options.port = server.port();
  options.topic_prefix = prefix;
  options.client_id = client_id;
  options.max_reconnect_delay = 200ms;
  options.status = {"status of " + prefix};
  return options;
}

void Log(const std::string& text) { AddLine("got " + text); }

// The messages that Log has seen.
Lines Got(const Lines& log) {
  Lines got;
  for (const auto& line : log) {
    if (line.rfind("got ", 0) == 0) got.push_back(line.substr(4));
  }
  return got;
}

zorvix::HandleInfo Find(const std::string& kind, const std::string& name) {
  for (const auto& handle : zorvix::Inspect()) {
    if (handle.kind == kind && handle.name == name) return handle;
  }
  return {};
}

class Mqtt : public testing::Test {
 protected:
  void SetUp() override { TakeLog(); }
};

// Exports kNear and receives it as kFar.
struct Line {
  Line(const Options& near_options, const Options& far_options, KeepLast keep = {})
      : near(near_options),
        far(far_options),
        out(near, kNear, Text, keep),
        in(far, kFar, Text),
        see(kFar, Log) {
    WaitForLog("MQTT connected", 2);
    WaitForLog("MQTT subscribed");
  }
  template <typename Server>
  explicit Line(const Server& server, KeepLast keep = {})
      : Line(For(server, "x/"), For(server, "", "far"), keep) {}

  Connection near;
  Connection far;
  Export out;
  Import in;
  Subscriber<std::string> see;
  Publisher<std::string> publisher{kNear};
};

// A broker that runs.
struct Running : Broker {
  explicit Running(const std::string& settings = "allow_anonymous true\n") : Broker(settings) {
    Start();
  }
};

// A session that keeps kFar while nobody is connected to it.
struct Session {
  Session() {
    Connection far(options);
    auto in = std::make_unique<Import>(far, kFar, Text);
    WaitForLog("MQTT subscribed");
    in.reset();
    const Import behind_it(far, Topic<std::string>{"behind it"}, Text);
    WaitForLog("MQTT subscribed", 2);
    TakeLog();
  }
  Running broker;
  Options options = For(broker, "", "far");
  Connection near{For(broker, "x/")};
  Export out{near, kNear, Text, KeepLast{100}};
  Publisher<std::string> publisher{kNear};
};

}  // namespace

TEST_F(Mqtt, CarriesMessagesOverEachTransport) {
  const std::string tls = "cafile ca.pem\ncertfile good.pem\nkeyfile good.key\n";
  const std::string password = "password_file passwords\n";
  struct Row {
    const char* name;
    std::string broker;
    const char* username;
    const char* ca_file;
    const char* certificate;  // of the client
  };
  const Row rows[] = {
      {"password on this machine", password, "user", "", ""},
      {"password and TLS", password + tls, "user", "ca", ""},
      {"certificate", "allow_anonymous true\nrequire_certificate true\n" + tls, "", "ca", "client"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Broker broker(row.broker);
    MakeCredentials(broker.folder());
    broker.Start();
    const auto file = [&](const std::string& name, const char* suffix) {
      return name.empty() ? "" : broker.folder() + "/" + name + suffix;
    };
    auto options = For(broker, "x/");
    options.username = row.username;
    options.password = options.username.empty() ? "" : "secret";
    options.ca_file = file(row.ca_file, ".pem");
    options.certificate_file = file(row.certificate, ".pem");
    options.key_file = file(row.certificate, ".key");
    auto far_options = options;
    far_options.topic_prefix.clear();
    far_options.status = {"status of the far one"};
    const Line line(options, far_options);

    line.publisher.Publish("hello");

    WaitForLog("got hello");
    EXPECT_EQ(Count(TakeLog(), "secret"), 0u);
  }
}

namespace {

// A broker with TLS, and the certificate of this name.
std::string WithTls(const std::string& name) {
  return "password_file passwords\ncafile ca.pem\ncertfile " + name + ".pem\nkeyfile " + name +
         ".key\n";
}

void KeepOptions(Options&, const Broker&) {}
void WithoutTls(Options& options, const Broker&) { options.ca_file.clear(); }

std::function<zorvix::mqtt::Credentials()> At(const std::string& username,
                                              const std::string& password) {
  return [=] {
    AddLine("attempt");
    return zorvix::mqtt::Credentials{username, password};
  };
}

struct Unconnectable {
  const char* reason;
  std::string broker;
  void (*change)(Options& options, const Broker& broker);
  int connections = 1;
};
const Unconnectable kUnconnectable[] = {
    {"unknown authority", WithTls("good"),
     [](Options& options, const Broker& broker) {
       options.ca_file = broker.folder() + "/other-ca.pem";
     }},
    {"has expired", WithTls("expired"), KeepOptions},
    {"another host name", WithTls("other-host"), KeepOptions},
    {"another host name", WithTls("common-name"), KeepOptions},
    {"ends the TLS handshake: it may", WithTls("good") + "require_certificate true\n", KeepOptions},
    {"ends the TLS handshake: it may not speak TLS", "allow_anonymous true\n", KeepOptions},
    {"refuses the user name or password", WithTls("good"),
     [](Options& options, const Broker&) { options.credentials = At("user", "wrong secret"); }},
    {"with these options: the username", WithTls("good"),
     [](Options& options, const Broker&) { options.credentials = At("\xff", "secret"); }},
    {"the host is unknown", WithTls("good"),
     [](Options& options, const Broker&) { options.host = "no such host"; }},
    {"the host refuses the connection", WithTls("good"),
     [](Options& options, const Broker&) { options.port = 1; }},
    {"closed by the other side", WithTls("good"), WithoutTls},
    {"another client may have this client_id", "allow_anonymous true\n", WithoutTls, 2},
};

}  // namespace

TEST_F(Mqtt, WarnsOnceForEachCauseAndTriesAgain) {
  const Broker credentials;
  MakeCredentials(credentials.folder());
  for (const auto& row : kUnconnectable) {
    SCOPED_TRACE(row.reason);
    Broker broker(row.broker);
    using std::filesystem::copy_options;
    std::filesystem::copy(credentials.folder(), broker.folder(),
                          copy_options::recursive | copy_options::skip_existing);
    broker.Start();
    auto options = For(broker, "", "twin");
    options.ca_file = broker.folder() + "/ca.pem";
    options.credentials = At("user", "secret");
    row.change(options, broker);
    TakeLog();
    const Watcher status(options.status, [](const Status&) { AddLine("new status"); });
    std::list<Connection> connections;
    for (int count = 0; count < row.connections; ++count) connections.emplace_back(options);
    WaitForLog("attempt", 5);

    const auto log = TakeLog();
    const auto warnings = static_cast<std::size_t>(row.connections);
    EXPECT_EQ(Count(log, "MQTT not connected, broker: "), warnings) << testing::PrintToString(log);
    EXPECT_EQ(Count(log, row.reason), warnings) << testing::PrintToString(log);
    if (row.connections == 1) {
      EXPECT_EQ(Count(log, "new status"), 2u);  // "not yet", and why
    }
    EXPECT_EQ(Count(log, "secret"), 0u);
  }
}

TEST_F(Mqtt, PausesGrowUpToALimitAlsoWhileTheBrokerAcceptsAndHangsUp) {
  struct Row {
    const char* cut_at;
    std::string answer;
    const char* reason;
  };
  const Row rows[] = {
      {"MQTT", "", "the connection was closed by the other side"},
      {"poison", "", "the connection was closed by the other side"},
#ifndef __SANITIZE_THREAD__  // libmosquitto unlocks a mutex once too often at a DISCONNECT
      {"poison", {'\xE0', 2, '\x8E', 0}, "another client connects with this client_id"},
      {"poison", {'\xE0', 2, '\x8B', 0}, "the broker ends the connection: "},
      {"poison", {'\xE0', 2, '\x95', 0}, "the broker refuses what it was sent: "},
#endif
      {"poison", {'\x10', 0}, "the broker breaks the protocol"},  // no packet of a broker
      {"poison", {'\xF0', 0}, "the broker breaks the protocol"},  // a short one
  };
  Running broker;
  Proxy proxy(broker.port());
  for (const auto& [cut_at, answer, reason] : rows) {
    SCOPED_TRACE(reason);
    proxy.CutAt(cut_at, answer);
    auto options = For(proxy, "");
    options.max_reconnect_delay = 400ms;
    std::vector<std::chrono::steady_clock::time_point> attempts;
    options.credentials = [&] {
      attempts.push_back(std::chrono::steady_clock::now());
      AddLine("attempt");
      return zorvix::mqtt::Credentials{};
    };
    Connection connection(options);
    const Import in(connection, kNear, Text, "poison");  // subscribes when it is connected
    WaitForLog("attempt", 6);

    // A pause may be a quarter shorter.
    EXPECT_GE(attempts[4] - attempts[3], 300ms);
    EXPECT_GE(attempts[5] - attempts[4], 300ms);
    const auto log = TakeLog();
    EXPECT_EQ(Count(log, "MQTT not connected"), 1u);
    EXPECT_EQ(Count(log, reason), 1u) << testing::PrintToString(log);
  }
}

TEST_F(Mqtt, LosesNothingWhenTheBrokerRestarts) {
  constexpr int kCount = 10'000;
  const Topic<int> near_topic{"in"};
  const Topic<int> far_topic{"x/in"};
  Running broker(kPersistent);
  Connection near(For(broker, "x/"));
  Connection far(For(broker, "", "far"));
  const auto write = [](int number) { return std::to_string(number); };
  const Export out(near, near_topic, write, KeepLast{kCount});
  const Import in(far, far_topic, [](const std::string& text) { return std::stoi(text); });
  int last = 0;
  const Subscriber see(far_topic, [&](int number) {
    EXPECT_LE(number, last + 1);
    last = std::max(last, number);
    if (number % 1'000 == 0) Log(std::to_string(number));
  });
  WaitForLog("MQTT subscribed");

  auto publishing = std::async(std::launch::async, [&] {
    for (int number = 1; number <= kCount; ++number) Publisher(near_topic).Publish(number);
  });
  for (const char* const reached : {"got 1000", "got 4000"}) {
    WaitForLog(reached);
    broker.Stop();
    broker.Start();
  }

  WaitForLog("got 10000");
}

TEST_F(Mqtt, KeepsTheLastMessagesWhileTheBrokerIsAway) {
  Running broker(kPersistent);
  const Line line(broker, KeepLast{3});
  broker.Stop();
  WaitForLog("MQTT not connected", 2);

  for (int number = 0; number < 10; ++number) line.publisher.Publish(std::to_string(number));
  const auto away = Find("Export", "in");
  broker.Start();
  WaitForLog("got 9");

  EXPECT_EQ(Got(TakeLog()), (Lines{"7", "8", "9"}));
  EXPECT_EQ(away.pending, 3u);
  EXPECT_EQ(away.dropped, 7u);
}

TEST_F(Mqtt, AClearedStateHasNoValueForLaterWatchers) {
  Running broker;
  Line line(broker);
  Holder<std::string> holder(kNearState);
  const Export out(line.near, kNearState, Text);
  const Import in(line.far, kFarState, Text);
  const Watcher early(kFarState);
  holder.Set("value");
  early.WaitForValue();

  holder.Set("");
  line.publisher.Publish("behind it");
  WaitForLog("got behind it");

  EXPECT_EQ(*early.Latest(), "value");
  EXPECT_EQ(Watcher(kFarState).Latest(), nullptr);
}

TEST_F(Mqtt, BadPayloadsReachNobodyAndAreLoggedWithoutTheirText) {
  Running broker;
  Connection near(For(broker, "x/"));
  const Export out(near, kNear, Text, zorvix::KeepAll());
  auto options = For(broker, "");
  options.max_payload_size = 20;
  Connection far(options);
  const Import in(far, kFar, [](const std::string& text) {
    if (text.size() > 20) Log("a payload over the limit");
    if (text.find("secret") == 0) throw std::runtime_error(text);
    return text;
  });
  const Subscriber see(kFar, Log);
  WaitForLog("MQTT subscribed");

  for (int count = 0; count < 100; ++count) Publisher(kNear).Publish("secret text");
  Publisher(kNear).Publish(std::string(21, 'x'));
  Publisher(kNear).Publish(std::string(1 << 20, 'z'));  // the broker does not even send it
  Publisher(kNear).Publish(std::string(20, 'y'));
  WaitForLog("got yyy");

  const auto log = TakeLog();
  EXPECT_EQ(Got(log), Lines{std::string(20, 'y')});
  EXPECT_EQ(Find("Import", "x/in").dropped, 101u);
  EXPECT_EQ(Count(log, "secret"), 0u);
  EXPECT_LT(Count(log, "MQTT import rejects messages, name: x/in"), 5u);
}

namespace {

struct BadOptions {
  const char* name;
  void (*spoil)(Options& options);
};
const BadOptions kBadOptions[] = {
    {"password to another machine", [](Options& options) { options.host = "broker.example"; }},
    {"credentials to another machine",
     [](Options& options) {
       options.username = options.password = "";
       options.host = "broker.example";
       options.credentials = [] { return zorvix::mqtt::Credentials{}; };
     }},
    {"no such ca_file", [](Options& options) { options.ca_file = "/nowhere"; }},
    {"certificate without TLS",
     [](Options& options) { options.certificate_file = options.key_file = "/nowhere"; }},
    {"key without certificate", [](Options& options) { options.key_file = "/nowhere"; }},
    {"password without a name", [](Options& options) { options.username = ""; }},
    {"password with a zero", [](Options& options) { options.password += '\0'; }},
    {"long password", [](Options& options) { options.password = std::string(70'000, 'x'); }},
    {"username", [](Options& options) { options.username = "\xff"; }},
    {"no UTF-8 in the client_id", [](Options& options) { options.client_id = "\xff"; }},
    {"zero in the client_id", [](Options& options) { options.client_id += '\0'; }},
    {"control character", [](Options& options) { options.client_id = "a\nb"; }},
    {"long client_id", [](Options& options) { options.client_id = std::string(70'000, 'x'); }},
    {"port", [](Options& options) { options.port = 65'536; }},
    {"pause", [](Options& options) { options.max_reconnect_delay = -1ms; }},
    {"close_timeout", [](Options& options) { options.close_timeout = -1ms; }},
    {"keep_alive", [](Options& options) { options.keep_alive = 9s; }},
    {"status_topic", [](Options& options) { options.status_topic = "a/#"; }},
    {"two last wills",
     [](Options& options) {
       options.last_will = Will{"a", "", true};
     }},
    {"topic of the last will",
     [](Options& options) {
       options.status_topic = "";
       options.last_will = Will{"a/#", "", true};
     }},
};

}  // namespace

TEST_F(Mqtt, RefusesWhatCannotWork) {
  const Broker broker;
  auto good = For(broker, "");
  good.username = "user";
  good.password = "secret";
  good.status_topic = "status";
  Connection connection(good);
  for (const auto& row : kBadOptions) {
    SCOPED_TRACE(row.name);
    auto options = good;
    row.spoil(options);
    EXPECT_THROW(Connection{options}, std::invalid_argument);
  }
  for (const std::string name : {"", "a/+/b", "a/#", "$SYS/a", "\xff", "a\nb"}) {
    SCOPED_TRACE(name);
    const Topic<std::string> topic{name};
    EXPECT_THROW(const Export out(connection, topic, Text), std::invalid_argument);
    EXPECT_THROW(const Import in(connection, topic, Text), std::invalid_argument);
  }
  // Before 2.0.16, packets of any host that answers could crash it.
  const auto version =
      reinterpret_cast<int (*)(int*, int*, int*)>(dlsym(RTLD_DEFAULT, "mosquitto_lib_version"));
  if (version(nullptr, nullptr, nullptr) < 2'000'016) {
    auto options = For(broker, "");
    options.host = "broker.example";
    EXPECT_THROW(Connection{options}, std::invalid_argument);
  }
}

TEST_F(Mqtt, WhatIsImportedIsNotExported) {
  Running broker;
  Line line(broker);
  const Import back(line.near, kNear, Text);
  const Export far_out(line.far, kFar, Text);
  const Subscriber answer(kNear, [&](const std::string& text) {
    AddLine("near: " + text);
    if (text == "ping") Publisher(kNear).Publish("pong");  // this is not what was imported
  });
  WaitForLog("MQTT subscribed", 2);

  Publisher(kFar).Publish("ping");
  WaitForLog("got pong");
  Publisher(kFar).Publish("end");
  WaitForLog("near: end");
  line.publisher.Publish("behind it");
  WaitForLog("got behind it");

  const auto log = TakeLog();
  EXPECT_EQ(Got(log), (Lines{"ping", "pong", "end", "behind it"}));
  EXPECT_EQ(Count(log, "near: pong"), 1u);
}

TEST_F(Mqtt, TheDestructorSendsWhatIsPending) {
  constexpr int kMany = 1'000;
  Running broker;
  Connection far(For(broker, ""));
  const Import in(far, kFar, Text);
  const Subscriber see(kFar, [&](const std::string& text) {
    if (text == std::to_string(kMany)) Log(text);
  });
  WaitForLog("MQTT subscribed");
  {
    auto options = For(broker, "x/");
    options.close_timeout = 30s;
    Connection near(options);
    const Export out(near, kNear, Text, KeepLast{kMany});
    for (int number = 1; number <= kMany; ++number) {
      Publisher(kNear).Publish(std::to_string(number));
    }
  }

  WaitForLog("got 1000");
  EXPECT_EQ(Count(TakeLog(), "messages not sent: 0"), 1u);
}

TEST_F(Mqtt, TheDestructorDoesNotWaitForABrokerThatIsSilent) {
  Running silent;
  silent.Freeze();
  auto connection = std::make_unique<Connection>(For(silent, ""));
  const Export out(*connection, kNear, Text);
  Publisher(kNear).Publish("text");

  const auto start = std::chrono::steady_clock::now();
  connection.reset();

  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(Count(TakeLog(), "messages not sent: 1"), 1u);
}

TEST_F(Mqtt, HandlesMayBeDestroyedAtAnyMoment) {
  Running broker;
  std::atomic<bool> stop{false};
  auto publishing = std::async(std::launch::async, [&] {
    while (!stop) Publisher(kNear).Publish("text");
  });
  const Subscriber see(kFar, [](auto&) {});
  for (int round = 0; round < 30; ++round) {
    auto options = For(broker, "x/");
    options.close_timeout = 10ms;
    std::optional<Connection> near(options);
    std::optional<Connection> far(For(broker, ""));
    bool alive = true;
    auto out = std::make_unique<Export>(*near, kNear, [&](const std::string& text) {
      EXPECT_TRUE(alive);
      return text;
    });
    auto in = std::make_unique<Import>(*far, kFar, [&](const std::string& text) {
      EXPECT_TRUE(alive);
      return text;
    });
    if (round % 3 == 0) WaitForLog("MQTT subscribed");
    std::this_thread::sleep_for(std::chrono::milliseconds(round % 5));
    if (round % 2 == 0) near.reset();
    if (round % 4 < 2) far.reset();
    out.reset();
    in.reset();
    alive = false;
    TakeLog();
  }
  stop = true;
}

TEST_F(Mqtt, ASubscriberMayDestroyItsConnectionWhichAcknowledgesNothingMore) {
  Session session;
  std::optional<Connection> far(session.options);
  auto in = std::make_unique<Import>(*far, kFar, Text);
  const Export far_out(*far, kNear, Text, KeepLast{100}, "answers");
  const Subscriber see(kFar, [&](const std::string& text) {
    Log(text);
    if (text == "1") {
      in.reset();
      far.reset();
    }
  });
  WaitForLog("MQTT subscribed");
  HoldLog("got 0");

  session.publisher.Publish("0");
  WaitForLog("got 0");
  for (int number = 1; number <= 10; ++number) session.publisher.Publish(std::to_string(number));
  EXPECT_TRUE(ComesTrue([&] { return session.near.counters().acknowledged == 11; }));
  HoldLog("");  // It reads more than one message while it has some to send.
  WaitForLog("MQTT closed", 2);
  EXPECT_EQ(Count(TakeLog(), "got 2"), 0u);

  Connection later(session.options);
  const Import later_in(later, kFar, Text);
  WaitForLog("got 10");
  EXPECT_GE(Got(TakeLog()).size(), 9u);
}

TEST_F(Mqtt, InspectHasARowForAnExportAndOneForAnImport) {
  const Broker absent;
  Connection connection(For(absent, ""));
  const Export out(connection, kNear, Text, KeepLast{7});
  const Export state_out(connection, kNearState, Text);
  const Import in(connection, kFar, Text);
  const Import state_in(connection, kFarState, Text);

  Lines rows;
  for (const auto& handle : zorvix::Inspect()) rows.push_back(handle.kind + " " + handle.name);

  // The connection has an inbox, and its status is a state.
  EXPECT_EQ(rows, (Lines{"Export in", "Inbox mqtt", "Export state", "Holder status of ",
                         "Import x/in", "Import x/state"}));
  EXPECT_EQ(Find("Export", "in").depth, 7u);
}

TEST_F(Mqtt, AnAcknowledgedStateIsNotPending) {
  Running broker;
  Holder<std::string> holder(kNearState);
  {
    Connection connection(For(broker, "x/"));
    const Export out(connection, kNearState, Text);
    holder.Set("value");
    EXPECT_TRUE(ComesTrue([&] { return connection.counters().acknowledged == 1; }));
    EXPECT_EQ(Find("Export", "state").pending, 0u);
    broker.Stop();
    WaitForLog("MQTT not connected");
  }
  EXPECT_EQ(Count(TakeLog(), "messages not sent: 0"), 1u);
}

TEST_F(Mqtt, AnExportThatReplacesAnotherOneSendsItsStateOnEachConnect) {
  Running broker;
  Connection near(For(broker, "x/"));
  const Holder<std::string> holder = [] {
    Holder<std::string> its(kNearState);
    for (const char* const value : {"old", "value"}) its.Set(value);
    return its;
  }();
  Export out(near, kNearState, Text);
  out = Export(near, kNearState, Text);
  EXPECT_TRUE(ComesTrue([&] { return near.counters().acknowledged == 2; }));

  broker.Stop();  // and forgets
  broker.Start();
  Connection far(For(broker, ""));
  const Import in(far, kFarState, Text);

  EXPECT_EQ(*Watcher(kFarState).WaitForValue(), "value");
}

TEST_F(Mqtt, AStateThatOthersHoldNowIsNotSentAgain) {
  Running broker;
  Proxy proxy(broker.port());
  Connection near(For(proxy, "x/"));
  Connection far(For(broker, ""));
  const Export out(near, kNearState, Text);
  const auto connected = [&] { return near.counters().connections; };
  {
    Holder<std::string> holder(kNearState);
    holder.Set("old");
    EXPECT_TRUE(ComesTrue([&] { return near.counters().acknowledged == 1; }));
  }
  const Import in(near, kNearState, Text);
  Holder<std::string> holder(kFarState);
  const Export far_out(far, kFarState, Text);
  const Watcher near_watcher(kNearState, Log);
  holder.Set("new");
  WaitForLog("got new");

  const auto before = connected();
  proxy.Cut();
  EXPECT_TRUE(ComesTrue([&] { return connected() > before; }));
  WaitForLog("got new", 2);  // the retained message, after whatever the export has sent

  EXPECT_EQ(near.counters().sent, 1u);
  EXPECT_EQ(*near_watcher.Latest(), "new");
}

TEST_F(Mqtt, ASessionKeepsMessagesUntilTheirImportIsConstructed) {
  Session session;
  const Subscriber see(kFar, [](const std::string& text) { Log(text.substr(0, 10)); });
  session.publisher.Publish("meanwhile");
  for (int count = 0; count < 20; ++count) session.publisher.Publish(std::string(250'000, 'x'));
  session.publisher.Publish("too much");
  EXPECT_TRUE(ComesTrue([&] { return session.near.counters().acknowledged == 22; }));

  Connection far(session.options);
  EXPECT_TRUE(ComesTrue([&] { return far.counters().received == 22; }));
  WaitForLog("MQTT import rejects messages, name: x/in, so far: ");
  const Import in(far, kFar, Text);
  WaitForLog("got ", 17);

  auto log = TakeLog();
  EXPECT_EQ(Got(log).front(), "meanwhile");
  EXPECT_GE(Count(log, "too much arrives before its import is constructed"), 1u);
}

TEST_F(Mqtt, MessagesThatNobodyImportsAreRejectedAfterTenSeconds) {
  Session session;
  for (const char* const text : {"one", "two"}) session.publisher.Publish(text);
  EXPECT_TRUE(ComesTrue([&] { return session.near.counters().acknowledged == 2; }));

  const Connection far(session.options);

  WaitForLog("name: x/in, so far: 2, last reason: no import is constructed within 10 s");
}

TEST_F(Mqtt, WithoutAClientIdTheBrokerKeepsNothing) {
  Running broker;
  Proxy proxy(broker.port());
  const Line line(For(broker, "x/"), For(proxy, ""));

  proxy.CutAt("MQTT");  // connects no more
  proxy.Cut();
  WaitForLog("MQTT not connected");
  line.publisher.Publish("meanwhile");
  EXPECT_TRUE(ComesTrue([&] { return line.near.counters().acknowledged == 1; }));
  proxy.CutAt("");
  WaitForLog("MQTT subscribed", 2);
  line.publisher.Publish("later");
  WaitForLog("got later");

  EXPECT_EQ(Got(TakeLog()), Lines{"later"});
}

TEST_F(Mqtt, AMessageIsAcknowledgedAfterItsImportHasPublishedIt) {
  Running broker;
  Proxy proxy(broker.port());
  const Line line(For(broker, "x/"), For(proxy, "", "far"));
  const Subscriber cut(kFar, [&, is_first = true](const std::string&) mutable {
    if (!std::exchange(is_first, false)) return;
    proxy.Cut();
    EXPECT_TRUE(ComesTrue([&] { return proxy.connections() == 0; }));
  });

  line.publisher.Publish("text");

  WaitForLog("got text", 2);
}

TEST_F(Mqtt, TheWindowIsBoundedInBytes) {
  constexpr std::size_t kMegabyte = 1 << 20;
  Running broker;
  Connection near(For(broker, "x/"));
  const Export out(near, kNear, Text, KeepLast{1});
  WaitForLog("MQTT connected");
  broker.Freeze();

  for (int count = 0; count < 30; ++count) {
    Publisher(kNear).Publish(std::string(kMegabyte, 'x'));
    LetOthersRun();
  }

  EXPECT_LE(near.counters().bytes_sent, 2 * kMegabyte);
  EXPECT_GE(Find("Export", "in").dropped, 27u);
}

TEST_F(Mqtt, NothingIsLeftOfAnExportWithNothingPending) {
  Broker absent;
  Connection near(For(absent, "x/"));
  WaitForLog("MQTT not connected");
  const auto construct = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const Export out(near, kNear, Text);
      const Export state(near, kNearState, Text);
      const Import in(near, kFar, Text);
      if (i % 100 == 0) TakeLog();
    }
  };
  construct(100);

  const auto before = mallinfo2().uordblks;
  construct(2'000);

  EXPECT_TRUE(ComesTrue([&] { return mallinfo2().uordblks < before + 500'000; }));
}

TEST_F(Mqtt, AMessageAtWhichTheBrokerHangsUpIsRejected) {
  Running broker;
  Proxy proxy(broker.port());
  proxy.CutAt("poison");
  Line line(proxy);
  Holder<std::string> holder(kNearState);
  const Export state(line.near, kNearState, Text);
  HoldLog("MQTT connected");  // so that all are sent at the same time

  proxy.Cut();
  WaitForLog("MQTT connected", 3);
  for (const char* const text : {"first", "poison", "last"}) line.publisher.Publish(text);
  holder.Set("poison");
  HoldLog("");
  WaitForLog("got last");
  WaitForLog("MQTT export rejects messages, name: state");
  line.publisher.Publish("behind it");
  WaitForLog("got behind it");
  const auto connections = line.near.counters().connections;
  line.publisher.Publish("the end");
  WaitForLog("got the end");

  EXPECT_EQ(line.near.counters().connections, connections);
  const auto log = TakeLog();
  EXPECT_EQ(Got(log).front(), "first");
  EXPECT_EQ(Count(log, "poison"), 0u);
  EXPECT_EQ(Find("Export", "in").dropped, 1u);
  EXPECT_EQ(Find("Export", "state").dropped, 1u);
  EXPECT_EQ(Count(log, "name: in, so far: 1, last reason: the broker ends each connection"), 1u);
}

TEST_F(Mqtt, ASilentBrokerIsAwayAfterKeepAlive) {
  Running broker;
  auto options = For(broker, "");
  options.keep_alive = 10s;
  const Connection connection(options);
  WaitForLog("MQTT connected");

  broker.Freeze();
  const auto start = std::chrono::steady_clock::now();
  WaitForLog("reason: the broker is silent for longer than keep_alive");

  EXPECT_LT(std::chrono::steady_clock::now() - start, 14s);
}

TEST_F(Mqtt, TheProcessKeepsItsSignals) {
  // Whatever started the test may block it.
  sigset_t broken_pipe;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &broken_pipe, nullptr);
  signal(SIGPIPE, SIG_DFL);
  Running broker;
  const Line line(broker);
  const Subscriber see(kFar, [](auto&) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    if (sigismember(&mask, SIGPIPE) == 0 && action.sa_handler == SIG_DFL) Log("signals");
  });

  // Their threads begin at about the same time.
  std::list<Connection> others;
  for (int i = 0; i < 50; ++i) others.emplace_back(For(broker, "y/"));

  WaitForLog("MQTT connected", 52);
  line.publisher.Publish("text");

  WaitForLog("got signals");
}

TEST_F(Mqtt, TheBrokerTellsWhetherAConnectionExists) {
  Running broker;
  Proxy proxy(broker.port());
  Connection far(For(broker, ""));
  const Import will(far, Topic<std::string>{"will"}, Text, "x/last will");
  const Import status(far, State<std::string>{"online"}, Text, "x/status");
  const Subscriber see_will(Topic<std::string>{"will"}, Log);
  const Watcher see_status(State<std::string>{"online"}, Log);
  WaitForLog("MQTT subscribed", 2);

  auto options = For(proxy, "x/");
  options.status_topic = "status";
  std::optional<Connection> near(options);
  WaitForLog("got online");
  proxy.Cut();
  WaitForLog("got offline");
  WaitForLog("got online", 2);
  near.reset();
  WaitForLog("got offline", 2);

  options.status_topic.clear();
  options.last_will = Will{"last will", "of a lost one", false};
  near.emplace(options);
  WaitForLog("MQTT connected", 4);
  proxy.Cut();
  WaitForLog("got of a lost one");
  WaitForLog("MQTT connected", 5);
  near.reset();
  near.emplace(options);
  WaitForLog("MQTT connected", 6);
  EXPECT_EQ(Count(TakeLog(), "got of a lost one"), 1u);
}

TEST_F(Mqtt, CredentialsAreAskedForAtEachAttempt) {
  Broker broker("password_file passwords\n");
  MakeCredentials(broker.folder());
  broker.Start();
  auto options = For(broker, "");
  options.credentials = [attempt = 0]() mutable {
    if (++attempt == 1) throw std::runtime_error("secret");
    return zorvix::mqtt::Credentials{"user", attempt == 2 ? "wrong secret" : "secret"};
  };

  const Connection connection(options);
  WaitForLog("MQTT connected");

  const auto log = TakeLog();
  EXPECT_EQ(Count(log, "MQTT not connected"), 2u);
  EXPECT_EQ(Count(log, "secret"), 0u);
}

TEST_F(Mqtt, AnMqttTopicMayDifferFromTheName) {
  Running broker;
  Connection connection(For(broker, "x/"));
  Connection far(For(broker, ""));
  const Import in(far, kFar, Text, "x/elsewhere");
  const Subscriber see(kFar, Log);
  WaitForLog("MQTT subscribed, topic: x/elsewhere");
  const Export out(connection, kNear, Text, KeepLast{10}, "elsewhere");

  Publisher(kNear).Publish("text");
  WaitForLog("got text");

  EXPECT_TRUE(ComesTrue([&] { return connection.counters().acknowledged == 1; }));
  const auto sent = connection.counters();
  const auto received = far.counters();
  EXPECT_EQ(sent.sent, 1u);
  EXPECT_EQ(sent.sent_again, 0u);
  EXPECT_EQ(sent.bytes_sent, 4u);
  EXPECT_EQ(received.connections, 1u);
  EXPECT_EQ(received.received, 1u);
  EXPECT_EQ(received.bytes_received, 4u);
}

TEST_F(Mqtt, ABrokerOnThisMachineKeepsMessagesAsTheGuideSays) {
  Broker remote(std::string(kPersistent) + "password_file passwords\ncafile ca.pem\n" +
                "certfile good.pem\nkeyfile good.key\n");
  MakeCredentials(remote.folder());
  remote.Start();
  std::stringstream guide;
  guide << std::ifstream(GUIDE).rdbuf();
  std::string settings = guide.str();
  settings.erase(0,
                 settings.find("allow_anonymous", settings.find("# The broker on this machine")));
  settings.erase(settings.find("```"));
  const auto replace = [&](const std::string& text, const std::string& by) {
    settings.replace(settings.find(text), text.size(), by);
  };
  replace("/var/lib/mosquitto/", "./");
  replace("broker.example:8883", "localhost:" + std::to_string(remote.port()));
  replace("/etc/mosquitto/ca.pem", remote.folder() + "/ca.pem");
  replace("panel", "user");
  Running local(settings);
  auto options = For(remote, "", "far");
  options.ca_file = remote.folder() + "/ca.pem";
  options.username = "user";
  options.password = "secret";
  Connection far(options);
  const Topic<std::string> topic{"factory/in"};
  const Import in(far, topic, Text);
  const Subscriber see(topic, Log);
  WaitForLog("MQTT subscribed");
  {
    Connection near(For(local, "factory/"));
    const Export out(near, kNear, Text);
    Publisher(kNear).Publish("first");
    WaitForLog("got first");

    remote.Stop();
    Publisher(kNear).Publish("while away");
  }
  local.Stop();
  remote.Start();
  local.Start();

  WaitForLog("got while away");
}
