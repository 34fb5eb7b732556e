// Global functions, node classes and extension types, by name or code.
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/qo_logging.h"
#include "core/qo_registry.h"

namespace qo {

namespace {

// Tables are function-local and never destroyed: modules register from their
// static initialisation, and entries must outlive every other static.
template <typename Entry>
struct Table {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<Entry>> entries;
};

Table<Registry>& GlobalFunctions() {
  static auto* table = new Table<Registry>();
  return *table;
}

Table<NodeClassRegistry>& NodeClasses() {
  static auto* table = new Table<NodeClassRegistry>();
  return *table;
}

struct ExtTable {
  std::mutex mutex;
  std::map<int, std::unique_ptr<ExtTypeVTable>> entries;
};

ExtTable& ExtTypes() {
  static auto* table = new ExtTable();
  return *table;
}

template <typename Entry>
std::vector<std::string> Names(Table<Entry>& table) {
  std::lock_guard<std::mutex> lock(table.mutex);
  std::vector<std::string> names;
  names.reserve(table.entries.size());
  for (const auto& kv : table.entries) names.push_back(kv.first);
  return names;
}

}  // namespace

Registry& Registry::Register(const std::string& name, bool override) {
  Table<Registry>& table = GlobalFunctions();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.entries.find(name);
  if (it != table.entries.end()) {
    if (!override) {
      LogMessageFatal(__FILE__, __LINE__).stream()
          << "global function " << name << " is already registered";
    }
    return *it->second;
  }
  auto entry = std::make_unique<Registry>(name);
  Registry& ref = *entry;
  table.entries.emplace(name, std::move(entry));
  return ref;
}

Registry& Registry::set_body(PackedFunc f) {
  std::lock_guard<std::mutex> lock(GlobalFunctions().mutex);
  func_ = std::move(f);
  return *this;
}

const PackedFunc* Registry::Get(const std::string& name) {
  Table<Registry>& table = GlobalFunctions();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.entries.find(name);
  if (it == table.entries.end() || !it->second->func_) return nullptr;
  return &it->second->func_;
}

std::vector<std::string> Registry::ListNames() { return Names(GlobalFunctions()); }

NodeClassRegistry& NodeClassRegistry::Register(const std::string& class_name,
                                               const std::function<void*()>& create,
                                               const std::function<void(void*)>& destroy) {
  Table<NodeClassRegistry>& table = NodeClasses();
  std::lock_guard<std::mutex> lock(table.mutex);
  if (table.entries.count(class_name) > 0) {
    LogMessageFatal(__FILE__, __LINE__).stream()
        << "node class " << class_name << " is already registered";
  }
  auto entry = std::make_unique<NodeClassRegistry>(class_name, create, destroy);
  NodeClassRegistry& ref = *entry;
  table.entries.emplace(class_name, std::move(entry));
  return ref;
}

void* NodeClassRegistry::Create(const std::string& class_name) {
  std::function<void*()> create;
  {
    Table<NodeClassRegistry>& table = NodeClasses();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto it = table.entries.find(class_name);
    if (it == table.entries.end()) return nullptr;
    create = it->second->create_;
  }
  // Called unlocked: a node's constructor may log or look things up.
  return create ? create() : nullptr;
}

void NodeClassRegistry::Destroy(const std::string& class_name, void* node) {
  std::function<void(void*)> destroy;
  {
    Table<NodeClassRegistry>& table = NodeClasses();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto it = table.entries.find(class_name);
    if (it == table.entries.end()) return;
    destroy = it->second->destroy_;
  }
  if (destroy) destroy(node);
}

std::vector<std::string> NodeClassRegistry::ListNames() { return Names(NodeClasses()); }

ExtTypeVTable* ExtTypeVTable::Get(int type_code) {
  ExtTable& table = ExtTypes();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto it = table.entries.find(type_code);
  return it == table.entries.end() ? nullptr : it->second.get();
}

ExtTypeVTable* ExtTypeVTable::Register(int type_code) {
  CHECK_GT(type_code, kExtBegin) << "extension type codes start above " << kExtBegin;
  ExtTable& table = ExtTypes();
  std::lock_guard<std::mutex> lock(table.mutex);
  std::unique_ptr<ExtTypeVTable>& entry = table.entries[type_code];
  if (!entry) entry = std::make_unique<ExtTypeVTable>();
  return entry.get();
}

}  // namespace qo
