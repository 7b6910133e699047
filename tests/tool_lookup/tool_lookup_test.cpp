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

// Answers the first query with `answer` (nothing when empty) on a thread of
// its own while the tool runs; remembers the query.
class AnsweringPeer {
 public:
  explicit AnsweringPeer(Bytes answer) : answer_(std::move(answer)) {
    thread_ = std::thread([this] {
      if (!peer_.await_query(&query_, 30s))
        return;
      got_query_ = true;
      if (!answer_.empty())
        peer_.reply(query_, answer_);
    });
  }
  ~AnsweringPeer() {
    if (thread_.joinable())
      thread_.join();
  }
  // Valid once the tool has ended.
  bool got_query() {
    thread_.join();
    return got_query_;
  }
  const ReceivedQuery& query() const { return query_; }

 private:
  ScriptedPeer peer_;
  Bytes answer_;
  ReceivedQuery query_;
  bool got_query_ = false;
  std::thread thread_;
};

CommandResult run_tool(std::vector<std::string> args) {
  args.insert(args.begin(), {SORVALEN_TOOL_PATH, "lookup"});
  return run_command(args, 60);
}

bool is_one_line(const std::string& text) {
  return !text.empty() && text.back() == '\n' && std::count(text.begin(), text.end(), '\n') == 1;
}

class ToolLookupTest : public ::testing::Test {
 protected:
  void SetUp() override { enter_private_loopback(); }
};

TEST_F(ToolLookupTest, PrintsTheDeviceOfAUsableAnswer) {
  Bytes answer = answer_header(42, 2, kService);
  append(&answer, ptr_record(kService, "Living Room._http._tcp.local"));
  append(&answer, srv_record("Living Room._http._tcp.local", 8080));
  AnsweringPeer peer(answer);
  const CommandResult result = run_tool({"127.0.0.1", kService, "--id", "42"});
  ASSERT_TRUE(peer.got_query());
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "ok address=127.0.0.1 port=8080 name=Living Room._http._tcp.local\n");
  ASSERT_GE(peer.query().bytes.size(), 2u);
  EXPECT_EQ(peer.query().bytes[0], 0);
  EXPECT_EQ(peer.query().bytes[1], 42);
}

TEST_F(ToolLookupTest, ExitsOneWithoutAUsableAnswer) {
  Bytes ptr_only = answer_header(1, 1, kService);
  append(&ptr_only, ptr_record(kService, "tv._http._tcp.local"));
  {
    AnsweringPeer peer(ptr_only);
    const CommandResult result = run_tool({"127.0.0.1", kService});
    ASSERT_TRUE(peer.got_query());
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "no usable answer from 127.0.0.1 within 5 s\n");
  }
  {
    AnsweringPeer silent(Bytes{});
    const CommandResult result = run_tool({"127.0.0.1", kService});
    ASSERT_TRUE(silent.got_query());
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
  for (const auto& args : bad_inputs) {
    const CommandResult result = run_tool(args);
    EXPECT_EQ(result.exit_status, 2) << testing::PrintToString(args);
    EXPECT_TRUE(is_one_line(result.err)) << result.err;
    EXPECT_EQ(result.out, "");
  }
  ReceivedQuery query;
  EXPECT_FALSE(peer.await_query(&query, 300ms));
}

TEST_F(ToolLookupTest, HelpDescribesTheCommand) {
  const CommandResult result = run_tool({"--help"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_NE(result.out.find("usage: sorvalen-mdns lookup ADDRESS NAME"), std::string::npos);
}

}  // namespace
}  // namespace sorvalen::test
