#include "modules.h"

#include <dlfcn.h>

#include <functional>
#include <set>
#include <utility>

namespace zorvix::detail {
namespace {

// Returns the path of the file that contains the address, as the loader knows it.
std::string PathOf(const void* address) {
  Dl_info info = {};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "?";
  return info.dli_fname;
}

// Returns a handle of a module that is loaded, or null: the program itself has none.
void* OpenLoaded(const std::string& path, int flags) {
  return dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD | flags);
}

void LookUp(Module& module) {
  static Mutex& mutex = *new Mutex;
  static auto& names = *new std::set<std::string, std::less<>>;
  static std::uint32_t loads = 0;
  const std::string path = PathOf(&module);  // under no lock, since it takes the loader's
  const Lock lock(mutex);
  if (module.name != nullptr) return;
  module.load_number = ++loads;
  module.name = names.insert(path.substr(path.rfind('/') + 1)).first->c_str();
}

std::uint32_t LoadNumber(Module& module) {
  ModuleName(module);
  return module.load_number;
}

}  // namespace

const char* ModuleName(Module& module) {
  if (module.name == nullptr) LookUp(module);
  return module.name;
}

void KeepLoaded(Module& module, const char* reason, const std::string& name) {
  if (module.stays_loaded || module.stays_loaded.exchange(true)) return;
  // The handle is never closed, which keeps the module loaded where the loader does not know the
  // flag, as on Android before API level 23.
  const std::string path = PathOf(&module);
  if (OpenLoaded(path, RTLD_NODELETE) == nullptr && OpenLoaded(path, 0) == nullptr) return;
  BRIDGE_LOG(bridge::kLogInfo, "a module stays loaded, even after dlclose: %s, since %s, name: %s",
             ModuleName(module), reason, name.c_str());
}

void KeepLoadedIfQueuedByBridge(const Endpoint& endpoint) {
  if (endpoint.type == bridge::BridgeType::Sync) return;
  KeepLoaded(endpoint.module, "it uses an Async or SignleAsync endpoint", endpoint.name);
}

ValueOwner::ValueOwner(Module& module)
    : module_(module), load_number_(LoadNumber(module)), path_(PathOf(&module)) {}

void ValueOwner::AddValue() {
  const Lock lock(mutex_);
  ++values_;
}

void ValueOwner::DestroyValue(const void* value, void (*destroy)(const void*)) {
  {
    const Gate::Pass pass(gate_);
    if (pass.admitted()) {
      destroy(value);
      // Kept loaded only if `destroy` has destroyed the holder.
      if (void* const unneeded = RemoveValue()) dlclose(unneeded);
      return;
    }
  }
  DestroyAfterHolder(value, destroy);
}

void* ValueOwner::RemoveValue() {
  const Lock lock(mutex_);
  return --values_ == 0 ? std::exchange(kept_, nullptr) : nullptr;
}

void ValueOwner::EndHolder(const Record& holder) {
  gate_.Close(holder, nullptr);
  {
    const Lock lock(mutex_);
    if (values_ == 0) return;
  }
  // Under no lock, since another thread may be inside dlclose and destroy a value there.
  void* kept = OpenLoaded(path_, 0);
  {
    const Lock lock(mutex_);
    if (values_ != 0) std::swap(kept_, kept);
  }
  if (kept != nullptr) dlclose(kept);
}

// A holder that is a static object of its module ends while the loader unloads the module, which
// cannot be stopped any more. The values that others still have then are never destroyed.
void ValueOwner::DestroyAfterHolder(const void* value, void (*destroy)(const void*)) {
  void* const meanwhile = OpenLoaded(path_, 0);
  const bool is_program = meanwhile == nullptr && path_ == PathOf(&module_);
  const bool is_loaded =
      is_program || (meanwhile != nullptr && IsStillLoaded(reinterpret_cast<const void*>(destroy)));
  if (is_loaded) destroy(value);
  void* const unneeded = RemoveValue();
  if (unneeded != nullptr && is_loaded) dlclose(unneeded);
  if (meanwhile != nullptr) dlclose(meanwhile);
}

bool ValueOwner::IsStillLoaded(const void* code) const {
  return PathOf(code) == path_ && PathOf(&module_) == path_ && module_.load_number == load_number_;
}

}  // namespace zorvix::detail
