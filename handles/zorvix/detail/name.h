// Keeps the names that are no literals. Not for users.
#ifndef ZORVIX_DETAIL_NAME_H_
#define ZORVIX_DETAIL_NAME_H_

#include <zorvix/zorvix.h>

#include <string_view>

namespace zorvix::detail {

// Returns the text of an equal name that exists until the process ends.
ZORVIX_EXPORT std::string_view KeepName(std::string_view name);

}  // namespace zorvix::detail

#endif  // ZORVIX_DETAIL_NAME_H_
