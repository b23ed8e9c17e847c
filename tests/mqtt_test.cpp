// MQTT against a real broker. Both sides are in this process: the near one has the prefix "x/", so
// its topic "in" is "x/in" for the far one, which has no prefix.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <zorvix/inspect.h>
#include <zorvix/mqtt.h>
#include <zorvix/publisher.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "broker.h"
#include "log_capture.h"

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

namespace {

const Topic<std::string> kNear{"in"};
const Topic<std::string> kFar{"x/in"};
const State<std::string> kNearState{"state"};
const State<std::string> kFarState{"x/state"};

const char* const kPersistent = "allow_anonymous true\npersistence true\npersistence_location ./\n";

std::string Text(const std::string& text) { return text; }

Options For(const Broker& broker, const std::string& prefix) {
  Options options;
  options.port = broker.port();
  options.prefix = prefix;
  options.longest_pause = 200ms;
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
  explicit Line(const Broker& broker, KeepLast keep = {})
      : near(For(broker, "x/")),
        far(For(broker, "")),
        out(near, kNear, Text, keep),
        in(far, kFar, Text),
        see(kFar, Log) {
    WaitForLog("MQTT connected", 2);
    WaitForLog("MQTT subscribed");
  }
  Connection near;
  Connection far;
  Export out;
  Import in;
  Subscriber<std::string> see;
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
    Connection near(options);
    options.prefix.clear();
    options.status = {"status of the far one"};
    Connection far(options);
    const Import in(far, kFar, Text);
    const Subscriber see(kFar, Log);
    const Export out(near, kNear, Text);
    WaitForLog("MQTT subscribed");

    Publisher(kNear).Publish("hello");

    WaitForLog("got hello");
    EXPECT_EQ(Count(TakeLog(), "secret"), 0u);
  }
}

TEST_F(Mqtt, WarnsOnceWhyItIsNotConnectedAndTriesAgain) {
  struct Row {
    const char* reason;
    const char* certificate;
    const char* ca_file;
    const char* password;
  };
  const Row rows[] = {
      {"unknown authority", "good", "other-ca.pem", "secret"},
      {"has expired", "expired", "ca.pem", "secret"},
      {"another host name", "other-host", "ca.pem", "secret"},
      {"refuses the user name or password", "good", "ca.pem", "wrong secret"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    Broker broker("password_file passwords\ncafile ca.pem\ncertfile " +
                  std::string(row.certificate) + ".pem\nkeyfile " + row.certificate + ".key\n");
    MakeCredentials(broker.folder());
    broker.Start();
    auto options = For(broker, "");
    options.ca_file = broker.folder() + "/" + row.ca_file;
    options.username = "user";
    options.password = row.password;

    const Connection connection(options);
    const Watcher status(options.status,
                         [](const Status& now) { AddLine("status: " + now.why_not); });
    WaitForLog("status: ", 4);

    const auto log = TakeLog();
    EXPECT_EQ(Count(log, "MQTT not connected, broker: localhost:"), 1u);
    EXPECT_GE(Count(log, row.reason), 3u) << testing::PrintToString(log);
    EXPECT_EQ(Count(log, "MQTT connected"), 0u);
    EXPECT_EQ(Count(log, "secret"), 0u);
  }
}

TEST_F(Mqtt, PausesGrowUpToALimit) {
  Broker absent;
  auto options = For(absent, "");
  options.longest_pause = 400ms;
  std::vector<std::chrono::steady_clock::time_point> attempts;

  const Connection connection(options);
  const Watcher status(options.status, [&](const Status&) {
    attempts.push_back(std::chrono::steady_clock::now());
    AddLine("attempt");
  });
  WaitForLog("attempt", 7);

  // A pause may be a quarter shorter. The first status may be that of the constructor.
  EXPECT_GE(attempts[4] - attempts[3], 300ms);
  EXPECT_GE(attempts[6] - attempts[5], 300ms);
}

TEST_F(Mqtt, LosesNothingWhenTheBrokerRestarts) {
  constexpr int kCount = 10'000;
  const Topic<int> near_topic{"in"};
  const Topic<int> far_topic{"x/in"};
  Broker broker(kPersistent);
  broker.Start();
  Connection near(For(broker, "x/"));
  Connection far(For(broker, ""));
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
  Broker broker(kPersistent);
  broker.Start();
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

TEST_F(Mqtt, StatesReachProcessesThatConnectLaterAlsoToABrokerThatHasForgotten) {
  Broker broker;
  broker.Start();
  Connection near(For(broker, "x/"));
  Holder<std::string> holder(kNearState);
  const Export out(near, kNearState, Text);
  for (const char* const value : {"old", "value"}) holder.Set(value);
  WaitForLog("MQTT connected");
  broker.Stop();
  broker.Start();
  WaitForLog("MQTT connected", 2);

  Connection far(For(broker, ""));
  const Import in(far, kFarState, Text);

  EXPECT_EQ(*Watcher(kFarState).WaitForValue(), "value");
}

TEST_F(Mqtt, AClearedStateHasNoValueForLaterWatchers) {
  Broker broker;
  broker.Start();
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

  EXPECT_EQ(*early.Newest(), "value");
  EXPECT_EQ(Watcher(kFarState).Newest(), nullptr);
}

TEST_F(Mqtt, BadPayloadsReachNobodyAndAreLoggedWithoutTheirText) {
  Broker broker;
  broker.Start();
  Connection near(For(broker, "x/"));
  const Export out(near, kNear, Text, zorvix::KeepAll());
  auto options = For(broker, "");
  options.payload_limit = 20;
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
  Publisher(kNear).Publish(std::string(20, 'y'));
  WaitForLog("so far: 101");

  const auto log = TakeLog();
  EXPECT_EQ(Got(log), Lines{std::string(20, 'y')});
  EXPECT_EQ(Find("Import", "x/in").dropped, 101u);
  EXPECT_EQ(Count(log, "secret"), 0u);
  EXPECT_LT(Count(log, "MQTT import rejects messages, name: x/in"), 5u);
}

TEST_F(Mqtt, RefusesWhatCannotWork) {
  Broker broker;
  struct Row {
    const char* name;
    void (*spoil)(Options& options);
  };
  const Row rows[] = {
      {"password to another machine",
       [](Options& options) {
         options.host = "broker.example";
         options.username = "user";
         options.password = "secret";
       }},
      {"no such ca_file", [](Options& options) { options.ca_file = "/nowhere"; }},
      {"certificate without TLS",
       [](Options& options) { options.certificate_file = options.key_file = "/nowhere"; }},
      {"key without certificate", [](Options& options) { options.key_file = "/nowhere"; }},
      {"password without a name", [](Options& options) { options.password = "secret"; }},
      {"port", [](Options& options) { options.port = 65'536; }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    auto options = For(broker, "");
    row.spoil(options);
    EXPECT_THROW(Connection{options}, std::invalid_argument);
  }
  Connection connection(For(broker, ""));
  for (const std::string name : {"", "a/+/b", "a/#", "$SYS/a", "\xff", "a\nb"}) {
    SCOPED_TRACE(name);
    const Topic<std::string> topic{name};
    EXPECT_THROW(const Export out(connection, topic, Text), std::invalid_argument);
    EXPECT_THROW(const Import in(connection, topic, Text), std::invalid_argument);
  }
}

TEST_F(Mqtt, WhatIsImportedIsNotExported) {
  Broker broker;
  broker.Start();
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
  Broker broker;
  broker.Start();
  Connection far(For(broker, ""));
  const Import in(far, kFar, Text);
  const Subscriber see(kFar, [&](const std::string& text) {
    if (text == std::to_string(kMany)) Log(text);
  });
  WaitForLog("MQTT subscribed");
  {
    Connection near(For(broker, "x/"));
    const Export out(near, kNear, Text, KeepLast{kMany});
    for (int number = 1; number <= kMany; ++number) {
      Publisher(kNear).Publish(std::to_string(number));
    }
  }

  WaitForLog("got 1000");
  EXPECT_EQ(Count(TakeLog(), "messages not sent: 0"), 1u);
}

TEST_F(Mqtt, TheDestructorDoesNotWaitForABrokerThatIsSilent) {
  const int silent = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(listen(silent, 10), 0);
  sockaddr address;
  auto* const bound = reinterpret_cast<unsigned char*>(address.sa_data);
  socklen_t size = sizeof address;
  ASSERT_EQ(getsockname(silent, &address, &size), 0);
  Options options;
  options.host = "127.0.0.1";
  options.port = bound[0] * 256 + bound[1];

  auto connection = std::make_unique<Connection>(options);
  const int accepted = accept(silent, nullptr, nullptr);
  char greeting;
  ASSERT_EQ(recv(accepted, &greeting, 1, 0), 1);

  const auto start = std::chrono::steady_clock::now();
  connection.reset();

  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  close(accepted);
  close(silent);
}

TEST_F(Mqtt, HandlesMayBeDestroyedAtAnyMoment) {
  Broker broker;
  broker.Start();
  std::atomic<bool> stop{false};
  auto publishing = std::async(std::launch::async, [&] {
    while (!stop) Publisher(kNear).Publish("text");
  });
  const Subscriber see(kFar, [](auto&) {});
  for (int round = 0; round < 30; ++round) {
    auto options = For(broker, "x/");
    options.close_limit = 10ms;
    std::optional<Connection> near(options);
    std::optional<Connection> far(For(broker, ""));
    bool alive = true;
    std::optional<Export> out(std::in_place, *near, kNear, [&](const std::string& text) {
      EXPECT_TRUE(alive);
      return text;
    });
    std::optional<Import> in(std::in_place, *far, kFar, [&](const std::string& text) {
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

TEST_F(Mqtt, ASubscriberMayDestroyTheConnectionItIsServedBy) {
  Broker broker;
  broker.Start();
  Connection near(For(broker, "x/"));
  const Export out(near, kNear, Text);
  std::optional<Connection> far(For(broker, ""));
  std::optional<Import> in(std::in_place, *far, kFar, Text);
  const Subscriber see(kFar, [&](auto&) {
    in.reset();
    far.reset();
    Log("the end");
  });
  WaitForLog("MQTT subscribed");

  for (int count = 0; count < 10; ++count) Publisher(kNear).Publish("text");

  WaitForLog("MQTT closed");
  EXPECT_EQ(Count(TakeLog(), "got the end"), 1u);
}
