// The channel dispatcher: IPC anchors, their pipe lists, and the get and
// put of requests and rows over the shared endpoints.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvc {

inline constexpr int kAnchorAttributes = 40;
inline constexpr size_t kWorkBuffer = 1024;

// Anchor error codes.
enum AnchorError : uint32_t {
  kAnchorOk = 0,
  kAnchorInvalid = 4,
  kAnchorNoMemory = 8,
  kAnchorBadCode = 12,
  kAnchorTimeout = 20,
  kAnchorGenericError = 21,
};

// One request item: length-prefixed word, sender identifier and attribute
// names, each with its terminating zero.
struct DataRequest {
  DataRequest* next = nullptr;
  std::vector<char> block;
};

// One requested word and the rows that came back for it.
struct PipeList {
  PipeList* next = nullptr;
  DataRequest* requests = nullptr;
  int32_t numrow = 0;
  int32_t lenrow = 0;
  char* rows = nullptr;  // numrow x lenrow bytes, when rows came
  std::string word;
  std::string statement;  // the collector side: what came with the request
};

struct IpcAnchor {
  char kind = 0;  // 'P' agent, 'C' collector
  std::string current_request;
  char sender[kWorkBuffer] = {};
  std::string receiver;
  std::string last_unique;
  PipeList* pipes = nullptr;
  uint32_t error_code = 0;
  char error_text[23] = {};
  const char* attributes[kAnchorAttributes] = {};
  // The two failure details shown after a failed "get": the endpoint
  // operation's result and name, and the index and word of the entry.
  int detail_code[2] = {0, 0};
  std::string detail_text[2];
  // Set by the SQL text table before "get"; travels as the statement.
  std::string session_id;
};

// Function codes, by their position in the code table.
enum FunctionCode : int {
  kCodeInit = 1,
  kCodeInitCollector,
  kCodeGet,
  kCodePut,
  kCodeTerm,
  kCodeShut,
  kCodeInitShareMemory,
};

// The code number of a word (any case), 0 when unknown.
int FunctionCodeOf(const char* word);

IpcAnchor* NewAnchor(char kind);
void FreeAnchor(IpcAnchor* anchor);
PipeList* GetRequestOn(IpcAnchor* anchor, const char* request_text);
PipeList* PutRequestOn(IpcAnchor* anchor);
// Gives a collector-side entry its answer (copied).
void SetPipeRows(PipeList* entry, int32_t numrow, int32_t lenrow, const char* rows);
void FreePipeList(PipeList* list);

// The request item block for a word, sender and attributes.
std::vector<char> BuildRequestItem(const std::string& word, const char* sender,
                                   const char* const* attributes);

// The channel wait value in seconds, read once by the first anchor: for
// kind 'P' from WAIT_TIMEOUT, for 'C' from COLL_WAIT_TIMEOUT.
void ReadChannelWait(char kind);
int ChannelWaitSeconds();
// The wait value as an agent-side exchange reads it.
int AgentWaitSeconds();

// The two parts of this server's shared-object prefix, "<first>_<second>":
// the configured version (COLL_VERSION, "kvc" when unset) and server id.
void ChannelPrefixNames(std::string* first, std::string* second);

}  // namespace kvc
