// `sorvalen-mdns lookup` against a scripted device on a private loopback.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "dns_message_builder.h"
#include "scripted_peer.h"

namespace sorvalen::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kService = "_http._tcp.local";

// Runs the tool while a peer answers its first query with `answer` (nothing
// when empty); returns the tool's result and the query the peer got.
CommandResult lookup_answered_by(const Bytes& answer, std::vector<std::string> args, ReceivedQuery* query) {
  ScriptedPeer peer;
  bool got_query = false;
  std::thread answering([&] {
    got_query = peer.await_query(query, 30s);
    if (got_query && !answer.empty())
      peer.reply(*query, answer);
  });
  args.insert(args.begin(), {SORVALEN_TOOL_PATH, "lookup"});
  const CommandResult result = run_command(args, 60);
  answering.join();
  EXPECT_TRUE(got_query);
  return result;
}

class ToolLookupTest : public ::testing::Test {
 protected:
  void SetUp() override { enter_private_loopback(); }
};

TEST_F(ToolLookupTest, PrintsTheDeviceOfAUsableAnswerElseExitsOne) {
  Bytes answer = answer_header(42, 2, kService);
  append(&answer, ptr_record(kService, "Living Room._http._tcp.local"));
  append(&answer, srv_record("Living Room._http._tcp.local", 8080));
  ReceivedQuery query;
  CommandResult result = lookup_answered_by(answer, {"127.0.0.1", kService, "--id", "42"}, &query);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "ok address=127.0.0.1 port=8080 name=Living Room._http._tcp.local\n");
  ASSERT_GE(query.bytes.size(), 2u);
  EXPECT_EQ(query.bytes[0], 0);
  EXPECT_EQ(query.bytes[1], 42);

  Bytes ptr_only = answer_header(1, 1, kService);
  append(&ptr_only, ptr_record(kService, "tv._http._tcp.local"));
  for (const Bytes& unusable : {ptr_only, Bytes{}}) {
    result = lookup_answered_by(unusable, {"127.0.0.1", kService}, &query);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "no usable answer from 127.0.0.1 within 5 s\n");
  }
}

TEST_F(ToolLookupTest, RejectsBadInputWithOneLineAndSendsNothing) {
  ScriptedPeer peer;
  const std::vector<std::vector<std::string>> bad_inputs = {
      {},
      {"127.0.0.1"},
      {"127.0.0.1", kService, "extra"},
      {"300.1.1.1", kService},
      {"printer.local", kService},
      {"127.0.0.1", kService, "--id", "65536"},
      {"127.0.0.1", kService, "--id", "-1"},
      {"127.0.0.1", kService, "--id"},
      {"127.0.0.1", kService, "--verbose"},
      {"127.0.0.1", std::string(256, 'l') + ".local"},
      {"127.0.0.1", std::string(1007, 'n')},
  };
  for (std::vector<std::string> args : bad_inputs) {
    SCOPED_TRACE(::testing::PrintToString(args));
    args.insert(args.begin(), {SORVALEN_TOOL_PATH, "lookup"});
    const CommandResult result = run_command(args, 60);
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_TRUE(!result.err.empty() && result.err.back() == '\n');
    EXPECT_EQ(result.out, "");
  }
  ReceivedQuery query;
  EXPECT_FALSE(peer.await_query(&query, 300ms));

  const CommandResult help = run_command({SORVALEN_TOOL_PATH, "lookup", "--help"});
  EXPECT_EQ(help.exit_status, 0);
  EXPECT_NE(help.out.find("usage: sorvalen-mdns lookup ADDRESS NAME"), std::string::npos);
}

}  // namespace
}  // namespace sorvalen::test
