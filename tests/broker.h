// A Mosquitto broker on a free loopback port, with a folder for its files.
#ifndef ZORVIX_TESTS_BROKER_H_
#define ZORVIX_TESTS_BROKER_H_

#include <cstdio>
#include <memory>
#include <string>

class Broker {
 public:
  // Does not start it. `settings` are lines of mosquitto.conf; paths begin at the folder.
  explicit Broker(const std::string& settings = "allow_anonymous true\n");
  ~Broker();
  Broker(const Broker&) = delete;

  // Returns when it accepts connections.
  void Start();
  // Returns when it has ended and has written what it keeps.
  void Stop();

  int port() const { return port_; }
  const std::string& folder() const { return folder_; }

 private:
  std::string folder_;
  int port_ = 0;
  int process_ = 0;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> output_{nullptr, std::fclose};  // it ends without
};

// Makes in a folder: ca.pem, an authority; other-ca.pem, another; good, expired and other-host
// (.pem and .key), certificates for localhost, for localhost but too old, and for another host;
// client; and passwords, where that of "user" is "secret".
void MakeCredentials(const std::string& folder);

#endif  // ZORVIX_TESTS_BROKER_H_
