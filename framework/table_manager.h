// Table managers: one per table, known to the framework by its key. A
// manager creates a table object for each request and keeps the open ones
// in a list that pushes walk under the manager's lock.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "framework/tavra.h"

namespace framework {

// A take-action command on its way through a table object.
struct TavraAutomationCapsule {
  tavra* table = nullptr;
  std::string command;  // at most 1024 characters are used
  int result = 0;
  bool finished = false;
  void Finish() { finished = true; }
};

// The handler of take-action commands; 0 when it took the command.
using CommandHandler = std::function<int(TavraAutomationCapsule*)>;

// Result of RegisterWithManager for a second manager under a taken key.
inline constexpr uint32_t kErrDuplicateTable = 0x21060003;

class TableManager {
 public:
  TableManager(const char* application, const char* table);
  virtual ~TableManager();

  virtual int Shutdown();
  // Makes a new table object for a request, or null.
  virtual tavra* CreateObject(const RequestDetail* detail, const ContextInfo* context) = 0;
  // Told when a request of the event sample type opens and when it closes,
  // so a table that pushes rows can run its producer only while someone
  // listens.
  virtual void EventRequestStarted(tavra* /*object*/) {}
  virtual void EventRequestEnded(tavra* /*object*/) {}

  // Makes the manager known under its table key; 0 or an error. The
  // manager must live as long as the process.
  static uint32_t RegisterWithManager(TableManager* manager);
  // The registered manager of a key (any case), or null.
  static TableManager* Find(std::string_view key);
  // Every registered manager, in registration order.
  static std::vector<TableManager*> Registered();

  // Opens a request: a new object in the list (one use held for the
  // caller, released by CloseRequest).
  tavra* OpenRequest(const RequestDetail* detail, const ContextInfo* context);
  void CloseRequest(tavra* object);

  const std::string& Application() const { return application_; }
  const std::string& Table() const { return table_; }
  std::mutex& ObjectLock() { return lock_; }
  size_t OpenObjects();

  void SetCommandHandler(CommandHandler handler) { command_handler_ = std::move(handler); }
  int RunCommand(tavra* object, TavraAutomationCapsule* capsule);

 private:
  friend class TavraListIter;
  const std::string application_;
  const std::string table_;
  std::mutex lock_;
  std::list<tavra*> objects_;
  CommandHandler command_handler_;
};

// Walks a manager's open objects; the caller holds the manager's lock.
class TavraListIter {
 public:
  explicit TavraListIter(TableManager& manager)
      : it_(manager.objects_.begin()), end_(manager.objects_.end()) {}
  tavra* Next() { return it_ == end_ ? nullptr : *it_++; }

 private:
  std::list<tavra*>::iterator it_;
  std::list<tavra*>::iterator end_;
};

}  // namespace framework
