// Modules that are loaded apart, as an app loads them, exchange payloads of all kinds. This program
// does not link the bridge: it loads bridge and modules with RTLD_LOCAL, from its own folder.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zorvix/zorvix_flat.h>

#include <typeinfo>

#include "log_capture.h"
#include "modules/payload.h"

using bridge::BridgeType;

namespace {

std::string folder;

class Module {
 public:
  explicit Module(const std::string& name) : path_(folder + "lib" + name + ".so") {
    handle_ = dlopen(path_.c_str(), RTLD_LOCAL | RTLD_NOW);
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
  }
  ~Module() { Unload(); }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  template <typename Function>
  Function* Get(const char* name) {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }
  // Returns whether the code is gone.
  bool Unload() {
    if (handle_ != nullptr) dlclose(handle_);
    handle_ = nullptr;
    return dlopen(path_.c_str(), RTLD_NOLOAD | RTLD_NOW) == nullptr;
  }
  void* handle() { return handle_; }

 private:
  std::string path_;
  void* handle_;
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
  int SendFrom(Module& sender) {
    const int accepted = sender.Get<decltype(Send)>("Send")(GetParam(), bridge.handle());
    bridge.Get<decltype(ZorvixSpinOnce)>("ZorvixSpinOnce")();
    return accepted;
  }
  Lines Errors() {
    Lines errors;
    for (const auto& line : TakeLog()) {
      if (line[0] != 'I') errors.push_back(line);
    }
    return errors;
  }
};

INSTANTIATE_TEST_SUITE_P(Type, Modules, testing::Values(BridgeType::Sync, BridgeType::Async),
                         [](const auto& type) {
                           return type.param == BridgeType::Sync ? "Sync" : "Async";
                         });

TEST_P(Modules, ExchangePayloadsOfAllKindsAndUnloadOneByOne) {
  Module linked("sender"), by_dlsym("sender_dlsym");
  int sends = 0;
  for (auto* sender : {&linked, &by_dlsym}) {
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
  const std::string start = std::string("E: error: ") + std::bad_any_cast().what() +
                            ", _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION: 2, real_name: payload2/";
  const std::string end =
      ". make sure that the compiler macro _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION=2";
  EXPECT_EQ(errors[0].substr(0, start.size()), start);
  EXPECT_EQ(errors[0].substr(errors[0].size() - end.size()), end);
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
