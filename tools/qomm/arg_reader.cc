#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "qomm.h"

namespace qomm {

ArgReader::ArgReader(std::vector<std::string> args) : args_(std::move(args)) {}

std::string ArgReader::Next() {
  if (has_pending_) throw UsageError("unexpected value \"" + pending_ + "\"");
  std::string word = args_.at(next_++);
  size_t eq = word.find('=');
  if (word.compare(0, 2, "--") == 0 && eq != std::string::npos) {
    pending_ = word.substr(eq + 1);
    has_pending_ = true;
    word.erase(eq);
  }
  return word;
}

std::string ArgReader::Value(const std::string& name) {
  if (has_pending_) {
    has_pending_ = false;
    return pending_;
  }
  if (done()) throw UsageError(name + " needs a value");
  return args_[next_++];
}

double ArgReader::Number(const std::string& name, double low, double high, bool whole) {
  const std::string text = Value(name);
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v) || v < low || v > high ||
      (whole && v != std::floor(v))) {
    char range[96];
    snprintf(range, sizeof(range), "%.10g to %.10g", low, high);
    throw UsageError(name + " takes a " + (whole ? "whole number" : "number") + " from " + range +
                     ", not \"" + text + "\"");
  }
  return v;
}

void ArgReader::NoValue(const std::string& name) {
  if (has_pending_) throw UsageError(name + " takes no value");
}

}  // namespace qomm
