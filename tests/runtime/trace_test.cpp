// Tests of the trace facility: level filtering, the "%lN " marker, the line
// form and whole lines under concurrent writers.
#include "runtime/trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "runtime_test_util.h"

namespace {

using runtime_test::ScopedEnv;
using runtime_test::TempDir;

// The texts of a trace file's lines, each checked for the prefix
// "YYYY-MM-DD HH:MM:SS.mmm [pid] " ('d' below: a digit, 'p': our pid).
std::vector<std::string> Texts(const std::string& path) {
  const std::string form = "dddd-dd-dd dd:dd:dd.ddd [p] ";
  const std::string pid = std::to_string(getpid());
  std::vector<std::string> texts;
  std::string all = runtime_test::ReadAll(path);
  for (size_t start = 0; start < all.size();) {
    size_t end = all.find('\n', start);
    if (end == std::string::npos) {
      ADD_FAILURE() << "last line without a line end";
      end = all.size();
    }
    std::string line = all.substr(start, end - start);
    start = end + 1;
    size_t at = 0;
    for (char f : form) {
      bool ok = f == 'p'
                    ? line.compare(at, pid.size(), pid) == 0
                    : at < line.size() && (f == 'd' ? line[at] >= '0' && line[at] <= '9' : line[at] == f);
      at += f == 'p' ? pid.size() : 1;
      if (!ok) {
        ADD_FAILURE() << "not a trace line: " << line.substr(0, 100);
        return texts;
      }
    }
    texts.push_back(line.substr(at));
  }
  return texts;
}

class TraceTest : public ::testing::Test {
 protected:
  void TearDown() override { korvo::trace_configure(0, nullptr); }
  TempDir dir_;
};

TEST_F(TraceTest, LevelFilteringMarkersAndLineEnds) {
  const std::vector<std::string> expected[] = {
      {},
      {"w1", "plain 7", "m0", "m1", "own end", ""},
      {"w1", "w2", "plain 7", "m0", "m1", "m2 x=5", "own end", ""},
      {"w1", "w2", "w3", "plain 7", "m0", "m1", "m2 x=5", "m3", "m9", "own end", ""}};
  for (int level = 0; level <= 3; ++level) {
    std::string path = dir_.File("level" + std::to_string(level) + ".trc");
    korvo::trace_configure(level, path.c_str());
    EXPECT_EQ(korvo::trace_level(), level);
    korvo::write_trace(1, "w%d", 1);
    WRITE_TRACE(2, "w%d", 2);
    WRITE_TRACE(3, "w%d", 3);
    korvo::trace("plain %d", 7);
    korvo::trace("%l0 m0");
    korvo::trace("%l1 m1");
    korvo::trace("%l2 m2 x=%d", 5);
    korvo::trace("%l3 m3");
    korvo::trace("%l9 m9");  // above 3: written at level 3
    korvo::trace("%l1 own end\n");
    korvo::trace("%l1");
    korvo::trace_configure(0, nullptr);
    EXPECT_EQ(Texts(path), expected[level]) << level;
  }
  EXPECT_FALSE(std::ifstream(dir_.File("level0.trc")).good());  // not even created

  // A line far longer than any internal buffer is still one line.
  std::string path = dir_.File("long.trc");
  korvo::trace_configure(1, path.c_str());
  std::string big(100000, 'b');
  korvo::write_trace(1, "big:%s:end", big.c_str());
  EXPECT_EQ(Texts(path), std::vector<std::string>{"big:" + big + ":end"});
}

TEST_F(TraceTest, DisabledLinesAreNotFormatted) {
  korvo::trace_configure(1, dir_.File("lazy.trc").c_str());
  int evaluated = 0;
  WRITE_TRACE(2, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  WRITE_TRACE(1, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
}

TEST_F(TraceTest, ConfigurationFromTheEnvironment) {
  std::string path = dir_.File("env.trc");
  ScopedEnv file("TQ_TRACE_FILE", path);
  const std::pair<std::optional<std::string>, int> cases[] = {
      {"2", 2},  {" 3 ", 3}, {"7", 3},         {"99999999999999999999", 3}, {"-1", 0}, {"abc", 0},
      {"2x", 0}, {"", 0},    {std::nullopt, 0}};
  for (const auto& [value, level] : cases) {
    ScopedEnv env("TQ_TRACE_LEVEL", value);
    korvo::trace_reconfigure();
    EXPECT_EQ(korvo::trace_level(), level) << value.value_or("(unset)");
  }
  korvo::trace("from env");  // the last setting was 0
  ScopedEnv env("TQ_TRACE_LEVEL", std::string("1"));
  korvo::trace_reconfigure();
  korvo::trace("from env %d", 1);
  korvo::trace_configure(0, nullptr);
  EXPECT_EQ(Texts(path), std::vector<std::string>{"from env 1"});
}

TEST_F(TraceTest, ConcurrentWritersNeverInterleave) {
  std::string path = dir_.File("threads.trc");
  korvo::trace_configure(2, path.c_str());
  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  // Lengths vary up to beyond the formatter's stack buffer.
  auto payload = [](int t, int i) { return std::string(static_cast<size_t>(i * 37 % 3000), char('a' + t)); };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &payload] {
      for (int i = 0; i < kLines; ++i) korvo::trace("%l2 t%d i%d %s|", t, i, payload(t, i).c_str());
    });
  }
  for (std::thread& th : threads) th.join();
  korvo::trace_configure(0, nullptr);

  std::vector<std::string> texts = Texts(path);
  ASSERT_EQ(texts.size(), size_t{kThreads * kLines});
  std::vector<int> next(kThreads, 0);
  for (const std::string& text : texts) {
    int t = -1;
    int i = -1;
    int consumed = 0;
    ASSERT_EQ(std::sscanf(text.c_str(), "t%d i%d %n", &t, &i, &consumed), 2) << text.substr(0, 100);
    ASSERT_TRUE(t >= 0 && t < kThreads) << text.substr(0, 100);
    EXPECT_EQ(i, next[t]++);  // each thread's lines in its own order
    EXPECT_EQ(text.substr(static_cast<size_t>(consumed)), payload(t, i) + "|");
  }
}

}  // namespace
