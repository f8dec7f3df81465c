// Tests of the trace facility: level filtering, the "%lN " marker, the line
// form and whole lines under concurrent writers.
#include "runtime/trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "runtime_test_util.h"

namespace {

using runtime_test::ReadAll;
using runtime_test::ScopedEnv;
using runtime_test::TempDir;

std::vector<std::string> Lines(const std::string& path) {
  std::vector<std::string> lines;
  std::istringstream in(ReadAll(path));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The text of a trace line after "YYYY-MM-DD HH:MM:SS.mmm [pid] "; fails the
// test when the line does not have that form.  Only the short prefix goes
// through the regex: the texts can be long.
std::string TextOf(const std::string& line) {
  static const std::regex form(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[(\d+)\] $)");
  size_t end = line.find("] ");
  std::string prefix = line.substr(0, end == std::string::npos ? 0 : end + 2);
  std::smatch m;
  if (!std::regex_match(prefix, m, form)) {
    ADD_FAILURE() << "not a trace line: " << line.substr(0, 200);
    return {};
  }
  EXPECT_EQ(std::stoi(m[1]), static_cast<int>(getpid()));
  return line.substr(prefix.size());
}

std::vector<std::string> Texts(const std::string& path) {
  std::vector<std::string> texts;
  for (const std::string& line : Lines(path)) texts.push_back(TextOf(line));
  return texts;
}

class TraceTest : public ::testing::Test {
 protected:
  void TearDown() override { korvo::trace_configure(0, nullptr); }
  TempDir dir_;
};

TEST_F(TraceTest, LevelFilteringAndMarkers) {
  struct Case {
    int level;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {0, {}},
      {1, {"w1", "plain 7", "m0", "m1"}},
      {2, {"w1", "w2", "plain 7", "m0", "m1", "m2 x=5"}},
      {3, {"w1", "w2", "w3", "plain 7", "m0", "m1", "m2 x=5", "m3", "m9"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.level);
    std::string path = dir_.File("level" + std::to_string(c.level) + ".trc");
    korvo::trace_configure(c.level, path.c_str());
    EXPECT_EQ(korvo::trace_level(), c.level);
    korvo::write_trace(1, "w%d", 1);
    WRITE_TRACE(2, "w%d", 2);
    WRITE_TRACE(3, "w%d", 3);
    korvo::trace("plain %d", 7);
    korvo::trace("%l0 m0");
    korvo::trace("%l1 m1");
    korvo::trace("%l2 m2 x=%d", 5);
    korvo::trace("%l3 m3");
    korvo::trace("%l9 m9");  // above 3: written at level 3
    korvo::trace_configure(0, nullptr);
    EXPECT_EQ(Texts(path), c.expected);
  }
}

TEST_F(TraceTest, LineFormAndLineEnds) {
  std::string path = dir_.File("form.trc");
  korvo::trace_configure(3, path.c_str());
  korvo::write_trace(1, "has its own end\n");
  korvo::write_trace(1, "%s", "");
  korvo::trace("%l2");  // a marker and nothing else
  std::string big(100000, 'b');
  korvo::write_trace(1, "big:%s:end", big.c_str());
  korvo::trace_configure(0, nullptr);
  std::vector<std::string> texts = Texts(path);
  ASSERT_EQ(texts.size(), 4u);
  EXPECT_EQ(texts[0], "has its own end");
  EXPECT_EQ(texts[1], "");
  EXPECT_EQ(texts[2], "");
  EXPECT_EQ(texts[3], "big:" + big + ":end");
}

TEST_F(TraceTest, DisabledTracingFormatsAndWritesNothing) {
  std::string path = dir_.File("off.trc");
  korvo::trace_configure(1, path.c_str());
  int evaluated = 0;
  auto count = [&evaluated]() { return ++evaluated; };
  WRITE_TRACE(2, "%d", count());
  EXPECT_EQ(evaluated, 0);  // the level check comes before the arguments
  WRITE_TRACE(1, "%d", count());
  EXPECT_EQ(evaluated, 1);

  korvo::trace_configure(0, path.c_str());
  std::string silent = dir_.File("silent.trc");
  korvo::trace_configure(0, silent.c_str());
  korvo::write_trace(0, "level 0 line at trace level 0");
  korvo::trace("%l0 also not");
  EXPECT_FALSE(std::ifstream(silent).good());  // not even created

  korvo::trace_configure(3, nullptr);  // a level without a file writes nowhere
  korvo::write_trace(1, "to nowhere");
  EXPECT_EQ(Texts(path), std::vector<std::string>{"1"});
}

TEST_F(TraceTest, ConfigurationFromTheEnvironment) {
  std::string path = dir_.File("env.trc");
  ScopedEnv file("TQ_TRACE_FILE", path);
  struct Case {
    const char* value;
    int level;
  };
  const Case cases[] = {{"2", 2}, {" 3 ", 3}, {"7", 3}, {"99999999999999999999", 3}, {"-1", 0},
                        {"abc", 0}, {"2x", 0}, {"", 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    ScopedEnv level("TQ_TRACE_LEVEL", std::string(c.value));
    korvo::trace_reconfigure();
    EXPECT_EQ(korvo::trace_level(), c.level);
  }
  {
    ScopedEnv level("TQ_TRACE_LEVEL", std::nullopt);
    korvo::trace_reconfigure();
    EXPECT_EQ(korvo::trace_level(), 0);
  }
  ScopedEnv level("TQ_TRACE_LEVEL", std::string("1"));
  korvo::trace_reconfigure();
  korvo::trace("from env");
  korvo::trace_configure(0, nullptr);
  EXPECT_EQ(Texts(path), std::vector<std::string>{"from env"});
}

TEST_F(TraceTest, ConcurrentWritersNeverInterleave) {
  std::string path = dir_.File("threads.trc");
  korvo::trace_configure(2, path.c_str());
  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        // Lengths vary up to beyond the formatter's stack buffer.
        std::string payload(static_cast<size_t>((i * 37) % 3000), static_cast<char>('a' + t));
        korvo::trace("%l2 t%d i%d %s|", t, i, payload.c_str());
      }
    });
  }
  for (std::thread& th : threads) th.join();
  korvo::trace_configure(0, nullptr);

  std::vector<std::string> texts = Texts(path);
  ASSERT_EQ(texts.size(), static_cast<size_t>(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  for (const std::string& text : texts) {
    int t = -1;
    int i = -1;
    int consumed = 0;
    ASSERT_EQ(std::sscanf(text.c_str(), "t%d i%d %n", &t, &i, &consumed), 2) << text.substr(0, 100);
    ASSERT_TRUE(t >= 0 && t < kThreads) << text.substr(0, 100);
    EXPECT_EQ(i, next[t]++);  // each thread's lines in its own order
    std::string expected(static_cast<size_t>((i * 37) % 3000), static_cast<char>('a' + t));
    EXPECT_EQ(text.substr(static_cast<size_t>(consumed)), expected + "|");
  }
}

}  // namespace
