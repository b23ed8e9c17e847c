// What the bridge allocates, and what becomes of a publication when it cannot.
#include <cstdlib>
#include <new>

#include "bridge_test.h"

namespace {

// Of this thread; when told to, all that are as large as the first one fail.
thread_local std::size_t allocations = 0, first_size = 0;
thread_local bool first_only = false;

}  // namespace

void* operator new(std::size_t size) {
  if (++allocations == 1) first_size = size;
  const bool fails = first_only && allocations > 1 && size == first_size;
  if (void* const memory = fails ? nullptr : std::malloc(size)) return memory;
  throw std::bad_alloc();
}
// Not inlined, where g++ would see only that free does not match new.
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

TEST_F(Bridge, DeliveryAtOnceAllocatesNothingAndOneShotsNoMoreThanOthers) {
  const std::string name(60, 'n');
  const auto ignore = Subscriber([](auto&) {});
  std::size_t by_type[3];
  for (const auto type : {BridgeType::Sync, BridgeType::Async, BridgeType::SignleAsync}) {
    auto& topic = Subscribed(name, type, {ignore, ignore, ignore, ignore});
    allocations = 0;
    EXPECT_TRUE(ZorvixPublish(topic, 1));
    by_type[static_cast<int>(type)] = allocations;
    ZorvixSpinOnce();
  }
  EXPECT_EQ(by_type[0], 0u);
  EXPECT_LE(by_type[2], by_type[1] + 1) << "a block of the queue may begin in one of them";
  auto& service = Service(name, BridgeType::Sync);
  ZorvixRegisterServer(service, Server([](auto&, auto&) {}));
  bridge::RequestCallback request = Request;
  allocations = 0;
  EXPECT_TRUE(ZorvixCall(service, std::move(request)));
  EXPECT_EQ(allocations, 0u);
}

TEST_F(Bridge, TasksPostedBeforeAFailureAreRun) {
  const auto log = Subscriber([](auto&) { Log("ran"); });
  auto& topic = Subscribed("t", BridgeType::Async, {log, log});
  const zorvix::Workers workers(1);
  WaitForLog("Spin loop once lock.");
  first_only = true;
  allocations = 0;
  EXPECT_THROW(ZorvixPublish(topic, 1), std::bad_alloc);
  first_only = false;
  WaitForLog("ran");
}

}  // namespace
