#include "broker.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace {

void Expect(bool success, const std::string& what) {
  if (!success) throw std::runtime_error(what);
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

// Returns a socket on a free port.
int BindSocket() {
  const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
  const auto address = Loopback(0);
  Expect(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
         "no free port");
  return descriptor;
}

int PortOf(int descriptor) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

int FreePort() {
  const int descriptor = BindSocket();
  const int port = PortOf(descriptor);
  close(descriptor);
  return port;
}

}  // namespace

Broker::Broker(const std::string& settings) : port_(FreePort()) {
  std::string folder = std::filesystem::temp_directory_path() / "broker-XXXXXX";
  Expect(mkdtemp(folder.data()) != nullptr, "no folder for the broker");
  folder_ = folder;
  std::ofstream(folder_ + "/mosquitto.conf")
      << "user root\nconnection_messages false\nmax_queued_messages 0\nlistener " << port_
      << " 127.0.0.1\n"
      << settings;
}

Broker::~Broker() {
  if (process_ != 0) Stop();
  std::filesystem::remove_all(folder_);
}

void Broker::Start() {
  int output[2];
  Expect(pipe(output) == 0, "no pipe");
  process_ = fork();
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output[1], STDERR_FILENO);
    if (chdir(folder_.c_str()) != 0) _exit(127);
    execl(MOSQUITTO_PROGRAM, "mosquitto", "-c", "mosquitto.conf", nullptr);
    _exit(127);
  }
  close(output[1]);
  std::FILE* const lines = fdopen(output[0], "r");
  std::string said;
  char line[500];
  while (said.find(" running") == std::string::npos && std::fgets(line, sizeof line, lines)) {
    said += line;
  }
  Expect(said.find(" running") != std::string::npos, "the broker does not start: " + said);
  output_.reset(lines);
}

void Broker::Freeze() { kill(process_, SIGSTOP); }

void Broker::Stop() {
  kill(process_, SIGCONT);
  // More than once, since a broker that has just started forgets it.
  do {
    kill(process_, SIGTERM);
    poll(nullptr, 0, /*milliseconds=*/5);
  } while (waitpid(process_, nullptr, WNOHANG) == 0);
  process_ = 0;
}

void MakeCredentials(const std::string& folder) {
  const std::string script = R"(set -e; cd ")" + folder + R"("
    authority() { openssl req -x509 $key -days 2 -subj "/CN=$1" -keyout $1.key -out $1.pem; }
    certificate() { # NAME HOST DAYS
      openssl req $key -subj "/CN=$2" -addext subjectAltName=DNS:$2 -keyout $1.key -out $1.csr
      openssl x509 -req -in $1.csr -CA ca.pem -CAkey ca.key -copy_extensions copy -days $3 -out $1.pem
    }
    key="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
    authority ca; authority other-ca
    certificate good localhost 2; certificate expired localhost -1
    certificate other-host elsewhere.example 2; certificate client client 2
    openssl req $key -subj /CN=localhost -keyout common-name.key -out common-name.csr
    openssl x509 -req -in common-name.csr -CA ca.pem -CAkey ca.key -days 2 -out common-name.pem
    mosquitto_passwd -b -c passwords user secret)";
  Expect(std::system(("(" + script + ") >/dev/null 2>&1").c_str()) == 0,
         "openssl or mosquitto_passwd fails");
}

Proxy::Proxy(int broker_port) : broker_port_(broker_port), listener_(BindSocket()) {
  listen(listener_, 10);
  port_ = PortOf(listener_);
  thread_ = std::thread([this] { Run(); });
}

Proxy::~Proxy() {
  stops_ = true;
  thread_.join();
  for (const auto& [descriptor, peer] : peers_) close(descriptor);
  close(listener_);
}

void Proxy::CutAt(const std::string& text, const std::string& answer) {
  const std::lock_guard lock(mutex_);
  cut_at_ = text;
  answer_ = answer;
}

void Proxy::Run() {
  int cuts = 0;
  while (!stops_) {
    const bool is_cut = cuts != cuts_;
    auto wanted = Wanted();
    poll(wanted.data(), wanted.size(), /*milliseconds=*/10);
    for (std::size_t i = 1; i < wanted.size(); ++i) {
      const auto& [descriptor, events, ready] = wanted[i];
      const bool has_ended = peers_.count(descriptor) == 0;  // with its peer
      if (!has_ended && ready != 0 && !Pass(descriptor)) End(descriptor);
    }
    if (is_cut) {  // after what was sent before
      ++cuts;
      while (!peers_.empty()) End(peers_.begin()->first);
    }
    if (wanted[0].revents != 0) Accept();
  }
}

std::vector<pollfd> Proxy::Wanted() const {
  std::vector<pollfd> wanted{{listener_, POLLIN, 0}};
  for (const auto& [descriptor, peer] : peers_) wanted.push_back({descriptor, POLLIN, 0});
  return wanted;
}

void Proxy::End(int descriptor) {
  --connections_;
  for (const int end : {peers_[descriptor], descriptor}) {
    peers_.erase(end);
    close(end);
  }
}

void Proxy::Accept() {
  const int client = accept(listener_, nullptr, nullptr);
  const int broker = socket(AF_INET, SOCK_STREAM, 0);
  const auto address = Loopback(broker_port_);
  if (connect(broker, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    close(client);
    close(broker);
    return;
  }
  ++connections_;
  peers_[client] = broker;
  peers_[broker] = client;
}

bool Proxy::Pass(int from) {
  std::array<char, 65'536> buffer;
  const auto size = read(from, buffer.data(), buffer.size());
  if (size <= 0) return false;
  std::string_view text(buffer.data(), static_cast<std::size_t>(size));
  const std::lock_guard lock(mutex_);
  if (!cut_at_.empty() && text.find(cut_at_) != std::string_view::npos) {
    send(from, answer_.data(), answer_.size(), MSG_NOSIGNAL);
    return false;
  }
  while (!text.empty()) {
    const auto count = send(peers_[from], text.data(), text.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}
