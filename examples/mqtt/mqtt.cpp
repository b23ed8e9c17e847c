#include "mqtt.h"

namespace mqtt {

using namespace std::chrono_literals;

Carrier::Carrier(Way way, const zorvix::Topic<Reading>& topic, const std::string& host, int port)
    : topic_(topic.name), address_(host + ":" + std::to_string(port)), client_(nullptr, nullptr) {
  static const int library = mosquitto_lib_init();
  client_ = {mosquitto_new(nullptr, true, this), mosquitto_destroy};
  auto* const client = client_.get();
  const bool fine = library == 0 && client && mosquitto_pub_topic_check(topic_.c_str()) == 0;
  if (!fine) throw std::invalid_argument("MQTT does not allow the topic " + topic_);
  mosquitto_connect_callback_set(client, [](auto*, void* self, int error) {
    if (error == 0) static_cast<Carrier*>(self)->Here();  // a refusal ends the loop
  });
  mosquitto_message_callback_set(client, [](auto*, void* self, auto* got) {
    static_cast<Carrier*>(self)->Receive(static_cast<const char*>(got->payload), got->payloadlen);
  });
  mosquitto_threaded_set(client, true);  // as the workers of the bridge publish
  const auto send = [this](const Reading& reading) { Send(reading); };
  if (way == Way::In) in_.emplace(topic);
  if (way == Way::Out) out_.emplace(topic, send, zorvix::Delivery::Queued);  // no publisher waits
  loop_ = std::thread([this, host, port] { Run(host, port); });
}

Carrier::~Carrier() {
  close_.set_value();
  loop_.join();
}

// In place of mosquitto_loop_start(), whose thread may forget a mosquitto_disconnect() that comes
// while it connects, and then never ends.
void Carrier::Run(const std::string& host, int port) {
  auto* const client = client_.get();
  do {
    int error = mosquitto_connect(client, host.c_str(), port, /*keepalive=*/30);
    while (error == 0 && !Closing(0s)) error = mosquitto_loop(client, /*milliseconds=*/100, 1);
    if (error != 0) Away(error);
  } while (!Closing(1s));
  mosquitto_disconnect(client);  // after all that is still to go out
  while (mosquitto_loop(client, -1, 1) == 0) {
  }
}

bool Carrier::Closing(std::chrono::seconds wait) const {
  return closing_.wait_for(wait) == std::future_status::ready;
}

void Carrier::Here() {
  if (in_) mosquitto_subscribe(client_.get(), nullptr, topic_.c_str(), 0);
  BRIDGE_LOG(bridge::kLogInfo, "MQTT broker %s is here, %u messages did not go out",
             address_.c_str(), lost_.exchange(0));
  broker_ = Broker::Here;
}

void Carrier::Away(int error) {
  if (broker_.exchange(Broker::Away) == Broker::Away) return;  // no news
  BRIDGE_LOG(bridge::kLogWarn, "MQTT broker %s is away: %s", address_.c_str(),
             mosquitto_strerror(error));
}

void Carrier::Send(const Reading& reading) try {
  const auto text = nlohmann::json(reading).dump();
  nlohmann::json::parse(text).get<Reading>();  // throws what it would throw at the other end
  const bool sent =
      broker_ == Broker::Here && mosquitto_publish(client_.get(), nullptr, topic_.c_str(),
                                                   int(text.size()), text.data(), 0, false) == 0;
  if (!sent) ++lost_;
} catch (const std::exception& error) {
  ++lost_;
  if (told_.exchange(true)) return;
  BRIDGE_LOG(bridge::kLogWarn, "MQTT topic %s: a message cannot go out, as may others: %s",
             topic_.c_str(), error.what());
}

void Carrier::Receive(const char* text, int size) noexcept try {
  in_->Publish(nlohmann::json::parse(text, text + size).get<Reading>());
} catch (const std::exception& error) {
  BRIDGE_LOG(bridge::kLogWarn, "MQTT topic %s: %s", topic_.c_str(), error.what());
}

}  // namespace mqtt
