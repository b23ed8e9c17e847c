#include "broker.h"

#include <arpa/inet.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

void Expect(bool success, const std::string& what) {
  if (!success) throw std::runtime_error(what);
}

int FreePort() {
  const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  const bool found = bind(descriptor, any, size) == 0 && getsockname(descriptor, any, &size) == 0;
  close(descriptor);
  Expect(found, "no free port");
  return ntohs(address.sin_port);
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

void Broker::Stop() {
  kill(process_, SIGTERM);
  waitpid(process_, nullptr, 0);
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
    mosquitto_passwd -b -c passwords user secret)";
  Expect(std::system(("(" + script + ") >/dev/null 2>&1").c_str()) == 0,
         "openssl or mosquitto_passwd fails");
}
