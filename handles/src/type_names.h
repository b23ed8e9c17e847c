// Names of types and names that look alike, for people.
#ifndef ZORVIX_HANDLES_TYPE_NAMES_H_
#define ZORVIX_HANDLES_TYPE_NAMES_H_

#include <string>
#include <typeinfo>

namespace zorvix::detail {

// Returns such as "app::Reading".
std::string NameOfType(const std::type_info& type);

// Whether somebody may have written one for the other: they are equal but for upper and lower case,
// or at most two characters must be inserted, removed or replaced.
bool AreSimilar(const std::string& one, const std::string& other);

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_TYPE_NAMES_H_
