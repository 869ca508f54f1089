#pragma once

#include <exception>
#include <string>

namespace quellix {

// The program's own error: a plain text whose description is the text itself.
class TextError : public std::exception {
 public:
  explicit TextError(std::string text) : text_(std::move(text)) {}

  const std::string& description() const noexcept { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

// The description an error reporter shows: the text for our own errors, what() otherwise.
std::string errorDescription(const std::exception& error);

}  // namespace quellix
