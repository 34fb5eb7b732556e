// A node's parameters: integers and doubles with inclusive ranges, and
// strings. Only declared names can be set; a read of an unknown name warns.
#ifndef QO_CORE_QO_PROP_H_
#define QO_CORE_QO_PROP_H_

#include <map>
#include <string>

#include "core/qo_logging.h"

namespace qo {

class Prop {
 public:
  template <typename T>
  struct Value {
    T value;
    T upper;
    T low;
  };

  // Declares (or redeclares) a parameter. The default is not range-checked.
  void SetDefault(const std::string& key, int value, int low, int upper) {
    int_paras_[key].value = value;
    int_paras_[key].low = low;
    int_paras_[key].upper = upper;
  }
  void SetDefault(const std::string& key, double value, double low, double upper) {
    double_paras_[key].value = value;
    double_paras_[key].low = low;
    double_paras_[key].upper = upper;
  }
  void SetDefault(const std::string& key, const std::string& value) { string_paras_[key] = value; }

  void Set(const std::string& _key, int _val) {
    CHECK(int_paras_.count(_key) > 0)
        << "key " << _key << " not exist! Call SetDefault before Set.";
    const Value<int>& vs = int_paras_[_key];
    CHECK((vs.low <= _val) && (vs.upper >= _val))
        << _key << ":" << _val << " exceeds range [" << vs.low << ", " << vs.upper << "]";
    int_paras_[_key].value = _val;
  }
  void Set(const std::string& _key, double _val) {
    CHECK(double_paras_.count(_key) > 0)
        << "key " << _key << " not exist! Call SetDefault before Set.";
    const Value<double>& vs = double_paras_[_key];
    CHECK((vs.low <= _val) && (vs.upper >= _val))
        << _key << ":" << _val << " exceeds range [" << vs.low << ", " << vs.upper << "]";
    double_paras_[_key].value = _val;
  }
  void Set(const std::string& _key, const std::string& _val) {
    CHECK(string_paras_.count(_key) > 0)
        << "key " << _key << " not exist! Call SetDefault before Set.";
    string_paras_[_key] = _val;
  }
  void Set(const std::string& _key, const char* _val) {
    Set(_key, std::string(_val == nullptr ? "" : _val));
  }

  bool Get(const std::string& key, int& out) const {
    if (int_paras_.count(key) > 0) {
      out = int_paras_.at(key).value;
      return true;
    }
    LOG(3) << "int_paras has no attribute " << key;
    return false;
  }
  bool Get(const std::string& key, double& out) const {
    if (double_paras_.count(key) > 0) {
      out = double_paras_.at(key).value;
      return true;
    }
    LOG(3) << "double_paras has no attribute " << key;
    return false;
  }
  bool Get(const std::string& key, std::string& out) const {
    if (string_paras_.count(key) > 0) {
      out = string_paras_.at(key);
      return true;
    }
    LOG(3) << "string_paras has no attribute " << key;
    return false;
  }

  // Public: nodes declare entries directly and hosts may write them.
  std::map<std::string, Value<int>> int_paras_;
  std::map<std::string, Value<double>> double_paras_;
  std::map<std::string, std::string> string_paras_;
};

}  // namespace qo

#endif  // QO_CORE_QO_PROP_H_
