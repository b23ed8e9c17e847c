// A Mosquitto broker on a free loopback port, with a folder for its files, and a proxy before it.
#ifndef ZORVIX_TESTS_BROKER_H_
#define ZORVIX_TESTS_BROKER_H_

#include <poll.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class Broker {
 public:
  // Does not start it. `settings` are lines of mosquitto.conf; paths begin at the folder.
  explicit Broker(const std::string& settings = "allow_anonymous true\n");
  ~Broker();
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  // Returns when it accepts connections.
  void Start();
  // Returns when it has ended and has written what it keeps.
  void Stop();
  // From now on it answers nothing.
  void Freeze();

  int port() const { return port_; }
  const std::string& folder() const { return folder_; }

 private:
  std::string folder_;
  int port_ = 0;
  int process_ = 0;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> output_{nullptr, std::fclose};  // it ends without
};

// Makes in a folder: ca.pem, an authority; other-ca.pem, another; good, expired, other-host and
// common-name (.pem and .key), certificates for localhost, for localhost but too old, for another
// host, and for localhost but without alternative names; client; and passwords, where that of
// "user" is "secret".
void MakeCredentials(const std::string& folder);

// Passes what clients and a broker send to each other.
class Proxy {
 public:
  explicit Proxy(int broker_port);
  ~Proxy();
  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;

  int port() const { return port_; }
  // Ends all connections.
  void Cut() { ++cuts_; }
  // Of clients.
  int connections() const { return connections_; }
  // Ends each connection on which this text is sent, after an answer to its sender. An empty text:
  // none.
  void CutAt(const std::string& text, const std::string& answer = "");

 private:
  void Run();
  std::vector<pollfd> Wanted() const;
  void Accept();
  // Returns false if the connection has ended.
  bool Pass(int from);
  void End(int descriptor);

  const int broker_port_;
  int listener_ = 0;
  int port_ = 0;
  std::map<int, int> peers_;  // both ways
  std::atomic<int> cuts_{0};
  std::atomic<int> connections_{0};
  std::atomic<bool> stops_{false};
  std::mutex mutex_;
  std::string cut_at_;
  std::string answer_;
  std::thread thread_;
};

#endif  // ZORVIX_TESTS_BROKER_H_
