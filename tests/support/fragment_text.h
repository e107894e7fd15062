#pragma once
// Random texts glued together from fragments of a format, and small mutations of them: inputs for
// tests that hold two implementations against each other. The same seed gives the same texts.

#include <cstddef>
#include <random>
#include <span>
#include <string>
#include <string_view>

class fragment_text {
 public:
  fragment_text(std::uint32_t seed, std::span<const std::string_view> fragments)
      : random_(seed), fragments_(fragments) {}

  [[nodiscard]] std::size_t below(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>{0, limit - 1}(random_);
  }

  // Up to most fragments in a row.
  [[nodiscard]] std::string make(std::size_t most) {
    std::string text;
    for (std::size_t left = below(most + 1); left > 0; --left) {
      text += fragments_[below(fragments_.size())];
    }
    return text;
  }

  // Up to most bytes replaced, removed or put in.
  void mutate(std::string& text, std::size_t most) {
    for (std::size_t left = below(most + 1); left > 0 && !text.empty(); --left) {
      const std::size_t at = below(text.size());
      const char byte = static_cast<char>(below(256));
      switch (below(3)) {
        case 0:
          text[at] = byte;
          break;
        case 1:
          text.erase(at, 1);
          break;
        default:
          text.insert(at, 1, byte);
      }
    }
  }

 private:
  std::mt19937 random_;
  std::span<const std::string_view> fragments_;
};
