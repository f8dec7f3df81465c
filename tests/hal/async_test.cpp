// Tests of the asynchronous remote command and the poll for its end.
#include <chrono>
#include <thread>

#include "hal_test_util.h"

namespace {

using haltest::HalTest;
using Strings = std::vector<std::string>;

// Polls until the result is not 0, for at most 5 s; the results seen.
std::vector<int> PollToEnd(TVU_RCMD* rec, int32_t* exitCode, const TVU_TRACE& trace) {
  std::vector<int> results;
  for (int i = 0; i < 250; ++i) {
    results.push_back(i_RCMD_GetExit(rec, exitCode, trace));
    if (results.back() != 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return results;
}

TEST_F(HalTest, GetExitWithoutThread) {
  TVU_RCMD rec = Rec("x");
  int32_t exitCode = 77;
  EXPECT_EQ(i_RCMD_GetExit(&rec, &exitCode, trace_), -1);
  EXPECT_EQ(exitCode, 0);
  EXPECT_EQ(Traced(), (Strings{"+++ RCMD_GetExit: node1 [x], handle 0",
                               "RCMD_GetExit: Thread handle is not yet set (NULL).",
                               "--- RCMD_GetExit: return -1, (exit 0)"}));
}

TEST_F(HalTest, AsyncRunPolledToCompletion) {
  Env("HAL_STANDIN_SLEEP", "1");
  Env("HAL_STANDIN_EXIT", "7");
  TVU_RCMD rec = Rec("uptime");
  rec.iAccessMode = 1;  // rsh
  ASSERT_EQ(i_ASYNC_RCMD(&rec, trace_), 0);
  ASSERT_NE(rec.hThread, nullptr);
  ASSERT_EQ(rec.szMsg[0], '-');
  int tid = std::atoi(rec.szMsg + 1);
  EXPECT_GT(tid, 0);
  TVU_RCMD stale = rec;  // a copy of the record, polled after the original

  int32_t exitCode = -5;
  std::vector<int> results = PollToEnd(&rec, &exitCode, trace_);
  ASSERT_GE(results.size(), 2u);  // the command takes a second: running first
  EXPECT_EQ(results.front(), 0);
  EXPECT_EQ(results.back(), 1);
  EXPECT_EQ(exitCode, 7);
  EXPECT_EQ(rec.hThread, nullptr);
  EXPECT_EQ(std::string(rec.szMsg), "-" + std::to_string(tid));  // the thread worked on its own copy
  EXPECT_EQ(Args("rsh"), (Strings{"-l", "bob", "node1", "uptime"}));

  // Polled again: no thread.  The stale copy's handle is refused, not followed.
  EXPECT_EQ(i_RCMD_GetExit(&rec, &exitCode, trace_), -1);
  EXPECT_EQ(exitCode, 0);
  Traced();
  EXPECT_EQ(i_RCMD_GetExit(&stale, &exitCode, trace_), -1);
  EXPECT_EQ(stale.hThread, nullptr);
  EXPECT_TRUE(Has(Traced(), "RCMD_GetExit: WARNING: got not expected WAIT_FAILED"));

  // The thread's program log lies beside the trace file.
  Strings log = Lines(dir_ / "tq_client.lgc");
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], "TQ_CLIENT RCMD node node1, access mode 1, cmd uptime");
  EXPECT_EQ(log[1], "TQ_CLIENT RCMD return 7, msg [exit status 7]");
}

TEST_F(HalTest, AsyncTraceLinesAndSeveralRuns) {
  TVU_RCMD recs[4];
  const char* programs[] = {"tq_ctrlc", "rsh", "ssh", "tq_ssh"};
  for (int mode = 0; mode < 4; ++mode) {
    recs[mode] = Rec("job" + std::to_string(mode));
    recs[mode].iAccessMode = mode;
    ASSERT_EQ(i_ASYNC_RCMD(&recs[mode], trace_), 0);
  }
  for (int mode = 0; mode < 4; ++mode) {
    int32_t exitCode = -1;
    EXPECT_EQ(PollToEnd(&recs[mode], &exitCode, trace_).back(), 1);
    EXPECT_EQ(exitCode, 0);
    auto args = Args(programs[mode]);
    ASSERT_TRUE(args) << programs[mode];
    EXPECT_EQ(args->back(), "job" + std::to_string(mode));
  }
  Strings traced = Traced();
  std::string t = recs[3].szMsg + 1;  // the last run's thread id
  EXPECT_TRUE(Has(traced, "+++ ASYNC_RCMD  node >node1<, cmd >job3<"));
  // One thread id in the message, the "ThreadId" line and the thread's lines.
  const std::string end = ") => " + t;
  bool handleLine = false;
  for (const std::string& l : traced)
    handleLine |= l.rfind("--- ASYNC_RCMD return HANDLE => ThreadId: (HANDLE ", 0) == 0 && l.size() > end.size() &&
                  l.compare(l.size() - end.size(), end.size(), end) == 0;
  EXPECT_TRUE(handleLine);
  EXPECT_TRUE(Has(traced, "+++ ASYNC_RCMD_THREAD (" + t + "): got node node1, cmd job3"));
  EXPECT_TRUE(Has(traced, "--- ASYNC_RCMD_THREAD (" + t + "): exit with 0, msg [exit status 0]"));
  EXPECT_TRUE(Has(traced, "RCMD_GetExit: Thread returned with exit code 0"));
}

}  // namespace
