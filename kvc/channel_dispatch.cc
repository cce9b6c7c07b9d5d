#include "kvc/channel_dispatch.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

#include "kvc/collector_channel.h"
#include "kvc/shared_memory_exchange.h"
#include "kvc/agent_config.h"
#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace kvc {
namespace {

constexpr const char* kCodeWords[] = {"init", "initc", "get", "put", "term", "shut", "initsm"};
constexpr int kPutTimeoutSeconds = 10;
constexpr int kDefaultAgentWait = 45;
constexpr int kDefaultCollectorWait = 5;

struct ChannelClock {
  std::once_flag once;
  int wait_seconds = 0;
};

ChannelClock& Clock() {
  static ChannelClock clock;
  return clock;
}

int ReadWait(const char* setting, int fallback) {
  const auto value = platform::GetEnv(setting);
  const unsigned long n = value.has_value() ? strtoul(value->c_str(), nullptr, 10) : 0;
  return n == 0 ? fallback : static_cast<int>(n);
}

void SetError(IpcAnchor* anchor, uint32_t code, const char* text) {
  anchor->error_code = code;
  // The anchor keeps the first 22 characters; longer texts are cut on purpose.
  const size_t n = strnlen(text, sizeof anchor->error_text - 1);
  memcpy(anchor->error_text, text, n);
  anchor->error_text[n] = '\0';
}

// Endpoint results become anchor errors; other negative results leave the
// code as it is.
void SetEndpointError(IpcAnchor* anchor, int result, const char* operation, int index, const std::string& word) {
  if (result == kCommTimeout) SetError(anchor, kAnchorTimeout, "Share memory time out");
  if (result == kCommFailed) SetError(anchor, kAnchorGenericError, "Share memory generic error");
  anchor->detail_code[0] = result;
  anchor->detail_text[0] = operation;
  anchor->detail_code[1] = index;
  anchor->detail_text[1] = word;
}

std::vector<std::string> SplitWords(const char* text) {
  std::vector<std::string> words;
  std::string word;
  for (const char* p = text; ; ++p) {
    if (*p == '\0' || *p == ' ' || *p == ',') {
      if (!word.empty()) words.push_back(word);
      word.clear();
      if (*p == '\0') break;
    } else {
      word += *p;
    }
  }
  return words;
}

PipeList* NewEntry(const std::string& word, std::vector<char> item) {
  auto* entry = new (std::nothrow) PipeList;
  if (entry == nullptr) return nullptr;
  entry->word = word;
  entry->requests = new (std::nothrow) DataRequest{nullptr, std::move(item)};
  if (entry->requests == nullptr) {
    delete entry;
    return nullptr;
  }
  return entry;
}

std::vector<std::string> AttributeList(const IpcAnchor* anchor) {
  std::vector<std::string> names;
  for (const char* name : anchor->attributes)
    if (name != nullptr) names.emplace_back(name);
  return names;
}

// Builds the pipe list for a new request text; false when memory ran out.
bool BuildPipes(IpcAnchor* anchor, const char* request_text) {
  FreePipeList(anchor->pipes);
  anchor->pipes = nullptr;
  anchor->current_request = request_text;
  PipeList** tail = &anchor->pipes;
  for (const std::string& word : SplitWords(request_text)) {
    PipeList* entry = NewEntry(word, BuildRequestItem(word, anchor->sender, anchor->attributes));
    if (entry == nullptr) {
      FreePipeList(anchor->pipes);
      anchor->pipes = nullptr;
      anchor->current_request.clear();
      return false;
    }
    *tail = entry;
    tail = &entry->next;
  }
  return true;
}

}  // namespace

int ChannelWaitSeconds() { return Clock().wait_seconds; }

int AgentWaitSeconds() {
  ReadChannelWait('P');
  return Clock().wait_seconds;
}

void ChannelPrefixNames(std::string* first, std::string* second) {
  AgentConfig& config = TheAgentConfig();
  ReadAgentEnvironment(config);
  *first = config.version;
  *second = config.serverId != nullptr ? config.serverId : "";
}

int FunctionCodeOf(const char* word) {
  for (int i = 0; i < static_cast<int>(std::size(kCodeWords)); ++i) {
    const char* known = kCodeWords[i];
    size_t n = 0;
    while (known[n] != '\0' && std::tolower(static_cast<unsigned char>(word[n])) == known[n]) ++n;
    if (known[n] == '\0' && word[n] == '\0') return i + 1;
  }
  return 0;
}

std::vector<char> BuildRequestItem(const std::string& word, const char* sender, const char* const* attributes) {
  const size_t sender_length = strlen(sender);
  size_t total = word.size() + sender_length + 6;
  for (int i = 0; i < kAnchorAttributes; ++i)
    if (attributes[i] != nullptr) total += strlen(attributes[i]) + 1;
  std::vector<char> block(total, '\0');
  const uint16_t total16 = static_cast<uint16_t>(total);
  const uint16_t word16 = static_cast<uint16_t>(word.size());
  memcpy(block.data(), &total16, 2);
  memcpy(block.data() + 2, &word16, 2);
  size_t at = 4;
  memcpy(block.data() + at, word.data(), word.size());
  at += word.size();
  memcpy(block.data() + at, sender, sender_length);
  at += sender_length + 1;
  for (int i = 0; i < kAnchorAttributes; ++i) {
    if (attributes[i] == nullptr) continue;
    const size_t n = strlen(attributes[i]);
    memcpy(block.data() + at, attributes[i], n);
    at += n + 1;
  }
  return block;
}

void ReadChannelWait(char kind) {
  ChannelClock& clock = Clock();
  std::call_once(clock.once, [&] {
    clock.wait_seconds = kind == 'C' ? ReadWait("COLL_WAIT_TIMEOUT", kDefaultCollectorWait)
                                     : ReadWait("WAIT_TIMEOUT", kDefaultAgentWait);
  });
}

IpcAnchor* NewAnchor(char kind) {
  ReadChannelWait(kind);
  auto* anchor = new (std::nothrow) IpcAnchor;
  if (anchor == nullptr) return nullptr;
  anchor->kind = kind;
  snprintf(anchor->sender, sizeof anchor->sender, "AGT");
  anchor->receiver = "COL";
  return anchor;
}

void FreePipeList(PipeList* list) {
  while (list != nullptr) {
    PipeList* next = list->next;
    for (DataRequest* r = list->requests; r != nullptr;) {
      DataRequest* following = r->next;
      delete r;
      r = following;
    }
    delete[] list->rows;
    delete list;
    list = next;
  }
}

void FreeAnchor(IpcAnchor* anchor) {
  if (anchor == nullptr || (anchor->kind != 'P' && anchor->kind != 'C')) return;
  FreePipeList(anchor->pipes);
  delete anchor;
}

void SetPipeRows(PipeList* entry, int32_t numrow, int32_t lenrow, const char* rows) {
  delete[] entry->rows;
  entry->rows = nullptr;
  entry->numrow = numrow;
  entry->lenrow = lenrow;
  const int64_t size = static_cast<int64_t>(numrow) * lenrow;
  if (numrow <= 0 || size <= 0) return;
  entry->rows = new (std::nothrow) char[static_cast<size_t>(size)];
  if (entry->rows == nullptr) {
    entry->numrow = 0;
    return;
  }
  memcpy(entry->rows, rows, static_cast<size_t>(size));
}

PipeList* GetRequestOn(IpcAnchor* anchor, const char* request_text) {
  SetError(anchor, kAnchorOk, "");
  if (Debug().full_debug) Log('t', "com2010", "get_request() %8s %s\n", anchor->current_request.c_str(), "AGT");
  if (anchor->kind == 'C') {
    if (Debug().debug) Log('t', "ush0400", "Entering: get_probe_reqs\n");
    FreePipeList(anchor->pipes);
    anchor->pipes = nullptr;
    std::string name, unique, statement;
    std::vector<std::string> attributes;
    const int rc = RequestEndpoint()->GetRequest(&name, &unique, &attributes, &statement, Clock().wait_seconds);
    if (rc != kCommOk) {
      if (rc == kCommTimeout && Debug().debug) Log('t', "ush0410", "Call get_probe_reqs: No request\n");
      return nullptr;
    }
    std::vector<const char*> names;
    for (const std::string& a : attributes) names.push_back(a.c_str());
    names.resize(kAnchorAttributes, nullptr);
    anchor->pipes = NewEntry(name, BuildRequestItem(name, anchor->sender, names.data()));
    if (anchor->pipes != nullptr) anchor->pipes->statement = statement;
    anchor->last_unique = unique;
    return anchor->pipes;
  }
  if (request_text != anchor->current_request && !BuildPipes(anchor, request_text)) {
    SetError(anchor, kAnchorNoMemory, "No memory available");
    return nullptr;
  }
  int index = 0;
  for (PipeList* entry = anchor->pipes; entry != nullptr; entry = entry->next, ++index) {
    const ChannelAnswer answer = SharedChannel().Exchange(entry->word, anchor->session_id, AttributeList(anchor));
    if (answer.busy || answer.unavailable) return nullptr;
    if (!answer.Succeeded()) {
      SetEndpointError(anchor, answer.result, answer.failed_step.c_str(), index, entry->word);
      return nullptr;
    }
    SetPipeRows(entry, answer.numrow, answer.lenrow, answer.rows.data());
  }
  return anchor->pipes;
}

PipeList* PutRequestOn(IpcAnchor* anchor) {
  SetError(anchor, kAnchorOk, "");
  if (anchor->kind != 'C') {
    SetError(anchor, kAnchorInvalid, "Invalid request type for probe.");
    return nullptr;
  }
  int index = 0;
  for (PipeList* entry = anchor->pipes; entry != nullptr; entry = entry->next, ++index) {
    for (DataRequest* item = entry->requests; item != nullptr; item = item->next) {
      const size_t n = item->block.size() < kWorkBuffer ? item->block.size() : kWorkBuffer;
      memcpy(anchor->sender, item->block.data(), n);
      const int rc = DataEndpoint()->SendData(anchor->last_unique.c_str(), entry->numrow, entry->lenrow,
                                              entry->rows, kPutTimeoutSeconds);
      if (rc < 0) {
        SetEndpointError(anchor, rc, "SendData", index, entry->word);
        FreePipeList(anchor->pipes);
        anchor->pipes = nullptr;
        return nullptr;
      }
    }
  }
  return anchor->pipes;
}

}  // namespace kvc
