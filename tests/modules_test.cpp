// Modules that are loaded apart, as an app loads them, exchange payloads of all kinds. This program
// does not link the bridge: it loads bridge and modules with RTLD_LOCAL, from its own folder.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zorvix/zorvix_flat.h>

#include <algorithm>
#include <regex>

#include "log_capture.h"
#include "modules/payload.h"

using bridge::BridgeType;

namespace {

std::string folder;

struct Module {
  explicit Module(const std::string& name)
      : path(folder + "lib" + name + ".so"), library(dlopen(path.c_str(), RTLD_LOCAL | RTLD_NOW)) {
    if (library == nullptr) throw std::runtime_error(dlerror());
  }
  template <typename Function>
  Function* Get(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(library, name));
  }
  // Returns whether the code is gone.
  bool Unload() const {
    dlclose(library);
    return dlopen(path.c_str(), RTLD_NOLOAD | RTLD_NOW) == nullptr;
  }
  std::string path;
  void* library;
};

class Modules : public testing::TestWithParam<BridgeType> {
 protected:
  Module bridge{"com.quenmar.zorvix"};
  Module receiver{"receiver"};

  void SetUp() override {
    receiver.Get<decltype(Start)>("Start")(GetParam());
    TakeLog();
  }
  // Returns how many of the sender's publications and calls were accepted, after they have run.
  int SendFrom(const Module& sender) {
    const int accepted = sender.Get<decltype(Send)>("Send")(GetParam(), bridge.library);
    bridge.Get<decltype(ZorvixSpinOnce)>("ZorvixSpinOnce")();
    return accepted;
  }
  static Lines Errors() {
    auto lines = TakeLog();
    lines.erase(
        std::remove_if(lines.begin(), lines.end(), [](auto& line) { return line[0] == 'I'; }),
        lines.end());
    return lines;
  }
};

INSTANTIATE_TEST_SUITE_P(Type, Modules, testing::Values(BridgeType::Sync, BridgeType::Async),
                         [](const auto& type) {
                           return type.param == BridgeType::Sync ? "Sync" : "Async";
                         });

TEST_P(Modules, ExchangePayloadsOfAllKindsAndUnloadOneByOne) {
  Module linked("sender"), by_dlsym("sender_dlsym");
  int sends = 0;
  for (const auto* sender : {&linked, &by_dlsym}) {
    EXPECT_EQ(SendFrom(*sender), 2 * kPayloads);
    EXPECT_EQ(sender->Get<decltype(Answered)>("Answered")(), kPayloads);
    EXPECT_EQ(receiver.Get<decltype(Received)>("Received")(), kPayloads * ++sends);
  }
  EXPECT_TRUE(by_dlsym.Unload());
  EXPECT_EQ(SendFrom(linked), 2 * kPayloads);
  EXPECT_EQ(receiver.Get<decltype(Received)>("Received")(), kPayloads * ++sends);
  EXPECT_EQ(Errors(), Lines{});
  receiver.Get<decltype(Stop)>("Stop")();
  EXPECT_TRUE(receiver.Unload());
  EXPECT_EQ(SendFrom(linked), 0);
}

TEST_P(Modules, BuiltWithoutTheDefinitionAreToldSo) {
  Module plain("sender_plain");
  EXPECT_EQ(SendFrom(plain), 2 * kPayloads);
  const auto errors = Errors();
#ifdef _LIBCPP_VERSION
  EXPECT_EQ(receiver.Get<decltype(Received)>("Received")(), 1) << "only int has one identity";
  ASSERT_EQ(errors.size(), 2u * (kPayloads - 1));
  const auto real_name =
      std::string("payload2/Topic/") + (GetParam() == BridgeType::Sync ? "Sync" : "Async");
  const std::regex line(std::string("E: error: ") + std::bad_any_cast().what() +
                        ", _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION: 2, real_name: " + real_name +
                        ", callback_handle: 0x[0-9a-f]+. make sure that the compiler macro "
                        "_LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION=2");
  EXPECT_TRUE(std::regex_match(errors[0], line)) << errors[0];
#else
  EXPECT_EQ(receiver.Get<decltype(Received)>("Received")(), kPayloads);
  EXPECT_EQ(errors, Lines{});
#endif
  receiver.Get<decltype(Stop)>("Stop")();
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string program = argv[0];
  folder = program.substr(0, program.rfind('/') + 1);
  return RUN_ALL_TESTS();
}
