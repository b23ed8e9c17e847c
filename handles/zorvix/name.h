// The name of a topic, service or state.
//
//   #include <zorvix/topic.h>
//
//   #include <string>
//
//   inline constexpr zorvix::Topic<int> kVolume{"volume"};
//
//   zorvix::Topic<int> VolumeOf(const std::string& zone) { return {"volume/" + zone}; }
#ifndef ZORVIX_NAME_H_
#define ZORVIX_NAME_H_

#include <zorvix/detail/name.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

namespace zorvix {

// Any bytes; those of a literal end at the first NUL. Made of a literal, it is a constant: a header
// with topics needs no code that runs when a module is loaded. Made of any other text, it keeps a
// copy until the process ends, one for each distinct name; so do not compose names without end. Any
// thread may use it.
class EndpointName {
 public:
  // Takes any array of char.
  // REQUIRES: `literal` exists as long as the topic, service or state. Handles copy it.
  template <std::size_t kSize>
  constexpr EndpointName(const char (&literal)[kSize]) : text_(literal) {}

  // `text` is a std::string, std::string_view or const char*. Throws std::bad_alloc.
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
