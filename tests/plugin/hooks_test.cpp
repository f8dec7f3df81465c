// Tests of the log, trace and error hooks, the status file and the messages
// of the next-generation dedup library.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "plugin/db_hooks.h"
#include "runtime/trace.h"
#include "support/test_util.h"
#include "tvu_con.h"

namespace {

std::vector<std::string> g_logged;
std::vector<std::string> g_traced;
void CollectLog(const char* text) { g_logged.push_back(text); }
void CollectTrace(const char* text) { g_traced.push_back(text); }

class HooksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tvu_hooks_reset_for_test();
    g_logged.clear();
    g_traced.clear();
  }
  void TearDown() override {
    tvu_hooks_reset_for_test();
    korvo::trace_configure(0, nullptr);
  }
};

TEST_F(HooksTest, ErrorRecordBeforeAndAfterSetError) {
  DB_ERROR e;
  memset(&e, 'x', sizeof e);
  EXPECT_EQ(DB_NUM_I_OK, DB_GetError(&e));
  EXPECT_EQ(0u, e.uiCode);
  EXPECT_STREQ("", e.szKind);
  EXPECT_STREQ("tvu_con error", e.szMessage);

  EXPECT_EQ(11u, DB_SetError(1234, "bad %s %d", "thing", 7));
  DB_GetError(&e);
  EXPECT_EQ(1234u, e.uiCode);
  EXPECT_STREQ("ERROR", e.szKind);
  EXPECT_STREQ("bad thing 7", e.szMessage);
  static_assert(sizeof(DB_ERROR) == 2116, "the client's error record layout");
}

TEST_F(HooksTest, LongMessagesAreCutNeverOverflow) {
  std::string big(5000, 'm');
  DB_SetError(1, "%s", big.c_str());
  DB_ERROR e;
  DB_GetError(&e);
  EXPECT_EQ(2047u, strlen(e.szMessage));

  // The same limit holds for the fallback log and the trace hook.
  DB_SetLog(CollectLog);
  DB_SetTrace(CollectTrace);
  tvu_log(TQ_LOG_ERROR, "%s", big.c_str());
  tvu_trace("%s", big.c_str());
  ASSERT_FALSE(g_logged.empty());
  EXPECT_EQ(2047u, g_logged.back().size());
  EXPECT_EQ(2047u, g_traced.back().size());
}

TEST_F(HooksTest, SetLogWithoutHostExportStoresTheFallbackAndFails) {
  // This test program does not export "vttvu_log".
  EXPECT_EQ(DB_NUM_E_FAILED, DB_SetLog(CollectLog));
  ASSERT_NE(nullptr, g_tq_log_ptr);
  g_tq_log_ptr(TQ_LOG_PROGRESS, "through %s", "g_tq_log_ptr");
  ASSERT_EQ(2u, g_logged.size());
  EXPECT_EQ("DB_SetLog", g_logged[0]);
  EXPECT_EQ("through g_tq_log_ptr", g_logged[1]);
}

TEST_F(HooksTest, WithoutHooksLoggingAndTracingAreSilent) {
  tvu_log(TQ_LOG_ERROR, "nobody listens %d", 1);
  tvu_trace("nobody listens %d", 2);
  tvu_log_error("nobody listens %d", 3);
  EXPECT_TRUE(g_logged.empty());
  // The error record still keeps the last error.
  DB_ERROR e;
  DB_GetError(&e);
  EXPECT_STREQ("nobody listens 3", e.szMessage);
  EXPECT_EQ(DB_NUM_E_FAILED, e.uiCode);
}

TEST_F(HooksTest, SetTraceAndGetInfoRefuseNull) {
  EXPECT_EQ(DB_NUM_E_FAILED, DB_SetTrace(nullptr));
  EXPECT_EQ(DB_NUM_E_FAILED, DB_GetInfo(nullptr));
  EXPECT_EQ(DB_NUM_I_OK, DB_SetTrace(CollectTrace));
  ASSERT_EQ(1u, g_traced.size());
  EXPECT_EQ("DB_SetTrace", g_traced[0]);

  DB_INFO info;
  int sentinel = 0;
  info.pReserved = &sentinel;
  ASSERT_EQ(DB_NUM_I_OK, DB_GetInfo(&info));
  EXPECT_STREQ("KORVO Backup Saveset Consolidation using VFS API Client", info.pszDescription);
  EXPECT_STREQ("5.2.0.16", info.pszVersion);
  EXPECT_NE(nullptr, info.pszBuild);
  EXPECT_EQ(1, info.iFlag);
  EXPECT_EQ(&sentinel, info.pReserved);  // left untouched
}

TEST_F(HooksTest, RefusingCallsAndAcknowledgements) {
  DB_SetTrace(CollectTrace);
  EXPECT_EQ(DB_NUM_E_FAILED, DB_SetItem(2, "item"));
  EXPECT_EQ("DB_SetItem: !!! type: 2, item_name: item", g_traced.back());
  uint32_t len = 10;
  EXPECT_EQ(DB_NUM_E_FAILED, DB_WriteBlock("x", &len));
  EXPECT_EQ(DB_NUM_I_END, DB_DirItem());
  EXPECT_EQ(DB_NUM_I_OK, DB_OpenItem());
  EXPECT_EQ(DB_NUM_I_OK, DB_CloseItem());
  EXPECT_EQ(0, DB_Results());
  DB_SetLog(CollectLog);
  EXPECT_EQ(DB_NUM_I_OK, DB_GetItem("p", "o", "f"));
  EXPECT_EQ("DB_GetItem(path: [p], orig: [o], file: [f]) return: [DB_NUM_I_OK] (3000)", g_logged.back());
}

TEST_F(HooksTest, FatalReportWritesOneStatusLineAndEndsTheProcess) {
  tvutest::TempDir dir;
  tvu_set_meta_dir((dir.path() + "\\").c_str());
  EXPECT_EXIT(tvu_fatal("Cannot open saveset [%s] error = %d\n", "x", 2), ::testing::ExitedWithCode(1), "");
  std::string status = tvutest::ReadFile(dir / "tvu_con.status");
  // "YYYY-MM-DD HH:MM:SS ERROR INFO=<message>\n"
  ASSERT_EQ(20u + std::string("ERROR INFO=Cannot open saveset [x] error = 2\n").size(), status.size()) << status;
  EXPECT_EQ("ERROR INFO=Cannot open saveset [x] error = 2\n", status.substr(20));
  EXPECT_EQ('-', status[4]);
  EXPECT_EQ(':', status[13]);

  tvu_note("item %s not handled", "a");
  tvu_note("item %s not handled", "b");
  EXPECT_EQ("item a not handled\nitem b not handled\n", tvutest::ReadFile(dir / "tvu_con.notes"));
}

TEST_F(HooksTest, DedupLibraryMessagesByLevelMarker) {
  tvutest::TempDir dir;
  const std::string file = dir / "trace.log";
  struct Case {
    int traceLevel;
    const char* text;
    const char* expected;  // null: not written
  };
  const Case cases[] = {
      // Errors and warnings are written whenever tracing is on at all;
      // trace level 0 writes no line.
      {1, "%l0 disk failed", "Error:  disk failed"},
      {1, "%l1 slow", "Warning:  slow"},
      {0, "%l0 disk failed", nullptr},
      {0, "%l2 started", nullptr},
      {1, "%l2 started", "Info:  started"},
      {1, "%l3 chunk", nullptr},
      {2, "%l3 chunk", "Trace:  chunk"},
      {2, "%l7 bits", nullptr},
      {3, "%l7 bits", "Debug:  bits"},
      {0, "plain text", nullptr},
      {1, "plain text", "plain text"},
      {1, "%lx not a marker", "%lx not a marker"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    tvutest::WriteFile(file, "");
    korvo::trace_configure(c.traceLevel, file.c_str());
    EXPECT_EQ(0, tvu_dedup_message(c.text));
    korvo::trace_configure(0, nullptr);
    std::string written = tvutest::ReadFile(file);
    if (c.expected) {
      EXPECT_NE(std::string::npos, written.find(std::string(c.expected) + "\n")) << written;
    } else {
      EXPECT_EQ("", written);
    }
  }
}

}  // namespace
