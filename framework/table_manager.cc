#include "framework/table_manager.h"

#include <algorithm>
#include <cctype>

namespace framework {
namespace {

struct Registry {
  std::mutex lock;
  std::vector<TableManager*> managers;
};

// Never destroyed: managers live as long as the process, and threads may
// still look tables up while static objects are being torn down at exit.
Registry& Managers() {
  static Registry* registry = new Registry;
  return *registry;
}

bool SameKey(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
         });
}

}  // namespace

TableManager::TableManager(const char* application, const char* table)
    : application_(application), table_(table) {}

TableManager::~TableManager() { Shutdown(); }

int TableManager::Shutdown() {
  std::list<tavra*> closing;
  {
    std::lock_guard<std::mutex> guard(lock_);
    closing.swap(objects_);
  }
  for (tavra* object : closing) {
    if (object->GetSampleType() == kSampleEvent) EventRequestEnded(object);
    object->Release();
  }
  return 0;
}

uint32_t TableManager::RegisterWithManager(TableManager* manager) {
  Registry& r = Managers();
  std::lock_guard<std::mutex> guard(r.lock);
  for (TableManager* m : r.managers)
    if (SameKey(m->Table(), manager->Table())) return kErrDuplicateTable;
  r.managers.push_back(manager);
  return 0;
}

TableManager* TableManager::Find(std::string_view key) {
  Registry& r = Managers();
  std::lock_guard<std::mutex> guard(r.lock);
  for (TableManager* m : r.managers)
    if (SameKey(m->Table(), key)) return m;
  return nullptr;
}

std::vector<TableManager*> TableManager::Registered() {
  Registry& r = Managers();
  std::lock_guard<std::mutex> guard(r.lock);
  return r.managers;
}

tavra* TableManager::OpenRequest(const RequestDetail* detail, const ContextInfo* context) {
  tavra* object = CreateObject(detail, context);
  if (object == nullptr) return nullptr;
  object->Acquire();  // the caller's use; the list holds the first
  {
    std::lock_guard<std::mutex> guard(lock_);
    objects_.push_back(object);
  }
  if (object->GetSampleType() == kSampleEvent) EventRequestStarted(object);
  return object;
}

void TableManager::CloseRequest(tavra* object) {
  bool listed = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = std::find(objects_.begin(), objects_.end(), object);
    if (it != objects_.end()) {
      objects_.erase(it);
      listed = true;
    }
  }
  if (listed) {
    if (object->GetSampleType() == kSampleEvent) EventRequestEnded(object);
    object->Release();
  }
  object->Release();
}

size_t TableManager::OpenObjects() {
  std::lock_guard<std::mutex> guard(lock_);
  return objects_.size();
}

int TableManager::RunCommand(tavra* object, TavraAutomationCapsule* capsule) {
  if (!command_handler_) return 1;
  capsule->table = object;
  return command_handler_(capsule);
}

}  // namespace framework
