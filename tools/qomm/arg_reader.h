// Command-line words, read one after another.
#ifndef QO_TOOLS_QOMM_ARG_READER_H_
#define QO_TOOLS_QOMM_ARG_READER_H_

#include <stdexcept>
#include <string>
#include <vector>

namespace qomm {

// Bad usage: qomm prints the message and exits with status 2.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& what) : std::runtime_error(what) {}
};

class ArgReader {
 public:
  explicit ArgReader(std::vector<std::string> args);

  bool done() const { return next_ >= args_.size(); }
  // The next word; "--name=value" comes as "--name" with a pending value.
  std::string Next();
  // The value of option `name`: the pending "=value" or the next word.
  std::string Value(const std::string& name);
  int IntValue(const std::string& name, long low, long high);
  double DoubleValue(const std::string& name, double low, double high);
  // Throws when an "=value" was given to an option that takes none.
  void NoValue(const std::string& name);

 private:
  std::vector<std::string> args_;
  size_t next_ = 0;
  bool has_pending_ = false;
  std::string pending_;
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_ARG_READER_H_
