#include <zorvix/name.h>

#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "sync.h"

namespace zorvix::detail {
namespace {

struct KeptNames {
  static KeptNames& Get() {
    static KeptNames& names = *new KeptNames;
    return names;
  }
  Mutex mutex;
  std::set<std::string, std::less<>> names ZORVIX_GUARDED_BY(mutex);
};

}  // namespace

std::string_view KeepName(std::string_view name) {
  KeptNames& kept = KeptNames::Get();
  const Lock lock(kept.mutex);
  const auto found = kept.names.find(name);
  return found == kept.names.end() ? *kept.names.emplace(name).first : *found;
}

}  // namespace zorvix::detail
