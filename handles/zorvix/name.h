// The name of a topic, service or state.
#ifndef ZORVIX_NAME_H_
#define ZORVIX_NAME_H_

#include <zorvix/zorvix.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

namespace zorvix {

namespace detail {
// Returns the text of an equal name that exists until the process ends.
ZORVIX_EXPORT std::string_view KeepName(std::string_view name);
}  // namespace detail

// Made of a literal, it is a constant: a header with topics needs no code that runs when a module
// is loaded. Made of any other text, such as a std::string, it keeps a copy until the process ends,
// one for each distinct name; so do not compose names without end. Throws std::bad_alloc then.
class EndpointName {
 public:
  template <std::size_t kSize>
  constexpr EndpointName(const char (&literal)[kSize]) : text_(literal) {}
  template <typename Text,
            std::enable_if_t<std::is_convertible_v<const Text&, std::string_view> &&
                                 !std::is_array_v<Text> && !std::is_same_v<Text, EndpointName>,
                             int> = 0>
  EndpointName(const Text& text) : text_(detail::KeepName(text)) {}

  operator std::string() const { return std::string(text_); }
  constexpr std::string_view view() const { return text_; }

 private:
  std::string_view text_;
};

}  // namespace zorvix

#endif  // ZORVIX_NAME_H_
