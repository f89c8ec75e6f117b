// Building rendering texts: one allocation for all pieces, appended in order.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace qcr {

inline std::string strCat(std::initializer_list<std::string_view> pieces) {
  size_t size = 0;
  for (std::string_view p : pieces) size += p.size();
  std::string text;
  text.reserve(size);
  for (std::string_view p : pieces) text.append(p);
  return text;
}

// "[e1, e2]" with render(e) for each element of list.
template <typename List, typename Render>
std::string listToString(const List& list, Render render) {
  std::string text = "[";
  for (const auto& element : list) {
    if (text.size() > 1) text.append(", ");
    text.append(render(element));
  }
  text.append("]");
  return text;
}

}  // namespace qcr
