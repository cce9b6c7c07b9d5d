// Starts the channel peer (channel_peer.cc) on the collector's side of the
// channel named by `prefix` and `server`, with the peer's own arguments.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/temp_dir.h"

namespace kzq_test {

// With `ready`, returns once the peer has opened the channel: an exchange
// waits only seconds for its answer, and a process starts slowly under Wine.
inline std::unique_ptr<platform::ChildProcess> StartChannelPeer(const std::string& prefix, const std::string& server,
                                                                 const std::vector<std::string>& args,
                                                                 bool ready = false) {
  std::vector<std::string> argv{BuiltProgram("tests", "kvc_channel_peer"), prefix, server};
  argv.insert(argv.end(), args.begin(), args.end());
  TempDir scratch;
  platform::SetEnv("KVC_PEER_READY_FILE", ready ? scratch.File("ready") : "");
  int error = 0;
  auto peer = platform::StartProcess(argv, &error);
  platform::SetEnv("KVC_PEER_READY_FILE", "");
  EXPECT_NE(peer, nullptr) << "cannot start the peer: " << error;
  platform::FileStatus st;
  const bool opened = !ready || peer == nullptr ||
                      Eventually([&] { return platform::StatPath(scratch.File("ready"), &st) == 0; });
  EXPECT_TRUE(opened) << "the peer did not open the channel";
  return peer;
}

}  // namespace kzq_test
